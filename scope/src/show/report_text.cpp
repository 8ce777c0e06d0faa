// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "deadline.h"
#include "engines.h"
#include "fill_text.h"
#include "latency_texts.h"
#include "printable.h"
#include "report.h"
#include "run_error.h"
#include "text_format.h"
#include "text_table.h"

namespace scope {
namespace {

std::string Head(const ReportedRun& reported) {
  const RunInfo& info = reported.run.info;
  const Conditions& machine = info.conditions;
  std::string text = Printable(reported.name + "\n  " + reported.run.folder) + ": " + info.kind + " of " +
                     info.started + Format(", %.1f s, ", info.durationS) +
                     (info.complete ? "complete" : "incomplete");
  std::vector<std::string> parts;
  if (!machine.cpuModel.empty()) parts.push_back(machine.cpuModel);
  if (machine.cpuCount > 0) parts.push_back(Counted(static_cast<std::uint64_t>(machine.cpuCount), "CPU"));
  if (machine.memTotalBytes > 0)
    parts.push_back(Format("%.1f GB", static_cast<double>(machine.memTotalBytes) / 1e9));
  if (!machine.kernel.empty()) parts.push_back("Linux " + machine.kernel);
  if (!machine.buildType.empty()) parts.push_back(machine.buildType + " build");
  if (!machine.loadAverage.empty()) parts.push_back(Format("load average %.2f", machine.loadAverage.front()));
  return text + (parts.empty() ? "" : "\n  " + Joined(parts, ", ")) + "\n\n";
}

// The row of an engine. Either of the two may be missing.
std::vector<std::string> Row(const std::string& engine, const EngineSummary* measured,
                             const PrintedRates* printed) {
  std::vector<std::string> row = {"  " + engine, measured ? std::to_string(measured->threads.size()) : "-"};
  for (const FigureKind* const kind : EngineKinds()) {
    if (kind->figure == Figure::kPrinted) {
      row.push_back(printed ? kind->text(printed->median) : "-");
    } else {
      row.push_back(measured ? FigureText(*kind, measured->work) : "-");
    }
  }
  return row;
}

std::string Table(const RunSummary& summary, std::size_t width) {
  TextTable table("l");
  std::vector<std::string> head = {"  engine", "threads"};
  std::vector<std::string> all = {"  all", ""};
  for (const FigureKind* const kind : EngineKinds()) {
    head.emplace_back(kind->title);
    all.push_back(kind->figure == Figure::kBandwidth && summary.gigabytesPerS
                      ? kind->text(*summary.gigabytesPerS)
                      : "");
  }
  table.Add(head);
  for (const EngineSummary& engine : summary.engines) {
    if (IsLoad(engine.engine)) table.Add(Row(engine.engine, &engine, summary.PrintedOf(engine.engine)));
  }
  for (const PrintedRates& printed : summary.printed) {
    const bool shown = std::any_of(summary.engines.begin(), summary.engines.end(),
                                   [&](const auto& engine) { return engine.engine == printed.engine; });
    if (!shown) table.Add(Row(printed.engine.empty() ? printed.stress : printed.engine, nullptr, &printed));
  }
  if (summary.gigabytesPerS) table.Add(all);
  return table.Text(width);
}

// The errors, and how much was looked at.
std::string ErrorsText(const Run& run) {
  constexpr std::size_t kShown = 3;
  std::string text;
  const std::uint64_t count = ErrorsOf(run);
  if (count != 0) {
    std::vector<std::string> sources;
    for (const auto& [source, ofSource] : ErrorCounts(run)) {
      sources.push_back(source + " " + std::to_string(ofSource));
    }
    text += "  ERRORS: " + std::to_string(count) + " (" + Printable(Joined(sources, ", ")) + ")\n";
  }
  for (std::size_t i = 0; i < std::min(run.errors.size(), kShown); ++i) {
    text += Format("    %.3f s ", run.errors[i].timeS) + Printable(ErrorText(run.errors[i])) + "\n";
  }
  if (count > kShown) text += "    all that are listed: errors.csv\n";
  for (const std::string& check : CheckTexts(run.info)) text += "  checked " + Printable(check) + "\n";
  return text;
}

}  // namespace

std::string ReportText(const std::vector<ReportedRun>& runs, std::size_t width) {
  std::string text;
  for (const ReportedRun& reported : runs) {
    if (!text.empty()) text += "\n";
    text += Head(reported);
    const bool empty = reported.summary.engines.empty() && reported.summary.printed.empty();
    text += empty ? "  nothing was recorded: neither an operation nor a rate line\n"
                  : Table(reported.summary, width);
    if (!reported.run.info.conditions.meter && !empty) {
      text += "  no meter: only rate lines, without operations, bytes and latencies\n";
    }
    for (const std::string& latency : LatencyTexts(reported.run, reported.summary)) {
      text += "  latency of memory: " + Printable(latency) + "\n";
    }
    for (const std::string& filled : FillTexts(reported.run.info))
      text += "  filled " + Printable(filled) + "\n";
    text += ErrorsText(reported.run);
    for (const EngineDeadline& deadline : reported.run.info.deadlines) {
      text += "  deadline " + Printable(DeadlineText(deadline)) + "\n";
    }
    for (const Warning& warning : reported.warnings) text += "  warning: " + Printable(warning.text) + "\n";
  }
  return text;
}

}  // namespace scope
