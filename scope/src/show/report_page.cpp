#include <algorithm>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "embedded.h"
#include "number_text.h"
#include "report.h"
#include "report_charts.h"
#include "run_warnings.h"
#include "text_format.h"
#include "tool_version.h"

namespace scope {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kAbsent = "<span class=\"absent\">&ndash;</span>";
constexpr const char* kUnknown = "<span class=\"absent\">not known</span>";

std::string Escape(const std::string& text) {
  std::string escaped;
  for (const char letter : text) {
    switch (letter) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped += letter;
    }
  }
  return escaped;
}

// In a script element nothing but "<" leads out of the data.
std::string ScriptJson(const Json& json) {
  std::string text = json.dump(-1, ' ', false, Json::error_handler_t::replace);
  std::string escaped;
  for (const char letter : text) {
    if (letter == '<') {
      escaped += "\\u003c";
    } else {
      escaped += letter;
    }
  }
  return escaped;
}

std::string Tag(const std::string& name, const std::string& inner, const std::string& attributes = {}) {
  return "<" + name + (attributes.empty() ? "" : " " + attributes) + ">" + inner + "</" + name + ">";
}

std::string Cell(const std::string& html) {
  return Tag("td", html);
}
std::string Heading(const std::string& html) {
  return Tag("th", html, "scope=\"col\"");
}
std::string WordsHeading(const std::string& html) {
  return Tag("th", html, "scope=\"col\" class=\"words\"");
}
std::string RowHeading(const std::string& html) {
  return Tag("th", html, "scope=\"row\"");
}

std::string Thousands(std::uint64_t value) {
  std::string digits = std::to_string(value);
  for (std::ptrdiff_t at = static_cast<std::ptrdiff_t>(digits.size()) - 3; at > 0; at -= 3) {
    digits.insert(static_cast<std::size_t>(at), ",");
  }
  return digits;
}

std::string LatencyCell(const std::optional<std::uint64_t>& ns) {
  if (!ns || *ns == 0) return Cell(kAbsent);
  std::string text = Latency(*ns);
  const std::size_t micro = text.find("us");
  if (micro != std::string::npos) text.replace(micro, 1, "&micro;");
  return Cell(text);
}

std::string Bytes(std::uint64_t bytes) {
  const auto value = static_cast<double>(bytes);
  if (bytes >= std::uint64_t{1} << 30) return Format("%.1f GiB", value / (1 << 30));
  if (bytes >= std::uint64_t{1} << 20) return Format("%.3g MiB", value / (1 << 20));
  return Format("%.3g KiB", value / (1 << 10));
}

std::string EngineTitle(const std::string& engine) {
  static const std::map<std::string, std::string> kTitles = {
      {"cpu", "CPU: memory copies"},
      {"vpc", "VPC: image resizes"},
      {"venc", "VENC: frame encodes"},
      {"aic", "AIC: inferences"},
      {"vpc_copy", "VPC set-up: copies to media memory"}};
  const auto at = kTitles.find(engine);
  return at == kTitles.end() ? engine : at->second;
}

// --- the page
// ---------------------------------------------------------------------------------------------------

using Summaries = std::function<std::string(const ReportedRun&)>;

std::string Text(const std::string& text) {
  return text.empty() ? kUnknown : Escape(text);
}

std::vector<std::pair<std::string, Summaries>> ConditionRows() {
  return {
      {"Folder", [](const ReportedRun& run) { return Escape(run.run.folder); }},
      {"Label",
       [](const ReportedRun& run) {
         return run.run.info.label.empty() ? std::string(kAbsent) : Escape(run.run.info.label);
       }},
      {"Started (UTC)", [](const ReportedRun& run) { return Text(run.run.info.started); }},
      {"Duration", [](const ReportedRun& run) { return Format("%.1f s", run.run.info.durationS); }},
      {"State",
       [](const ReportedRun& run) {
         const RunInfo& info = run.run.info;
         if (info.complete) return std::string("complete");
         return "incomplete" + (info.incompleteReason.empty() ? "" : ": " + Escape(info.incompleteReason));
       }},
      {"End of the benchmark",
       [](const ReportedRun& run) -> std::string {
         const RunInfo& info = run.run.info;
         if (info.kind != "record") return kUnknown;
         return info.signal != 0 ? Format("signal %d", info.signal) : Format("status %d", info.exitStatus);
       }},
      {"Meter",
       [](const ReportedRun& run) {
         return std::string(run.run.info.conditions.meter
                                ? "measured every operation"
                                : "none: rate lines alone, without operations, bytes and latencies");
       }},
      {"Configuration", [](const ReportedRun& run) { return Text(run.run.info.config.path); }},
      {"Levels",
       [](const ReportedRun& run) {
         std::string text;
         for (const auto& [engine, level] : run.run.info.config.levels) {
           text += (text.empty() ? "" : ", ") + engine + Format(" %d", level);
         }
         return Text(text);
       }},
      {"Build", [](const ReportedRun& run) { return Text(run.run.info.conditions.buildType); }},
      {"Libraries",
       [](const ReportedRun& run) {
         std::string text;
         for (const auto& [name, version] : run.run.info.conditions.libraryVersions) {
           text += (text.empty() ? "" : ", ") + name + " " + version;
         }
         return Text(text);
       }},
      {"CPU", [](const ReportedRun& run) { return Text(run.run.info.conditions.cpuModel); }},
      {"CPUs",
       [](const ReportedRun& run) {
         const int count = run.run.info.conditions.cpuCount;
         return count > 0 ? std::to_string(count) : kUnknown;
       }},
      {"Caches",
       [](const ReportedRun& run) {
         std::string text;
         for (const Cache& cache : run.run.info.conditions.caches) {
           text += (text.empty() ? "" : ", ") + Format("L%d ", cache.level) + cache.type + " " +
                   (cache.instances > 1 ? Format("%d x ", cache.instances) : "") + Bytes(cache.bytes);
         }
         return Text(text);
       }},
      {"Governor", [](const ReportedRun& run) { return Text(run.run.info.conditions.governor); }},
      {"CPU frequency",
       [](const ReportedRun& run) -> std::string {
         const Conditions& machine = run.run.info.conditions;
         if (machine.cpuMhzMax <= 0) return kUnknown;
         return Format("%.0f to %.0f MHz", machine.cpuMhzMin, machine.cpuMhzMax);
       }},
      {"Memory",
       [](const ReportedRun& run) {
         const std::uint64_t bytes = run.run.info.conditions.memTotalBytes;
         return bytes > 0 ? Format("%.1f GB", static_cast<double>(bytes) / 1e9) : kUnknown;
       }},
      {"Kernel", [](const ReportedRun& run) { return Text(run.run.info.conditions.kernel); }},
      {"Load average at the start",
       [](const ReportedRun& run) {
         std::string text;
         for (const double load : run.run.info.conditions.loadAverage) {
           text += (text.empty() ? "" : ", ") + Format("%.2f", load);
         }
         return Text(text);
       }},
      {"Machine (hash of its name)",
       [](const ReportedRun& run) { return Text(run.run.info.conditions.hostnameHash); }},
      {"Recorded by", [](const ReportedRun& run) { return Text(run.run.info.tool); }},
  };
}

std::string ConditionsTable(const Runs& runs) {
  std::string table = "<table class=\"conditions\">";
  if (runs.size() > 1) {
    table += "<thead><tr>" + Heading("");
    for (const ReportedRun& run : runs) table += Heading(Escape(run.name));
    table += "</tr></thead>";
  }
  table += "<tbody>";
  for (const auto& [title, value] : ConditionRows()) {
    std::set<std::string> different;
    std::string cells;
    for (const ReportedRun& run : runs) {
      const std::string html = value(run);
      different.insert(html);
      cells += Cell(html);
    }
    const bool differs = different.size() > 1;
    table += Tag(
        "tr", RowHeading(std::string(differs ? "<span title=\"differs\">&ne;</span> " : "") + title) + cells,
        differs ? "class=\"differs\"" : "");
  }
  return "<div class=\"wide\">" + table + "</tbody></table></div>";
}

std::string SummaryRow(const std::string& heading, const ReportedRun& run, const std::string& engine,
                       const std::string& attributes) {
  const EngineSummary* const summary = Find(run, engine);
  const PrintedRates* const printed = run.summary.PrintedOf(engine);
  std::string cells = heading;
  if (summary == nullptr) {
    for (int i = 0; i != 8; ++i) cells += Cell(kAbsent);
  } else {
    const WorkSummary& work = summary->work;
    cells += Cell(std::to_string(summary->threads.size())) + Cell(Thousands(work.operations)) +
             Cell(RateText(work.operationsPerS)) +
             Cell(work.gigabytesPerS ? Format("%.3f", *work.gigabytesPerS) : kAbsent) +
             LatencyCell(work.p50Ns) + LatencyCell(work.p99Ns) + LatencyCell(work.maxNs) +
             Tag("td", Thousands(work.failures), work.failures == 0 ? "" : "class=\"bad\"");
  }
  const bool exact = summary != nullptr && summary->work.busyRate > 0;
  const bool doubtful = summary != nullptr && HasShortOperations(*summary);
  cells +=
      Tag("td", printed == nullptr ? kAbsent : RateText(printed->median), doubtful ? "class=\"bad\"" : "");
  cells += Cell(exact ? RateText(summary->work.busyRate) : kAbsent);
  const bool comparable = exact && printed != nullptr && printed->median > 0;
  cells +=
      Cell(comparable ? Format("%+.0f %%", (printed->median / summary->work.busyRate - 1) * 100) : kAbsent);
  return Tag("tr", cells, attributes);
}

std::string SummaryTable(const Runs& runs, const std::vector<std::string>& engines) {
  const bool several = runs.size() > 1;
  std::string table = "<table class=\"figures\"><thead><tr>" + WordsHeading("Engine");
  if (several) table += WordsHeading("Run");
  for (const char* title : {"Threads", "Operations", "ops/s", "GB/s", "p50", "p99", "max", "Failures",
                            "Printed fps", "Exact fps", "Off by"}) {
    table += Heading(title);
  }
  table += "</tr></thead><tbody>";
  for (const std::string& engine : engines) {
    for (std::size_t i = 0; i != runs.size(); ++i) {
      std::string heading;
      if (i == 0) {
        heading =
            Tag("th", Escape(engine),
                "scope=\"rowgroup\"" + (several ? " rowspan=\"" + std::to_string(runs.size()) + "\"" : ""));
      }
      if (several) heading += RowHeading(Escape(runs[i].name));
      table += SummaryRow(heading, runs[i], engine, i == 0 ? "class=\"first\"" : "");
    }
  }
  for (std::size_t i = 0; i != runs.size(); ++i) {
    if (!runs[i].summary.gigabytesPerS) continue;
    table += Tag("tr",
                 Tag("th", "all", "scope=\"row\"") + (several ? RowHeading(Escape(runs[i].name)) : "") +
                     "<td colspan=\"3\"></td>" + Cell(Format("%.3f", *runs[i].summary.gigabytesPerS)) +
                     "<td colspan=\"7\"></td>",
                 "class=\"first\"");
  }
  return "<div class=\"wide\">" + table + "</tbody></table></div>";
}

std::string ThreadTable(const Runs& runs) {
  const bool several = runs.size() > 1;
  std::string table = "<table class=\"figures\"><thead><tr>";
  if (several) table += WordsHeading("Run");
  table += WordsHeading("Engine");
  for (const char* title :
       {"Thread", "Operations", "ops/s", "GB/s", "p50", "p99", "max", "Failures", "Exact fps"}) {
    table += Heading(title);
  }
  table += "</tr></thead><tbody>";
  bool any = false;
  for (const ReportedRun& run : runs) {
    for (const EngineSummary& engine : run.summary.engines) {
      for (const ThreadSummary& thread : engine.threads) {
        any = true;
        const WorkSummary& work = thread.work;
        table += "<tr>" + (several ? RowHeading(Escape(run.name)) : "") + RowHeading(Escape(engine.engine)) +
                 Cell(std::to_string(thread.thread)) + Cell(Thousands(work.operations)) +
                 Cell(RateText(work.operationsPerS)) +
                 Cell(work.gigabytesPerS ? Format("%.3f", *work.gigabytesPerS) : kAbsent) +
                 LatencyCell(work.p50Ns) + LatencyCell(work.p99Ns) + LatencyCell(work.maxNs) +
                 Cell(Thousands(work.failures)) +
                 Cell(work.busyRate > 0 ? RateText(work.busyRate) : kAbsent) + "</tr>";
      }
    }
  }
  if (!any) return {};
  return "<details><summary>Each thread</summary><div class=\"wide\">" + table +
         "</tbody></table></div></details>";
}

std::string WarningList(const Runs& runs) {
  std::string html;
  for (const ReportedRun& run : runs) {
    if (run.warnings.empty()) continue;
    std::string items;
    for (const std::string& warning : run.warnings) items += Tag("li", Escape(warning));
    html += (runs.size() > 1 ? Tag("h3", Escape(run.name)) : "") + Tag("ul", items);
  }
  if (html.empty()) return "<p>None.</p>";
  return Tag("div", html, "class=\"warnings\"");
}

std::string ChartFigures(const std::vector<Chart>& charts, const std::string& about) {
  std::string html;
  for (const Chart& chart : charts) {
    const std::string id = Escape(chart.id);
    const std::string words = Escape(about + chart.title) +
                              ". Vertical: " + Escape(chart.spec["yTitle"].get<std::string>()) +
                              ". Horizontal: " + Escape(chart.spec["xTitle"].get<std::string>()) + ".";
    const std::string canvas =
        Tag("canvas", "", "id=\"" + id + "\" role=\"img\" aria-label=\"" + words + "\"");
    html += Tag("figure", Tag("figcaption", Escape(chart.title)) + Tag("div", canvas, "class=\"plot\""),
                chart.broad ? "class=\"broad\"" : "");
  }
  return Tag("div", html, "class=\"charts\"");
}

std::string CounterSources(const Runs& runs) {
  const bool several = runs.size() > 1;
  std::string rows;
  for (const ReportedRun& run : runs) {
    for (const CounterSource& source : run.run.info.counters) {
      rows += "<tr>" + (several ? RowHeading(Escape(run.name)) : "") + RowHeading(Escape(source.source)) +
              Cell(source.present ? "recorded" : "absent: " + Escape(source.reason)) + "</tr>";
    }
  }
  if (rows.empty()) return "<p>None were looked for.</p>";
  return "<div class=\"wide\"><table><thead><tr>" + (several ? Heading("Run") : "") + Heading("Source") +
         Heading("State") + "</tr></thead><tbody>" + rows + "</tbody></table></div>";
}

std::string ConfigurationTexts(const Runs& runs) {
  std::string html;
  for (const ReportedRun& run : runs) {
    const Configuration& config = run.run.info.config;
    if (config.text.empty()) continue;
    html += "<details><summary>Configuration file " +
            Escape(config.path + (runs.size() > 1 ? " of " + run.name : std::string())) + "</summary>" +
            Tag("pre", Escape(config.text)) + "</details>";
  }
  return html;
}

std::string Section(const std::string& title, const std::string& html) {
  return Tag("section", Tag("h2", title) + html) + "\n";
}

constexpr const char* kMeanings =
    "<dl>"
    "<dt>ops/s, GB/s</dt><dd>Of all threads of the engine together, pauses included, over the seconds "
    "between the one "
    "in which it began and the one in which it ended; the charts show the same seconds. GB are "
    "10<sup>9</sup> bytes, "
    "read and written by the operations; caches may keep some of them from the memory.</dd>"
    "<dt>p50, p99, max</dt><dd>Latency of an operation over the whole run: half of them, and 99 of 100, took "
    "no longer. "
    "In a chart of several threads, p50 is the median of the threads&#39; weighted by their operations and "
    "p99 that of "
    "the thread with the greatest.</dd>"
    "<dt>Printed fps</dt><dd>Median of the rates that the benchmark itself printed, from the first on that "
    "is not 0: "
    "operations per second of busy time of one thread, from whole milliseconds an operation.</dd>"
    "<dt>Exact fps, off by</dt><dd>The same quantity, measured in nanoseconds over the whole run, and how "
    "far the "
    "printed one is from it.</dd>"
    "</dl>";

std::string Heads(const Runs& runs) {
  std::string html;
  for (const ReportedRun& reported : runs) {
    const RunInfo& info = reported.run.info;
    std::string text = Format(", %.1f s", info.durationS);
    text += info.complete ? "" : ", incomplete";
    if (!info.conditions.cpuModel.empty()) text += ", " + info.conditions.cpuModel;
    if (!info.conditions.buildType.empty()) text += ", " + info.conditions.buildType + " build";
    html += Tag(
        "p", Tag("strong", Escape(reported.name)) + " " + Escape(info.kind + " of " + info.started + text));
  }
  return html;
}

std::string Title(const Runs& runs) {
  std::string names;
  for (const ReportedRun& run : runs) names += (names.empty() ? "" : " | ") + run.name;
  return names;
}

}  // namespace

std::string ReportPage(const Runs& runs) {
  const std::vector<std::string> engines = Engines(runs);
  Json specs = Json::array();
  const auto figures = [&specs](const std::vector<Chart>& charts, const std::string& about) {
    for (const Chart& chart : charts) specs.push_back(chart.spec);
    return charts.empty() ? std::string() : ChartFigures(charts, about);
  };

  std::string body = Tag("header", Tag("h1", "stress_scope report") + Heads(runs)) + "\n<main>\n";
  body += Section("Warnings", WarningList(runs));
  std::string summary = engines.empty() ? "<p>Nothing was recorded: neither an operation nor a rate line.</p>"
                                        : SummaryTable(runs, engines) + ThreadTable(runs);
  for (const ReportedRun& run : runs) {
    if (run.run.info.conditions.meter) continue;
    summary += "<p class=\"absent\">" + Escape(run.name) +
               ": recorded without the meter, so there are no operations, bytes and latencies.</p>";
  }
  summary += figures(TotalCharts(runs), "");
  body += Section("Summary", summary);
  for (const std::string& engine : engines) {
    body +=
        Section(Escape(EngineTitle(engine)), figures(EngineCharts(runs, engine), EngineTitle(engine) + ". "));
  }
  body +=
      Section("Counters of the machine", figures(CounterCharts(runs), "Counters. ") + CounterSources(runs));
  body += Section("Conditions", ConditionsTable(runs) + ConfigurationTexts(runs));
  body += Section("What the figures mean", kMeanings);
  body +=
      "</main>\n<footer><p>Made by " + std::string(kToolVersion) +
      ". The charts are drawn by Chart.js, which is in this page.</p><details><summary>Licence of Chart.js"
      "</summary>" +
      Tag("pre", Escape(std::string(ChartsLibraryLicence()))) + "</details></footer>\n";

  std::string page =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      // Nothing is loaded, whatever the data says.
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; script-src "
      "'unsafe-inline'; "
      "style-src 'unsafe-inline'; img-src data:\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>" +
      Escape("stress_scope: " + Title(runs)) + "</title>\n<link rel=\"icon\" href=\"data:,\">\n<style>\n";
  page += PageStyle();
  page +=
      "</style>\n</head>\n<body>\n<noscript><p class=\"warnings\">The charts need "
      "JavaScript.</p></noscript>\n";
  page += body;
  page +=
      "<script type=\"application/json\" id=\"chart-data\">" + ScriptJson(specs) + "</script>\n<script>\n";
  page += ChartsLibrary();
  page += "</script>\n<script>\n";
  page += PageScript();
  page += "</script>\n</body>\n</html>\n";
  return page;
}

}  // namespace scope
