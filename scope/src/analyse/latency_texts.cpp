// SPDX-License-Identifier: Apache-2.0
#include "latency_texts.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <utility>

#include "number_text.h"
#include "statistics.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr double kMebibyte = 1 << 20;
constexpr double kMostLoadShare = 0.01;
constexpr double kMostInterrupted = 0.1;
constexpr double kMostStepShare = 0.1;
constexpr std::uint64_t kLeastCaches = 2;

// The median of the seconds.
std::string MedianText(const std::vector<LatencySecond>& seconds, std::uint64_t LatencySecond::* ns) {
  std::vector<double> values;
  for (const LatencySecond& second : seconds) values.push_back(static_cast<double>(second.*ns));
  return Latency(static_cast<std::uint64_t>(std::llround(Median(std::move(values)))));
}

std::string FiguresText(const Run& run, const RunSummary& summary) {
  std::vector<LatencySecond> seconds;
  for (const LatencySecond& second : summary.latency) {
    if (second.accesses != 0) seconds.push_back(second);
  }
  if (seconds.empty()) {
    const LatencySummary& whole = run.info.latency;
    if (whole.accesses == 0) return "no access was undisturbed";
    return "p50 " + Latency(whole.p50Ns) + ", p99 " + Latency(whole.p99Ns) + ", p99.9 " +
           Latency(whole.p999Ns) + ", longest " + Latency(whole.maxNs) +
           " of the whole run: no second is whole";
  }
  std::uint64_t longest = 0;
  for (const LatencySecond& second : seconds) longest = std::max(longest, second.maxNs);
  const bool isLoaded = std::any_of(summary.engines.begin(), summary.engines.end(),
                                    [](const EngineSummary& engine) { return engine.work.operations != 0; });
  return "p50 " + MedianText(seconds, &LatencySecond::p50Ns) + ", p99 " +
         MedianText(seconds, &LatencySecond::p99Ns) + ", p99.9 " +
         MedianText(seconds, &LatencySecond::p999Ns) + " (medians of " + Counted(seconds.size(), "second") +
         (isLoaded ? " under load" : " without load") + "), longest " + Latency(longest);
}

// What the probe moves, as a share of the engines' bytes; none if these are unknown.
std::optional<double> LoadShare(const Run& run, const RunSummary& summary) {
  if (!summary.gigabytesPerS || *summary.gigabytesPerS <= 0) return std::nullopt;
  return run.info.latency.bytesPerS / (*summary.gigabytesPerS * kBytesPerGigabyte);
}

std::string BurstsText(const LatencySummary& latency) {
  return Format("%llu of %s interrupted", static_cast<unsigned long long>(latency.interrupted),
                Counted(latency.bursts, "burst").c_str());
}

// How much of the memory is in huge pages, if that is a part.
std::string HugeShareText(const LatencySummary& latency) {
  if (latency.pages.find(" and ") == std::string::npos) return "";
  return Format(" (%.0f %% of it in huge pages)",
                static_cast<double>(latency.hugeBytes) / static_cast<double>(latency.bytes) * 100);
}

std::uint64_t LargestCache(const Run& run) {
  std::uint64_t largest = 0;
  for (const Cache& cache : run.info.conditions.caches) largest = std::max(largest, cache.bytes);
  return largest;
}

std::string MebibytesOf(std::uint64_t bytes) {
  return Format("%.4g MiB", static_cast<double>(bytes) / kMebibyte);
}

}  // namespace

std::vector<std::string> LatencyTexts(const Run& run, const RunSummary& summary) {
  const LatencySummary& latency = run.info.latency;
  if (latency.bytes == 0) return {};
  std::vector<std::string> texts = {FiguresText(run, summary)};
  const std::optional<double> share = LoadShare(run, summary);
  texts.push_back("over " + run.info.conditions.latency + HugeShareText(latency) +
                  Format("; its own load %.3g MB/s", latency.bytesPerS / 1e6) +
                  (share ? Format(", %.2g %% of the engines' bytes; ", *share * 100) : std::string("; ")) +
                  BurstsText(latency));
  std::string growth;
  for (const LatencyGrowth& part : latency.growth) {
    growth += (growth.empty() ? "" : ", ") + MebibytesOf(part.bytes) + " " + Latency(part.p50Ns);
  }
  texts.push_back("before the run, over parts of it: " + growth);
  return texts;
}

std::vector<std::string> LatencyDoubts(const Run& run, const RunSummary& summary) {
  const LatencySummary& latency = run.info.latency;
  std::vector<std::string> doubts;
  if (latency.bytes == 0) return doubts;
  if (latency.cpu < 0) doubts.push_back("the probe had no CPU of its own: " + latency.cpuNote);
  const auto bursts = static_cast<double>(latency.bursts);
  if (static_cast<double>(latency.interrupted) > kMostInterrupted * bursts) {
    doubts.push_back(BurstsText(latency) + ": the load, other programs or the host took the probe's CPU");
  }
  const std::optional<double> share = LoadShare(run, summary);
  if (share && *share > kMostLoadShare) {
    doubts.push_back(Format("the probe's own load is %.1f %% of the engines' bytes", *share * 100));
  }
  const std::uint64_t cache = LargestCache(run);
  if (cache == 0) {
    doubts.push_back(
        "the system names no cache: if the reading before the run still grows steeply at the end, the "
        "memory that the probe went through is too small");
  }
  if (latency.bytes < kLeastCaches * cache) {
    doubts.push_back("the probe went through " + MebibytesOf(latency.bytes) + ", and the largest cache has " +
                     MebibytesOf(cache) + ": some accesses may have ended there");
  }
  if (latency.timerStepNs > kMostStepShare * static_cast<double>(latency.p50Ns)) {
    doubts.push_back(
        Format("the timer moves in steps of %.3g ns: the mean of %.0f ns is more exact than the "
               "percentiles",
               latency.timerStepNs, latency.meanNs));
  }
  return doubts;
}

void AddLatencyDoubts(const std::vector<LatencyDoubt>& doubts, std::vector<std::string>& notes) {
  constexpr std::size_t kShown = 3;
  std::map<std::string, std::size_t> counts;
  for (const LatencyDoubt& doubt : doubts) ++counts[doubt.text];
  std::size_t single = 0;
  for (const LatencyDoubt& doubt : doubts) {
    const std::size_t count = std::exchange(counts[doubt.text], 0);
    if (count > 1) notes.push_back("latency of " + std::to_string(count) + " runs: " + doubt.text);
    if (count == 1 && ++single <= kShown) notes.push_back("latency of " + doubt.run + ": " + doubt.text);
  }
  if (single > kShown)
    notes.push_back("the latency of " + Counted(single - kShown, "more run") + " is doubtful");
}

}  // namespace scope
