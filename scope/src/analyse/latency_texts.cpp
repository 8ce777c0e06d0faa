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
// A cache that does not evict the oldest line first keeps a part of what the probe goes through: at most a
// quarter with this.
constexpr std::uint64_t kLeastCaches = 4;

// The median of the seconds.
template <typename Number>
std::string MedianText(const std::vector<LatencySecond>& seconds, Number LatencySecond::* ns) {
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
           Latency(whole.p999Ns) + ", mean " +
           Latency(static_cast<std::uint64_t>(std::llround(whole.meanNs))) + ", longest " +
           Latency(whole.maxNs) + " of the whole run: no second is whole";
  }
  std::uint64_t longest = 0;
  for (const LatencySecond& second : seconds) longest = std::max(longest, second.maxNs);
  const bool isLoaded = std::any_of(summary.engines.begin(), summary.engines.end(),
                                    [](const EngineSummary& engine) { return engine.work.operations != 0; });
  return "p50 " + MedianText(seconds, &LatencySecond::p50Ns) + ", p99 " +
         MedianText(seconds, &LatencySecond::p99Ns) + ", p99.9 " +
         MedianText(seconds, &LatencySecond::p999Ns) + ", mean " +
         MedianText(seconds, &LatencySecond::meanNs) + " (medians of " + Counted(seconds.size(), "second") +
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
  texts.push_back(
      "over " + run.info.conditions.latency + HugeShareText(latency) +
      Format("; its own load %.3g MB/s", latency.bytesPerS / 1e6) +
      (share ? Format(", %.2g %% of the engines' bytes; ", *share * 100) : std::string("; ")) +
      BurstsText(latency) +
      (latency.realTimeNote.empty() ? "" : "; without real-time priority: " + latency.realTimeNote));
  texts.push_back("before the run, over parts of it: " + GrowthText(latency.growth));
  return texts;
}

std::string GrowthText(const std::vector<LatencyGrowth>& growth) {
  std::vector<std::string> parts;
  for (const LatencyGrowth& part : growth)
    parts.push_back(MebibytesOf(part.bytes) + " " + Latency(part.p50Ns));
  return Joined(parts, ", ");
}

// A part in which all bursts were interrupted has no latency.
std::vector<LatencyGrowth> MedianGrowth(const std::vector<Run>& runs) {
  std::map<std::uint64_t, std::vector<double>> readings;
  for (const Run& run : runs) {
    for (const LatencyGrowth& part : run.info.latency.growth) {
      if (part.p50Ns != 0) readings[part.bytes].push_back(static_cast<double>(part.p50Ns));
    }
  }
  std::size_t most = 0;
  for (const auto& [bytes, latencies] : readings) most = std::max(most, latencies.size());
  std::vector<LatencyGrowth> growth;
  for (const auto& [bytes, latencies] : readings) {
    if (2 * latencies.size() > most)
      growth.push_back({bytes, static_cast<std::uint64_t>(std::llround(Median(latencies)))});
  }
  return growth;
}

std::vector<LatencyDoubt> LatencyDoubts(const Run& run, const RunSummary& summary) {
  using Kind = LatencyDoubt::Kind;
  const LatencySummary& latency = run.info.latency;
  std::vector<LatencyDoubt> doubts;
  if (latency.bytes == 0) return doubts;
  const auto add = [&doubts](Kind kind, double degree, std::string text) {
    doubts.push_back({kind, degree, std::move(text), ""});
  };
  if (latency.cpu < 0) add(Kind::kNoCpu, 0, "the probe had no CPU of its own: " + latency.cpuNote);
  const auto bursts = static_cast<double>(latency.bursts);
  const auto interrupted = static_cast<double>(latency.interrupted);
  if (interrupted > kMostInterrupted * bursts) {
    add(Kind::kInterrupted, interrupted / bursts,
        BurstsText(latency) + ": the load, other programs or the host took the probe's CPU" +
            (latency.realTimeNote.empty() ? "" : "; it had no real-time priority: " + latency.realTimeNote));
  }
  const std::optional<double> share = LoadShare(run, summary);
  if (share && *share > kMostLoadShare) {
    add(Kind::kOwnLoad, *share,
        Format("the probe's own load is %.1f %% of the engines' bytes", *share * 100));
  }
  const std::uint64_t cache = LargestCache(run);
  if (cache == 0) {
    add(Kind::kNoCache, 0,
        "the system names no cache: if the reading before the run still grows steeply at the end, the "
        "memory that the probe went through is too small");
  }
  if (latency.bytes < kLeastCaches * cache) {
    add(Kind::kSmallMemory, static_cast<double>(cache) / static_cast<double>(latency.bytes),
        "the probe went through " + MebibytesOf(latency.bytes) + ", and the largest cache has " +
            MebibytesOf(cache) + ": some accesses may have ended there");
  }
  if (latency.timerStepNs > kMostStepShare * static_cast<double>(latency.p50Ns)) {
    add(Kind::kCoarseTimer, latency.timerStepNs,
        Format("the timer moves in steps of %.3g ns: the mean of %.0f ns is more exact than the "
               "percentiles",
               latency.timerStepNs, latency.meanNs));
  }
  return doubts;
}

void AddLatencyDoubts(const std::vector<LatencyDoubt>& doubts, std::vector<std::string>& notes) {
  std::map<LatencyDoubt::Kind, std::vector<const LatencyDoubt*>> kinds;
  for (const LatencyDoubt& doubt : doubts) kinds[doubt.kind].push_back(&doubt);
  for (const auto& [kind, alike] : kinds) {
    const auto isLess = [](const LatencyDoubt* a, const LatencyDoubt* b) { return a->degree < b->degree; };
    const LatencyDoubt& worst = **std::max_element(alike.begin(), alike.end(), isLess);
    const bool areEqual = std::all_of(alike.begin(), alike.end(),
                                      [&worst](const LatencyDoubt* one) { return one->text == worst.text; });
    const std::string who = alike.size() == 1
                                ? worst.run
                                : Counted(alike.size(), "run") + (areEqual ? "" : ", worst in " + worst.run);
    notes.push_back("latency of " + who + ": " + worst.text);
  }
}

}  // namespace scope
