// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <tuple>
#include <type_traits>
#include <utility>

#include "compare.h"
#include "compare_values.h"
#include "deadline.h"
#include "engines.h"
#include "latency_texts.h"
#include "page_data.h"
#include "printable.h"
#include "report.h"
#include "run_error.h"
#include "run_json.h"
#include "run_keys.h"
#include "run_tables.h"
#include "run_warnings.h"
#include "text_format.h"

namespace scope {
namespace {

template <typename Rows, typename Value>
Json Column(const Rows& rows, Value value) {
  Json column = Json::array();
  for (const auto& row : rows) column.push_back(value(row));
  return column;
}

Json FigureJson(const FigureKind* kind) {
  return Json{{"name", kind->name},
              {"title", kind->title},
              {"unit", kind->unit},
              {"lower_is_better", kind->lowerIsBetter},
              {"measured", kind->of != nullptr},
              {"chart", kind->chart}};
}

Json WorkJson(const Work& work) {
  Json json;
  for (const FigureKind& kind : FigureKinds()) {
    if (kind.of != nullptr) json[kind.name] = OrNull(kind.of(work));
  }
  return json;
}

// A second after a gap has no rate. A second without operations has no latency.
Json SecondsJson(const std::vector<EngineSecond>& seconds) {
  Json json{{"second", Column(seconds, [](const auto& second) { return Json(second.second); })},
            {"time_s", Column(seconds, [](const auto& second) { return Rounded(second.timeS); })}};
  for (const FigureKind& kind : FigureKinds()) {
    if (*kind.chart == '\0') continue;
    json[kind.name] = Column(seconds, [&kind](const EngineSecond& second) {
      const auto value = second.afterGap ? std::nullopt : kind.of(second);
      return value ? Rounded(*value) : Json(nullptr);
    });
  }
  return json;
}

// A bucket may appear once per thread.
Json HistogramJson(const std::vector<HistogramRow>& rows, const std::string& engine) {
  Json histogram{{"low_ns", Json::array()}, {"high_ns", Json::array()}, {"operations", Json::array()}};
  for (const HistogramRow& row : rows) {
    if (row.engine != engine) continue;
    histogram["low_ns"].push_back(row.lowNs);
    histogram["high_ns"].push_back(row.highNs);
    histogram["operations"].push_back(row.count);
  }
  return histogram;
}

Json EnginesJson(const ReportedRun& run) {
  Json engines = Json::array();
  for (const EngineSummary& engine : run.summary.engines) {
    Json threads = Json::array();
    for (const ThreadSummary& thread : engine.threads) {
      threads.push_back(Json{{"thread", thread.thread}, {"work", WorkJson(thread.work)}});
    }
    engines.push_back(Json{{"name", engine.engine},
                           {"work", WorkJson(engine.work)},
                           {"short_operations", HasShortOperations(engine)},
                           {"threads", threads},
                           {"first_whole", engine.firstWhole},
                           {"end_whole", engine.endWhole},
                           {"seconds", SecondsJson(engine.seconds)},
                           {"histogram", HistogramJson(run.run.histogram, engine.engine)}});
  }
  return engines;
}

Json PrintedJson(const RunSummary& summary) {
  Json printed = Json::array();
  for (const PrintedRates& rates : summary.printed) {
    printed.push_back(
        Json{{"engine", rates.engine},
             {"stress", rates.stress},
             {"median_fps", rates.median},
             {"time_s", Column(rates.rates, [](const Rate& rate) { return Rounded(rate.timeS); })},
             {"fps", Column(rates.rates, [](const Rate& rate) { return Rounded(rate.fps); })}});
  }
  return printed;
}

// The same figures as in comparisons.
Json AfterWarmupJson(const RunSummary& summary, double warmupS) {
  Json json = Json::array();
  for (const auto& [key, value] : ValuesOf(summary, warmupS)) {
    json.push_back(Json{{"engine", key.engine}, {"figure", KindOf(key.figure).name}, {"value", value}});
  }
  return json;
}

Json CountersJson(const std::vector<CounterValue>& values) {
  std::map<std::tuple<std::string, std::string, std::string>, std::pair<Json, Json>> series;
  for (const CounterValue& value : values) {
    auto& [times, figures] = series[{value.source, value.unit, value.name}];
    times.push_back(Rounded(value.timeS));
    figures.push_back(Rounded(value.value));
  }
  Json counters = Json::array();
  for (const auto& [key, columns] : series) {
    const auto& [source, unit, name] = key;
    counters.push_back(Json{{"source", source},
                            {"unit", unit},
                            {"name", name},
                            {"time_s", columns.first},
                            {"value", columns.second}});
  }
  return counters;
}

// The text of a condition is empty if the machine does not report the value.
Json ConditionsJson(const RunInfo& info) {
  Json conditions = Json::array();
  for (const auto& [key, text] : RunTexts(info)) {
    if (key.title != nullptr)
      conditions.push_back(Json{{"key", key.name}, {"title", key.title}, {"text", text}});
  }
  return conditions;
}

// A page with more rows cannot be read, and errors.csv has them all.
Json ErrorsJson(const std::vector<RunError>& errors) {
  constexpr std::size_t kMost = 1000;
  Json list = Json::array();
  for (std::size_t i = 0; i < std::min(errors.size(), kMost); ++i) {
    Json row{{"text", ErrorText(errors[i])}, {"errors", ErrorsIn(errors[i])}};
    VisitColumns(errors[i], [&row](const CsvColumn& column, const auto& value) {
      if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::optional<std::uint64_t>>) {
        row[column.name] = OrNull(value);
      } else {
        row[column.name] = value;
      }
    });
    list.push_back(std::move(row));
  }
  return list;
}

// Columns as in latency.csv.
Json LatencyJson(const std::vector<LatencySecond>& seconds) {
  Json json;
  const auto put = [&json](const CsvColumn& column, const auto& value) {
    if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::optional<std::uint64_t>>) {
      json[column.name].push_back(OrNull(value));
    } else {
      json[column.name].push_back(value);
    }
  };
  const LatencySecond none;
  VisitColumns(
      none, [&json](const CsvColumn& column, const auto& /*value*/) { json[column.name] = Json::array(); });
  for (const LatencySecond& second : seconds) VisitColumns(second, put);
  return json;
}

Json RunJson(const ReportedRun& reported, double warmupS) {
  const RunInfo& info = reported.run.info;
  Json run = Json::parse(RunInfoText(info));
  run["warnings"] = Json::array();
  run["name"] = reported.name;
  run["folder"] = reported.run.folder;
  run["meter"] = info.conditions.meter;
  run["conditions"] = ConditionsJson(info);
  for (const Warning& warning : reported.warnings) {
    run["warnings"].push_back(
        Json{{"text", warning.text}, {"time_s", OrNull(warning.timeS)}, {"engine", warning.engine}});
  }
  run["error_list"] = ErrorsJson(reported.run.errors);
  run["first_error_s"] = OrNull(FirstErrorS(reported.run));
  run["checks"] = CheckTexts(info);
  run["deadline_texts"] = Json::array();
  for (const EngineDeadline& deadline : info.deadlines)
    run["deadline_texts"].push_back(DeadlineText(deadline));
  run["latency_seconds"] = LatencyJson(reported.run.latency);
  run["latency_texts"] = LatencyTexts(reported.run, reported.summary);
  run["gigabytes_per_s"] = OrNull(reported.summary.gigabytesPerS);
  run["engines"] = EnginesJson(reported);
  run["printed"] = PrintedJson(reported.summary);
  run["after_warmup"] = AfterWarmupJson(reported.summary, warmupS);
  run["counter_series"] = CountersJson(reported.run.counters);
  return run;
}

// Every engine that a run measured or was configured to load, in the order of the table, then others.
std::vector<std::string> ShownEngines(const std::vector<ReportedRun>& runs) {
  std::set<std::string> found;
  for (const ReportedRun& run : runs) {
    for (const EngineSummary& engine : run.summary.engines) found.insert(engine.engine);
    for (const PrintedRates& printed : run.summary.printed) found.insert(printed.engine);
    for (const auto& [engine, level] : run.run.info.config.levels) {
      if (level > 0) found.insert(engine);
    }
  }
  found.erase("");
  std::vector<std::string> names(found.begin(), found.end());
  std::stable_sort(names.begin(), names.end(),
                   [](const auto& a, const auto& b) { return EngineOrder(a) < EngineOrder(b); });
  return names;
}

}  // namespace

Json Rounded(double value) {
  return std::isfinite(value) ? Json(std::stod(Format("%.6g", value))) : Json(nullptr);
}

Json EngineList(const std::vector<std::string>& engines) {
  return Column(engines, [](const std::string& engine) {
    const EngineInfo* const info = FindEngine(&EngineInfo::id, engine);
    return Json{{"name", engine},
                {"title", info == nullptr ? engine : std::string(info->title)},
                {"colour", info == nullptr ? "" : info->colour},
                {"load", IsLoad(engine)}};
  });
}

Json ReportData(const std::vector<ReportedRun>& runs, double warmupS) {
  return Json{{"format", 1},
              {"kind", "report"},
              {"tool", kToolVersion},
              {"warmup_s", warmupS},
              {"figures", Column(EngineKinds(), FigureJson)},
              {"engines", EngineList(ShownEngines(runs))},
              {"runs", Column(runs, [warmupS](const ReportedRun& run) { return RunJson(run, warmupS); })}};
}

std::string JsonText(const Json& json) {
  return PrintableJson(json.dump(2, ' ', false, Json::error_handler_t::replace)) + '\n';
}

std::string ReportJson(const std::vector<ReportedRun>& runs) {
  return JsonText(ReportData(runs, CompareOptions().skipS));
}

std::string ReportPage(const std::vector<ReportedRun>& runs) {
  return PageOf(ReportData(runs, CompareOptions().skipS));
}

}  // namespace scope
