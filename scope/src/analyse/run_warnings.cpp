// SPDX-License-Identifier: Apache-2.0
#include "run_warnings.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>

#include "early_end.h"
#include "engines.h"
#include "fill_text.h"
#include "latency_texts.h"
#include "run_error.h"
#include "statistics.h"
#include "text_format.h"

namespace scope {
namespace {

// Share of the CPUs' time. A second in which others take more is disturbed.
constexpr double kDisturbed = 0.05;
// Changes above this share are reported.
constexpr double kDrift = 0.02;
constexpr double kDriftP = 0.01;
constexpr std::size_t kLeastForDrift = 8;
// The benchmark counts whole milliseconds, so shorter operations add no busy time.
constexpr double kShareBelowMillisecond = 0.01;
// An operation that is counted takes at least 1 ms. A higher rate includes operations counted as 0 ms.
constexpr double kGreatestWholeRate = 1000;
constexpr double kSlowedDown = 0.95;

using List = std::vector<Warning>;

void AddBuild(const Run& run, List& warnings) {
  const std::string& build = run.info.conditions.buildType;
  const bool optimised =
      build.empty() || build == "Release" || build == "RelWithDebInfo" || build == "MinSizeRel";
  if (!optimised) {
    warnings.push_back({"the benchmark was built as \"" + build +
                        "\", for debugging: its figures are not those of a release"});
  }
}

void AddMixedEncoders(const Run& run, List& warnings) {
  const auto& engines = run.info.conditions.encoderEngines;
  const bool same = std::all_of(engines.begin(), engines.end(),
                                [&engines](const auto& one) { return one.second == engines[0].second; });
  if (same) return;
  std::string list;
  for (const auto& [channel, engine] : engines) list += (list.empty() ? "" : ", ") + channel + " " + engine;
  warnings.push_back({"venc: the encoder's channels have different engines: " + list, std::nullopt, "venc"});
}

// Those that a memory controller counts have a warning of their counter.
void AddErrors(const Run& run, List& warnings) {
  for (const auto& [source, count] : ErrorCounts(run)) {
    if (source == kMemoryController) continue;
    const auto first = std::find_if(run.errors.begin(), run.errors.end(),
                                    [&name = source](const RunError& error) { return error.source == name; });
    const bool isEngine = FindEngine(&EngineInfo::id, source) != nullptr;
    warnings.push_back({first == run.errors.end()
                            ? source + ": " + Counted(count, "error")
                            : Counted(count, "error") + ", the first: " + ErrorText(*first),
                        first == run.errors.end() ? std::nullopt : std::optional(first->timeS),
                        isEngine ? source : std::string()});
  }
}

void AddFillDoubts(const Run& run, List& warnings) {
  for (const FillDoubt& doubt : FillDoubts(run.info))
    warnings.push_back({doubt.text, std::nullopt, doubt.engine});
}

void AddFailures(const EngineSummary& engine, List& warnings) {
  if (engine.work.failures == 0) return;
  const auto first = std::find_if(engine.seconds.begin(), engine.seconds.end(),
                                  [](const EngineSecond& second) { return second.failures != 0; });
  warnings.push_back({engine.engine + ": " + Counted(engine.work.failures, "operation") + " failed",
                      first == engine.seconds.end() ? std::nullopt : std::optional(first->timeS),
                      engine.engine});
}

// `times` and `rates` have equal lengths.
void AddDrift(const std::string& name, const std::string& engine, const std::vector<double>& times,
              const std::vector<double>& rates, List& warnings) {
  const std::string drift = Drift(rates);
  if (!drift.empty()) warnings.push_back({name + ": " + drift, times[times.size() / 2], engine});
}

void AddShortOperations(const EngineSummary& engine, List& warnings) {
  if (!HasShortOperations(engine)) return;
  warnings.push_back(
      {engine.engine +
           Format(": %.0f %% of the operations take less than a millisecond, which the benchmark counts "
                  "as no time: do not use its printed rate",
                  engine.belowMillisecond * 100),
       {},
       engine.engine});
}

void AddPrinted(const PrintedRates& printed, List& warnings) {
  std::vector<double> times;
  std::vector<double> rates;
  for (const Rate& rate : printed.rates) {
    if (rate.fps == 0 && rates.empty()) continue;
    times.push_back(rate.timeS);
    rates.push_back(rate.fps);
  }
  if (rates.empty()) {
    warnings.push_back(
        {printed.stress +
             ": every printed rate is 0: its operations take less than a millisecond, or none succeeded",
         {},
         printed.engine});
    return;
  }
  if (*std::max_element(rates.begin(), rates.end()) > kGreatestWholeRate) {
    warnings.push_back(
        {printed.stress +
             ": printed rates above 1000 fps: operations take less than a millisecond, which the benchmark "
             "counts as no time: do not use these rates",
         {},
         printed.engine});
    return;
  }
  AddDrift(printed.stress, printed.engine, times, rates, warnings);
}

using Series = std::vector<const CounterValue*>;

// The time of the first value for which `isAmiss` is true. There must be one.
std::optional<double> FirstTime(const Series& series, const std::function<bool(double)>& isAmiss) {
  return (*std::find_if(series.begin(), series.end(),
                        [&](const auto* entry) { return isAmiss(entry->value); }))
      ->timeS;
}

// An empty warning if nothing is wrong.
Warning AboutCounter(const Series& series) {
  const CounterValue& first = *series.front();
  const CounterValue& last = *series.back();
  const auto [lowAt, highAt] = std::minmax_element(
      series.begin(), series.end(), [](const auto* a, const auto* b) { return a->value < b->value; });
  const double low = (*lowAt)->value;
  const double high = (*highAt)->value;
  if (last.value > first.value && (first.source == "throttle" || first.source == "edac")) {
    const auto count = static_cast<std::uint64_t>(std::llround(last.value - first.value));
    const std::string what =
        first.source == "throttle" ? "throttled " + Counted(count, "time") : Counted(count, "memory error");
    return {first.name + ": " + what + " during the run",
            FirstTime(series, [&](double value) { return value > first.value; })};
  }
  if (first.source == "devfreq" && low < high) {
    return {first.name + Format(": the frequency changed during the run, between %.0f and %.0f MHz",
                                low / 1e6, high / 1e6),
            FirstTime(series, [&](double value) { return value != first.value; })};
  }
  if (first.source == "cpufreq") {
    std::vector<double> late;
    for (std::size_t i = series.size() / 3 * 2; i != series.size(); ++i) late.push_back(series[i]->value);
    const double end = Median(std::move(late));
    if (end >= high * kSlowedDown) return {};
    return {first.name + Format(": slowed down from %.0f to %.0f MHz during the run", high, end),
            FirstTime(series, [&](double value) { return value < high * kSlowedDown; })};
  }
  return {};
}

// One sentence per source, because each CPU can have the same warning.
void AddCounters(const Run& run, List& warnings) {
  std::map<std::pair<std::string, std::string>, Series> byName;
  for (const CounterValue& value : run.counters) byName[{value.source, value.name}].push_back(&value);
  std::map<std::string, List> bySource;
  for (const auto& [name, series] : byName) {
    Warning warning = AboutCounter(series);
    if (!warning.text.empty()) bySource[name.first].push_back(std::move(warning));
  }
  for (const auto& [source, ofSource] : bySource) {
    const std::string more =
        ofSource.size() > 1 ? Format(" (and %zu more of this kind)", ofSource.size() - 1) : std::string();
    warnings.push_back({source + ": " + ofSource.front().text + more, ofSource.front().timeS, {}});
  }
}

// Medians of equal parts of a long series: the trend test compares all pairs of values.
std::vector<double> Thinned(const std::vector<double>& values) {
  constexpr std::size_t kMost = 500;
  if (values.size() <= kMost) return values;
  std::vector<double> parts;
  const std::size_t length = (values.size() + kMost - 1) / kMost;
  for (std::size_t from = 0; from + length <= values.size(); from += length) {
    const auto begin = values.begin() + static_cast<std::ptrdiff_t>(from);
    parts.push_back(Median({begin, begin + static_cast<std::ptrdiff_t>(length)}));
  }
  return parts;
}

}  // namespace

Warning EarlyEnd(const EngineSummary& engine, double endS) {
  if (!IsLoad(engine.engine)) return {};
  const auto stopped = [endS](const WorkSummary& work) { return StoppedEarly(endS, work.lastS, work.maxNs); };
  if (engine.work.operations == 0) return {"not one operation succeeded", {}, engine.engine};
  if (stopped(engine.work)) {
    return {Format("no operation after %.0f s of %.0f s", engine.work.lastS, endS), engine.work.lastS,
            engine.engine};
  }
  std::size_t count = 0;
  double firstS = endS;
  for (const ThreadSummary& thread : engine.threads) {
    if (!stopped(thread.work)) continue;
    ++count;
    firstS = std::min(firstS, thread.work.lastS);
  }
  if (count == 0) return {};
  return {Format("%zu of %zu threads stopped, the first after %.0f s of %.0f s", count, engine.threads.size(),
                 firstS, endS),
          firstS, engine.engine};
}

bool HasShortOperations(const EngineSummary& engine) {
  return engine.belowMillisecond >= kShareBelowMillisecond;
}

double DriftAtEnd(const std::vector<double>& rates) {
  const std::vector<double> half =
      Thinned({rates.begin() + static_cast<std::ptrdiff_t>(rates.size() / 2), rates.end()});
  if (half.size() < kLeastForDrift) return 0;
  const Trend trend = TestTrend(half);
  const double middle = Median(half);
  if (trend.p >= kDriftP || middle <= 0) return 0;
  return trend.slope * static_cast<double>(half.size() - 1) / middle;
}

std::string Drift(const std::vector<double>& rates) {
  const double drift = DriftAtEnd(rates);
  if (std::abs(drift) <= kDrift) return {};
  return Format("the rate is still drifting at the end, by %+.1f %% over the second half", drift * 100);
}

// Others are programs beside the benchmark and its recorder, and the machine's host (steal).
Warning Disturbance(const Run& run, double skipS) {
  std::map<double, double> othersAt;
  for (const CounterValue& value : run.counters) {
    const double middleS = std::max(0.0, value.timeS - kCounterPeriodS / 2);
    if (value.source == "load" && middleS >= skipS) othersAt[value.timeS] += value.value;
  }
  if (othersAt.empty() || run.info.conditions.cpuCount <= 0) return {};
  std::size_t disturbed = 0;
  double most = 0;
  std::optional<double> firstS;
  for (const auto& [timeS, cpus] : othersAt) {
    const double share = cpus / run.info.conditions.cpuCount;
    if (share <= kDisturbed) continue;
    ++disturbed;
    most = std::max(most, share);
    if (!firstS) firstS = timeS;
  }
  if (disturbed == 0) return {};
  return {Format("disturbed: %zu of %s, in which others took more than %.0f %% of the CPUs' time, at most "
                 "%.0f %%",
                 disturbed, Counted(othersAt.size(), "second").c_str(), kDisturbed * 100, most * 100),
          firstS};
}

void AddDisturbances(const std::vector<std::string>& disturbances, std::vector<std::string>& notes) {
  constexpr std::size_t kShown = 3;
  const std::size_t shown = std::min(disturbances.size(), kShown);
  notes.insert(notes.end(), disturbances.begin(), disturbances.begin() + static_cast<std::ptrdiff_t>(shown));
  const std::size_t more = disturbances.size() - shown;
  if (more == 0) return;
  notes.push_back(Counted(more, "more run") + (more == 1 ? " was disturbed" : " were disturbed"));
}

std::vector<Warning> Warnings(const Run& run, const RunSummary& summary) {
  List warnings;
  AddErrors(run, warnings);
  for (const std::string& note : run.notes) warnings.push_back({note});
  AddBuild(run, warnings);
  AddMixedEncoders(run, warnings);
  AddFillDoubts(run, warnings);
  const Warning disturbance = Disturbance(run);
  if (!disturbance.text.empty()) warnings.push_back(disturbance);
  for (const EngineSummary& engine : summary.engines) {
    AddFailures(engine, warnings);
    if (!IsLoad(engine.engine)) continue;
    const Warning end = EarlyEnd(engine, summary.endS);
    if (!end.text.empty()) warnings.push_back({engine.engine + ": " + end.text, end.timeS, engine.engine});
    AddShortOperations(engine, warnings);
    std::vector<double> times;
    std::vector<double> rates;
    for (std::size_t i = engine.firstWhole; i != engine.endWhole; ++i) {
      if (engine.seconds[i].afterGap) continue;
      times.push_back(engine.seconds[i].timeS);
      rates.push_back(engine.seconds[i].operationsPerS);
    }
    AddDrift(engine.engine, engine.engine, times, rates, warnings);
  }
  if (summary.engines.empty()) {
    for (const PrintedRates& printed : summary.printed) AddPrinted(printed, warnings);
  }
  for (const LatencyDoubt& doubt : LatencyDoubts(run, summary))
    warnings.push_back({"latency: " + doubt.text});
  AddCounters(run, warnings);
  return warnings;
}

}  // namespace scope
