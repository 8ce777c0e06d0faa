// SPDX-License-Identifier: Apache-2.0
#include "run_summary.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "engines.h"
#include "histogram.h"
#include "statistics.h"

namespace scope {
namespace {

constexpr double kNsPerS = 1e9;
constexpr std::uint64_t kMillisecondNs = 1'000'000;

// Engines in the order of the table, then others by name.
std::pair<std::size_t, std::string> OrderOf(const std::string& engine) {
  return {EngineOrder(engine), engine};
}

// By the number of a second, its exact end.
using Ends = std::map<int, double>;

// The seconds of an engine or of a thread, from its rows.
template <typename Row>
std::vector<EngineSecond> SecondsOf(const std::vector<const Row*>& rows, const Ends& ends) {
  std::vector<EngineSecond> seconds;
  for (const Row* row : rows) {
    // A row counts everything since the row before it, even after a gap. The first one began where the second
    // before it ended.
    const auto at = ends.lower_bound(row->second);
    const double startS = !seconds.empty()     ? seconds.back().timeS
                          : at == ends.begin() ? 0
                                               : std::prev(at)->second;
    if (row->timeS <= startS) continue;
    EngineSecond second;
    static_cast<SecondWork&>(second) = *row;
    second.spanS = row->timeS - startS;
    SetRates(second, second.spanS);
    second.afterGap = !seconds.empty() && row->second > seconds.back().second + 1;
    seconds.push_back(second);
  }
  return seconds;
}

std::pair<std::size_t, std::size_t> WholeSeconds(const std::vector<EngineSecond>& seconds) {
  const auto worked = [](const EngineSecond& second) { return second.operations != 0; };
  const auto first = std::find_if(seconds.begin(), seconds.end(), worked);
  if (first == seconds.end()) return {0, 0};
  const auto last = std::find_if(seconds.rbegin(), seconds.rend(), worked).base();
  const auto begin = static_cast<std::size_t>(first - seconds.begin());
  const auto end = static_cast<std::size_t>(last - seconds.begin());
  if (end - begin > 2) return {begin + 1, end - 1};
  return {begin, end};
}

using Buckets = std::map<std::pair<std::uint64_t, std::uint64_t>, std::uint64_t>;

// The middle of the bucket, but never more than the longest operation.
std::uint64_t Percentile(const Buckets& buckets, double quantile, std::uint64_t maxNs) {
  const auto at = AtQuantile(buckets, quantile);
  if (at == buckets.end()) return 0;
  const auto [low, high] = at->first;
  const std::uint64_t middle = low + (std::max(high, low + 1) - 1 - low) / 2;
  return maxNs == 0 ? middle : std::min(middle, maxNs);
}

WorkSummary SummariseWork(const std::vector<EngineSecond>& seconds, std::size_t firstWhole,
                          std::size_t endWhole, const Buckets& buckets) {
  WorkSummary work;
  Work whole;
  work.bytes = whole.bytes = 0;
  double wholeS = 0;
  for (std::size_t i = 0; i != seconds.size(); ++i) {
    const EngineSecond& second = seconds[i];
    work.operations += second.operations;
    work.busyNs += second.busyNs;
    work.bytes = Sum(work.bytes, second.bytes);
    work.failures += second.failures;
    work.maxNs = std::max(work.maxNs, second.maxNs);
    if (second.operations != 0) work.lastS = second.timeS;
    if (i < firstWhole || i >= endWhole || second.afterGap) continue;
    wholeS += second.spanS;
    whole.operations += second.operations;
    whole.bytes = Sum(whole.bytes, second.bytes);
  }
  SetRates(whole, wholeS);
  work.operationsPerS = whole.operationsPerS;
  work.gigabytesPerS = whole.gigabytesPerS;
  if (work.busyNs != 0)
    work.busyRate = static_cast<double>(work.operations) / static_cast<double>(work.busyNs) * kNsPerS;
  work.p50Ns = Percentile(buckets, 0.50, work.maxNs);
  work.p99Ns = Percentile(buckets, 0.99, work.maxNs);
  return work;
}

double ShareBelowMillisecond(const std::vector<EngineSecond>& seconds, const Buckets& buckets) {
  double below = 0;
  double whole = 0;
  const auto add = [&](std::uint64_t latencyNs, std::uint64_t operations) {
    whole += static_cast<double>(operations);
    if (latencyNs < kMillisecondNs) below += static_cast<double>(operations);
  };
  for (const auto& [bucket, count] : buckets) add(bucket.first, count);
  // For runs without a histogram (a killed recorder leaves none): the medians of the seconds.
  if (buckets.empty()) {
    for (const EngineSecond& second : seconds) add(second.p50Ns, second.operations);
  }
  return whole > 0 ? below / whole : 0;
}

EngineSummary SummariseEngine(const std::string& engine, const Run& run, const Ends& ends) {
  std::vector<const EngineSample*> rows;
  for (const EngineSample& row : run.seconds) {
    if (row.engine == engine) rows.push_back(&row);
  }
  std::map<int, std::vector<const Sample*>> byThread;
  for (const Sample& sample : run.samples) {
    if (sample.engine == engine) byThread[sample.thread].push_back(&sample);
  }
  Buckets all;
  std::map<int, Buckets> buckets;
  for (const HistogramRow& row : run.histogram) {
    if (row.engine != engine) continue;
    all[{row.lowNs, row.highNs}] += row.count;
    buckets[row.thread][{row.lowNs, row.highNs}] += row.count;
  }

  EngineSummary summary;
  summary.engine = engine;
  summary.seconds = SecondsOf(rows, ends);
  std::tie(summary.firstWhole, summary.endWhole) = WholeSeconds(summary.seconds);
  summary.work = SummariseWork(summary.seconds, summary.firstWhole, summary.endWhole, all);
  double busyRates = 0;
  int busyThreads = 0;
  for (const auto& [thread, samples] : byThread) {
    const std::vector<EngineSecond> seconds = SecondsOf(samples, ends);
    const auto [first, end] = WholeSeconds(seconds);
    ThreadSummary threadSummary{thread, SummariseWork(seconds, first, end, buckets[thread])};
    busyRates += threadSummary.work.busyRate;
    busyThreads += threadSummary.work.busyRate > 0 ? 1 : 0;
    summary.threads.push_back(threadSummary);
  }
  summary.work.busyRate = busyThreads == 0 ? 0 : busyRates / busyThreads;
  summary.belowMillisecond = ShareBelowMillisecond(summary.seconds, all);
  return summary;
}

PrintedRates SummarisePrinted(const std::string& stress, const std::vector<Rate>& rates) {
  PrintedRates printed;
  printed.stress = stress;
  const EngineInfo* const engine = FindEngine(&EngineInfo::stress, stress);
  if (engine != nullptr) printed.engine = engine->id;
  std::vector<double> values;
  for (const Rate& rate : rates) {
    if (rate.stress != stress) continue;
    printed.rates.push_back(rate);
    if (rate.fps != 0 || !values.empty()) values.push_back(rate.fps);
  }
  if (!values.empty()) printed.median = Median(std::move(values));
  return printed;
}

// The two processes begin their seconds a little apart.
std::vector<LatencySecond> LoadedSeconds(const Run& run, const std::vector<EngineSummary>& engines) {
  constexpr double kSlackS = 0.3;
  double beginS = -1;
  double toS = run.latency.size() > 1 ? run.latency[run.latency.size() - 2].timeS : run.info.durationS;
  for (const EngineSummary& engine : engines) {
    if (!IsLoad(engine.engine) || engine.firstWhole == engine.endWhole) continue;
    const EngineSecond& first = engine.seconds[engine.firstWhole];
    beginS = std::max(beginS, first.timeS - first.spanS);
    toS = std::min(toS, engine.seconds[engine.endWhole - 1].timeS);
  }
  std::vector<LatencySecond> loaded;
  double startS = 0;
  for (const LatencySecond& second : run.latency) {
    if (startS >= beginS - kSlackS && second.timeS <= toS + kSlackS) loaded.push_back(second);
    startS = second.timeS;
  }
  return loaded;
}

}  // namespace

const PrintedRates* RunSummary::PrintedOf(const std::string& engine) const {
  const auto at = std::find_if(printed.begin(), printed.end(),
                               [&](const PrintedRates& rates) { return rates.engine == engine; });
  return at == printed.end() ? nullptr : &*at;
}

RunSummary Summarise(const Run& run) {
  std::set<std::string> engines;
  Ends ends;
  for (const EngineSample& row : run.seconds) {
    engines.insert(row.engine);
    ends[row.second] = row.timeS;
  }
  RunSummary summary;
  if (!ends.empty()) summary.endS = ends.rbegin()->second;
  for (const std::string& engine : engines) summary.engines.push_back(SummariseEngine(engine, run, ends));
  std::sort(summary.engines.begin(), summary.engines.end(),
            [](const auto& a, const auto& b) { return OrderOf(a.engine) < OrderOf(b.engine); });

  std::set<std::string> stresses;
  for (const Rate& rate : run.rates) stresses.insert(rate.stress);
  for (const std::string& stress : stresses) summary.printed.push_back(SummarisePrinted(stress, run.rates));
  std::sort(summary.printed.begin(), summary.printed.end(), [](const auto& a, const auto& b) {
    return std::make_pair(OrderOf(a.engine), a.stress) < std::make_pair(OrderOf(b.engine), b.stress);
  });

  summary.latency = LoadedSeconds(run, summary.engines);

  double sum = 0;
  bool anyBytes = false;
  for (const EngineSummary& engine : summary.engines) {
    if (!IsLoad(engine.engine) || engine.work.operations == 0) continue;
    if (!engine.work.gigabytesPerS) return summary;
    sum += *engine.work.gigabytesPerS;
    anyBytes = true;
  }
  if (anyBytes) summary.gigabytesPerS = sum;
  return summary;
}

}  // namespace scope
