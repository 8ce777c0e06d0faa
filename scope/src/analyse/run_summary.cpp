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

constexpr std::uint64_t kMillisecondNs = 1'000'000;

// Engines in the order of the table, then others by name.
std::pair<std::size_t, std::string> OrderOf(const std::string& engine) {
  return {EngineOrder(engine), engine};
}

using Rows = std::vector<const Sample*>;

// `ends` has the ends of all seconds of the run. A second begins where the one before it ends.
double StartOf(const std::set<double>& ends, double timeS) {
  const auto at = ends.lower_bound(timeS);
  return at == ends.begin() ? 0 : *std::prev(at);
}

std::vector<EngineSecond> SecondsOf(const Rows& samples, const std::set<double>& ends) {
  std::map<double, Rows> byTime;
  for (const Sample* sample : samples) byTime[sample->timeS].push_back(sample);
  std::vector<EngineSecond> seconds;
  for (const auto& [timeS, rows] : byTime) {
    // A row counts everything since the row before it, even after a gap.
    const double spanS = timeS - (seconds.empty() ? StartOf(ends, timeS) : seconds.back().timeS);
    if (spanS <= 0) continue;
    EngineSecond second = AddUp(rows, spanS);
    // Of several threads: the median of their medians, weighted by their operations, and the greatest 99th.
    std::map<std::uint64_t, std::uint64_t> medians;
    for (const Sample* row : rows) {
      medians[row->p50Ns] += row->operations;
      second.p99Ns = std::max(second.p99Ns, row->p99Ns);
    }
    if (second.operations != 0) second.p50Ns = AtQuantile(medians, 0.50)->first;
    second.afterGap = !seconds.empty() && spanS > kGapS;
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
  EngineSecond whole;
  for (std::size_t i = 0; i != seconds.size(); ++i) {
    const EngineSecond& second = seconds[i];
    work.operations += second.operations;
    work.failures += second.failures;
    work.maxNs = std::max(work.maxNs, second.maxNs);
    if (second.operations != 0) work.lastS = second.timeS;
    if (i < firstWhole || i >= endWhole || second.afterGap) continue;
    whole.spanS += second.spanS;
    whole.operations += second.operations;
    whole.bytes = Sum(whole.bytes, second.bytes);
  }
  SetRates(whole);
  work.operationsPerS = whole.operationsPerS;
  work.gigabytesPerS = whole.gigabytesPerS;
  work.p50Ns = Percentile(buckets, 0.50, work.maxNs);
  work.p99Ns = Percentile(buckets, 0.99, work.maxNs);
  return work;
}

double ShareBelowMillisecond(const Rows& samples, const Buckets& buckets) {
  double below = 0;
  double whole = 0;
  const auto add = [&](std::uint64_t latencyNs, std::uint64_t operations) {
    whole += static_cast<double>(operations);
    if (latencyNs < kMillisecondNs) below += static_cast<double>(operations);
  };
  for (const auto& [bucket, count] : buckets) add(bucket.first, count);
  // For runs without a histogram (a killed recorder leaves none): the medians of the seconds.
  if (buckets.empty()) {
    for (const Sample* sample : samples) add(sample->p50Ns, sample->operations);
  }
  return whole > 0 ? below / whole : 0;
}

EngineSummary SummariseEngine(const std::string& engine, const Rows& samples, const std::set<double>& ends,
                              const std::vector<HistogramRow>& histogram) {
  std::map<int, Rows> byThread;
  for (const Sample* sample : samples) byThread[sample->thread].push_back(sample);
  Buckets all;
  std::map<int, Buckets> buckets;
  for (const HistogramRow& row : histogram) {
    if (row.engine != engine) continue;
    all[{row.lowNs, row.highNs}] += row.count;
    buckets[row.thread][{row.lowNs, row.highNs}] += row.count;
  }

  EngineSummary summary;
  summary.engine = engine;
  summary.seconds = SecondsOf(samples, ends);
  std::tie(summary.firstWhole, summary.endWhole) = WholeSeconds(summary.seconds);
  summary.work = SummariseWork(summary.seconds, summary.firstWhole, summary.endWhole, all);
  double busyRates = 0;
  int busyThreads = 0;
  for (const auto& [thread, rows] : byThread) {
    const std::vector<EngineSecond> seconds = SecondsOf(rows, ends);
    const auto [first, end] = WholeSeconds(seconds);
    ThreadSummary threadSummary{thread, SummariseWork(seconds, first, end, buckets[thread])};
    threadSummary.work.busyRate = AddUp(rows, 0).busyRate;
    busyRates += threadSummary.work.busyRate;
    busyThreads += threadSummary.work.busyRate > 0 ? 1 : 0;
    summary.threads.push_back(threadSummary);
  }
  summary.work.busyRate = busyThreads == 0 ? 0 : busyRates / busyThreads;
  summary.belowMillisecond = ShareBelowMillisecond(samples, all);
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

}  // namespace

const PrintedRates* RunSummary::PrintedOf(const std::string& engine) const {
  const auto at = std::find_if(printed.begin(), printed.end(),
                               [&](const PrintedRates& rates) { return rates.engine == engine; });
  return at == printed.end() ? nullptr : &*at;
}

RunSummary Summarise(const Run& run) {
  std::map<std::string, Rows> byEngine;
  std::set<double> ends;
  for (const Sample& sample : run.samples) {
    byEngine[sample.engine].push_back(&sample);
    ends.insert(sample.timeS);
  }
  RunSummary summary;
  if (!ends.empty()) summary.endS = *ends.rbegin();
  for (const auto& [engine, samples] : byEngine) {
    summary.engines.push_back(SummariseEngine(engine, samples, ends, run.histogram));
  }
  std::sort(summary.engines.begin(), summary.engines.end(),
            [](const auto& a, const auto& b) { return OrderOf(a.engine) < OrderOf(b.engine); });

  std::set<std::string> stresses;
  for (const Rate& rate : run.rates) stresses.insert(rate.stress);
  for (const std::string& stress : stresses) summary.printed.push_back(SummarisePrinted(stress, run.rates));
  std::sort(summary.printed.begin(), summary.printed.end(), [](const auto& a, const auto& b) {
    return std::make_pair(OrderOf(a.engine), a.stress) < std::make_pair(OrderOf(b.engine), b.stress);
  });

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
