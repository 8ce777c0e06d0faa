// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <set>

#include "engines.h"
#include "number_text.h"
#include "report.h"
#include "text_format.h"

namespace scope {
namespace {

std::string Head(const ReportedRun& reported) {
  const RunInfo& info = reported.run.info;
  const Conditions& machine = info.conditions;
  std::string text = reported.name + "\n  " + reported.run.folder + ": " + info.kind + " of " + info.started +
                     Format(", %.1f s, ", info.durationS) + (info.complete ? "complete" : "incomplete");
  std::vector<std::string> parts;
  if (!machine.cpuModel.empty()) parts.push_back(machine.cpuModel);
  if (machine.cpuCount > 0) parts.push_back(Format("%d CPUs", machine.cpuCount));
  if (machine.memTotalBytes > 0)
    parts.push_back(Format("%.1f GB", static_cast<double>(machine.memTotalBytes) / 1e9));
  if (!machine.kernel.empty()) parts.push_back("Linux " + machine.kernel);
  if (!machine.buildType.empty()) parts.push_back(machine.buildType + " build");
  if (!machine.loadAverage.empty()) parts.push_back(Format("load average %.2f", machine.loadAverage.front()));
  for (std::size_t i = 0; i != parts.size(); ++i) text += (i == 0 ? "\n  " : ", ") + parts[i];
  return text + "\n\n";
}

std::string Figure(double value) {
  return value > 0 ? RateText(value) : "-";
}

std::string Row(const std::string& engine, const EngineSummary* work, const PrintedRates* printed) {
  std::string row = Format("  %-8s", engine.c_str());
  if (work == nullptr) {
    row += Format(" %7s %10s %10s %8s %10s %10s %10s %7s", "-", "-", "-", "-", "-", "-", "-", "-");
  } else {
    const WorkSummary& all = work->work;
    const std::string gigabytes = all.gigabytesPerS ? Format("%.3f", *all.gigabytesPerS) : "-";
    row += Format(" %7zu %10llu %10s %8s %10s %10s %10s %7llu", work->threads.size(),
                  static_cast<unsigned long long>(all.operations), RateText(all.operationsPerS).c_str(),
                  gigabytes.c_str(), all.p50Ns ? Latency(*all.p50Ns).c_str() : "-",
                  all.p99Ns ? Latency(*all.p99Ns).c_str() : "-", Latency(all.maxNs).c_str(),
                  static_cast<unsigned long long>(all.failures));
  }
  row += Format(" %11s %11s", printed == nullptr ? "-" : RateText(printed->median).c_str(),
                work == nullptr ? "-" : Figure(work->work.busyRate).c_str());
  return row + "\n";
}

std::string Table(const RunSummary& summary) {
  std::string table =
      Format("  %-8s %7s %10s %10s %8s %10s %10s %10s %7s %11s %11s\n", "engine", "threads", "operations",
             "ops/s", "GB/s", "p50", "p99", "max", "failed", "printed fps", "exact fps");
  std::set<std::string> shown;
  for (const EngineSummary& engine : summary.engines) {
    if (!IsLoad(engine.engine)) continue;
    table += Row(engine.engine, &engine, summary.PrintedOf(engine.engine));
    shown.insert(engine.engine);
  }
  for (const PrintedRates& printed : summary.printed) {
    if (shown.count(printed.engine) != 0) continue;
    table += Row(printed.engine.empty() ? printed.stress : printed.engine, nullptr, &printed);
  }
  if (summary.gigabytesPerS) {
    table += Format("  %-8s %7s %10s %10s %8.3f\n", "all", "", "", "", *summary.gigabytesPerS);
  }
  return table;
}

}  // namespace

std::string ReportText(const std::vector<ReportedRun>& runs) {
  std::string text;
  for (const ReportedRun& reported : runs) {
    if (!text.empty()) text += "\n";
    text += Head(reported);
    const bool empty = reported.summary.engines.empty() && reported.summary.printed.empty();
    text +=
        empty ? "  nothing was recorded: neither an operation nor a rate line\n" : Table(reported.summary);
    if (!reported.run.info.conditions.meter && !empty) {
      text += "  no meter: only rate lines, without operations, bytes and latencies\n";
    }
    for (const Warning& warning : reported.warnings) text += "  warning: " + warning.text + "\n";
  }
  return text;
}

}  // namespace scope
