#include "run_warnings.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

#include "statistics.h"
#include "text_format.h"

namespace scope {
namespace {

// Of a CPU each: beyond it, somebody else's work is measured as well.
constexpr double kBusyLoad = 0.25;
constexpr double kDriftP = 0.01;
// Cut off, such operations count as no time at all, and the printed rate is of the others.
constexpr double kShareBelowMillisecond = 0.01;
// What counts at all counts as a millisecond or more: a greater rate has operations that count as none.
constexpr double kGreatestWholeRate = 1000;
constexpr double kSlowedDown = 0.95;
constexpr double kStoppedEarlyS = 2.5;

using Texts = std::vector<std::string>;

void AddBuild(const Run& run, Texts& warnings) {
  const std::string& build = run.info.conditions.buildType;
  const bool optimised =
      build.empty() || build == "Release" || build == "RelWithDebInfo" || build == "MinSizeRel";
  if (!optimised) {
    warnings.push_back("the benchmark was built as \"" + build +
                       "\", for debugging: its figures are not those of a release");
  }
}

void AddLoad(const Run& run, Texts& warnings) {
  const Conditions& machine = run.info.conditions;
  if (machine.loadAverage.empty() || machine.cpuCount <= 0) return;
  const double load = machine.loadAverage.front();
  if (load <= kBusyLoad * machine.cpuCount) return;
  warnings.push_back(
      Format("the machine was busy at the start: a load average of %.2f on %d CPUs", load, machine.cpuCount));
}

void AddFailures(const EngineSummary& engine, Texts& warnings) {
  if (engine.work.failures == 0) return;
  warnings.push_back(engine.engine + Format(": %llu operations failed",
                                            static_cast<unsigned long long>(engine.work.failures)));
}

void AddDrift(const std::string& name, const std::vector<double>& rates, Texts& warnings) {
  const double drift = DriftAtEnd(rates);
  if (std::abs(drift) <= kDrift) return;
  warnings.push_back(
      name +
      Format(": the rate is still drifting at the end, by %+.1f %% over the second half", drift * 100));
}

void AddShortOperations(const EngineSummary& engine, Texts& warnings) {
  if (!HasShortOperations(engine)) return;
  warnings.push_back(
      engine.engine +
      Format(": %.0f %% of the operations take less than a millisecond, which the benchmark counts "
             "as no time: its printed rate is not to be used",
             engine.belowMillisecond * 100));
}

void AddPrinted(const PrintedRates& printed, Texts& warnings) {
  std::vector<double> rates;
  for (const Rate& rate : printed.rates) {
    if (rate.fps != 0 || !rates.empty()) rates.push_back(rate.fps);
  }
  if (rates.empty()) {
    warnings.push_back(
        printed.stress +
        ": every printed rate is 0: its operations take less than a millisecond, or none succeeded");
    return;
  }
  if (*std::max_element(rates.begin(), rates.end()) > kGreatestWholeRate) {
    warnings.push_back(
        printed.stress +
        ": printed rates above 1000 fps: operations take less than a millisecond, which the benchmark "
        "counts as no time, and the rates are not to be used");
    return;
  }
  AddDrift(printed.stress, rates, warnings);
}

using Series = std::vector<const CounterValue*>;

// Empty where the counter tells nothing amiss.
std::string AboutCounter(const Series& series) {
  const CounterValue& first = *series.front();
  const CounterValue& last = *series.back();
  const auto [lowAt, highAt] = std::minmax_element(
      series.begin(), series.end(), [](const auto* a, const auto* b) { return a->value < b->value; });
  const double low = (*lowAt)->value;
  const double high = (*highAt)->value;
  if (first.source == "throttle" && last.value > first.value) {
    return first.name + Format(": throttled %.0f times during the run", last.value - first.value);
  }
  if (first.source == "edac" && last.value > first.value) {
    return first.name + Format(": %.0f memory errors during the run", last.value - first.value);
  }
  if (first.source == "devfreq" && low < high) {
    return first.name +
           Format(": the frequency changed during the run, between %.0f and %.0f MHz", low / 1e6, high / 1e6);
  }
  if (first.source == "cpufreq") {
    std::vector<double> late;
    for (std::size_t i = series.size() / 3 * 2; i != series.size(); ++i) late.push_back(series[i]->value);
    const double end = Median(std::move(late));
    if (end >= high * kSlowedDown) return {};
    return first.name + Format(": slowed down from %.0f to %.0f MHz during the run", high, end);
  }
  return {};
}

// One sentence for a source: a machine has as many of the same as it has CPUs.
void AddCounters(const Run& run, Texts& warnings) {
  std::map<std::pair<std::string, std::string>, Series> byName;
  for (const CounterValue& value : run.counters) byName[{value.source, value.name}].push_back(&value);
  std::map<std::string, Texts> bySource;
  for (const auto& [name, series] : byName) {
    std::string text = AboutCounter(series);
    if (!text.empty()) bySource[name.first].push_back(std::move(text));
  }
  for (const auto& [source, texts] : bySource) {
    const std::string more =
        texts.size() > 1 ? Format(" (and %zu more of this kind)", texts.size() - 1) : std::string();
    warnings.push_back(source + ": " + texts.front() + more);
  }
}

// The middle of equal parts of the series, where it is longer than the pairs of all its values allow.
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

std::string EarlyEnd(const EngineSummary& engine, double endS) {
  // An operation that goes on at the end began as long before it as the longest took.
  const auto stopped = [endS](const WorkSummary& work) {
    return endS - work.lastS > kStoppedEarlyS + static_cast<double>(work.maxNs) * 1e-9;
  };
  if (engine.work.operations == 0) return "not one operation succeeded";
  if (stopped(engine.work)) return Format("no operation after %.0f s of %.0f s", engine.work.lastS, endS);
  std::size_t count = 0;
  double firstS = endS;
  for (const ThreadSummary& thread : engine.threads) {
    if (!stopped(thread.work)) continue;
    ++count;
    firstS = std::min(firstS, thread.work.lastS);
  }
  if (count == 0) return {};
  return Format("%zu of %zu threads stopped, the first after %.0f s of %.0f s", count, engine.threads.size(),
                firstS, endS);
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

std::vector<std::string> Warnings(const Run& run, const RunSummary& summary) {
  Texts warnings = run.notes;
  AddBuild(run, warnings);
  AddLoad(run, warnings);
  for (const EngineSummary& engine : summary.engines) {
    AddFailures(engine, warnings);
    if (!IsLoad(engine.engine)) continue;
    const std::string end = EarlyEnd(engine, summary.endS);
    if (!end.empty()) warnings.push_back(engine.engine + ": " + end);
    AddShortOperations(engine, warnings);
    std::vector<double> rates;
    for (std::size_t i = engine.firstWhole; i != engine.endWhole; ++i) {
      if (!engine.seconds[i].afterGap) rates.push_back(engine.seconds[i].OperationsPerS());
    }
    AddDrift(engine.engine, rates, warnings);
  }
  if (summary.engines.empty()) {
    for (const PrintedRates& printed : summary.printed) AddPrinted(printed, warnings);
  }
  AddCounters(run, warnings);
  return warnings;
}

}  // namespace scope
