// SPDX-License-Identifier: Apache-2.0
#include "latency_bursts.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <utility>

#include "histogram.h"
#include "monotonic_ns.h"
#include "system_files.h"

namespace scope {
namespace {

constexpr double kWarmUpShare = 0.1;
// Reading many lines leaves more of the page tables in the nearest caches than a chase does, and small pages
// have many more entries there. A chase of this time comes nearest to one without pauses, as measured over
// 16 MiB to 1 GiB.
constexpr double kChaseNs = 3e6;
constexpr std::uint64_t kFewTouches = 1 << 13;  // 256 MiB in huge pages
constexpr double kBatchesShare = 0.2;
// A batch of more than so many medians was interrupted: a timer, another machine on the same processor.
constexpr std::uint64_t kInterruptedMedians = 4;
// Enough for the longest burst over the fastest memory.
constexpr std::size_t kMostSingles = 1 << 16;
constexpr std::size_t kMostBatches = kMostSingles / kBatch;
// A thread that works has used this much less processor time than has passed, at most: the two clocks are
// read one after the other.
constexpr std::uint64_t kLostNs = 20'000;

std::uint64_t NsOf(const timespec& time) {
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

// A number from -0.5 up to 0.5.
double Dither(std::uint64_t& state) {
  state = state * 6364136223846793005U + 1442695040888963407U;
  return static_cast<double>(state >> 11) * 0x1p-53 - 0.5;
}

}  // namespace

ThreadState ReadThreadState() {
  rusage usage{};
  (void)getrusage(RUSAGE_THREAD, &usage);
  timespec cpu{};
  (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
  return {static_cast<std::uint64_t>(usage.ru_nivcsw + usage.ru_nvcsw), MonotonicNs(), NsOf(cpu)};
}

std::optional<std::uint64_t> ReadStealMs(int cpu) {
  std::istringstream lines(ReadText("/proc/stat").value_or(""));
  const std::string wanted = "cpu" + std::to_string(cpu);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string name;
    // user, nice, system, idle, iowait, irq, softirq, steal
    std::array<std::uint64_t, 8> ticks{};
    fields >> name;
    if (name != wanted) continue;
    for (std::uint64_t& tick : ticks) fields >> tick;
    if (!fields) return {};
    return ticks[7] * 1000 / static_cast<std::uint64_t>(std::max(1L, sysconf(_SC_CLK_TCK)));
  }
  return {};
}

// The first line names the CPUs; in each other line the n-th number belongs to the n-th of them.
std::optional<std::uint64_t> ReadInterrupts(int cpu) {
  std::istringstream lines(ReadText("/proc/interrupts").value_or(""));
  std::string line;
  if (!std::getline(lines, line)) return {};
  std::istringstream head(line);
  std::size_t column = 0;
  std::string name;
  const std::string wanted = "CPU" + std::to_string(cpu);
  while (head >> name && name != wanted) ++column;
  if (name != wanted) return {};
  std::uint64_t sum = 0;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::uint64_t count = 0;
    fields >> name;
    std::size_t at = 0;
    while (at <= column && fields >> count) ++at;
    if (at > column) sum += count;
  }
  return sum;
}

bool WasInterrupted(const ThreadState& before, const ThreadState& after, double longestNs, bool stealGrew) {
  if (after.switches != before.switches) return true;
  if (after.wallNs - before.wallNs > after.cpuNs - before.cpuNs + kLostNs) return true;
  return longestNs > kLongNs && stealGrew;
}

std::uint64_t LongestWholeBatch(std::vector<std::uint64_t>& batches) {
  if (batches.empty()) return 0;
  const auto middle = batches.begin() + static_cast<std::ptrdiff_t>(batches.size() / 2);
  std::nth_element(batches.begin(), middle, batches.end());
  return kInterruptedMedians * *middle;
}

LatencyBursts::LatencyBursts(ChaseMemory& memory, const ChaseTimer& timer, Sources sources)
    : memory_(memory), line_(memory.Start()), timer_(timer), sources_(std::move(sources)) {
  singles_.reserve(kMostSingles);
  batches_.reserve(kMostBatches);
  NoteSteal();
}

void LatencyBursts::NoteSteal() {
  if (sources_.stealMs) stealMs_ = sources_.stealMs();
}

bool LatencyBursts::StealGrew() {
  if (!sources_.stealMs) return false;
  const std::optional<std::uint64_t> before = std::exchange(stealMs_, sources_.stealMs());
  return before && stealMs_ && *stealMs_ > *before;
}

void LatencyBursts::Settle(double ns) {
  NoteSteal();
  const std::uint64_t end = Ticks() + timer_.TicksOf(ns);
  const std::uint64_t batches = memory_.CycleBytes() / memory_.LineBytes() / kBatch;
  for (std::uint64_t batch = 0; batch < batches && Ticks() < end; ++batch) line_ = FollowBatch(line_);
}

void LatencyBursts::Warm() {
  NoteSteal();
  const std::uint64_t touches = memory_.TouchPages();
  counts_.allAccesses += touches;
  if (memory_.IsHuge() && touches <= kFewTouches) return;
  const std::uint64_t end = Ticks() + timer_.TicksOf(kChaseNs);
  do {
    line_ = FollowBatch(line_);
    counts_.allAccesses += kBatch;
  } while (Ticks() < end);
}

bool LatencyBursts::Burst(double ns) {
  singles_.clear();
  batches_.clear();
  const ThreadState before = sources_.state();
  const std::uint64_t start = Ticks();
  const std::uint64_t warmUpEnd = start + timer_.TicksOf(ns * kWarmUpShare);
  std::uint64_t warmUps = 0;
  do {
    line_ = FollowBatch(line_);
    ++warmUps;
  } while (Ticks() < warmUpEnd);
  TimeBatches(start + timer_.TicksOf(ns * (kWarmUpShare + kBatchesShare)));
  const double longestNs = TimeSingles(start + timer_.TicksOf(ns));
  const ThreadState after = sources_.state();
  ++counts_.bursts;
  counts_.allAccesses += (warmUps + batches_.size()) * kBatch + singles_.size();
  if (WasInterrupted(before, after, longestNs, longestNs > kLongNs && StealGrew())) {
    ++counts_.interrupted;
    return false;
  }
  Count();
  return true;
}

// Returns the longest.
double LatencyBursts::TimeSingles(std::uint64_t endTicks) {
  std::uint64_t longest = 0;
  ChaseMemory::Line* line = line_;
  for (std::uint64_t after = 0; after < endTicks && singles_.size() < kMostSingles;) {
    const std::uint64_t before = Ticks();
    line = Follow(line);
    after = Ticks();
    longest = std::max(longest, after - before);
    singles_.push_back(after - before);
  }
  line_ = line;
  return timer_.LoadNs(longest);
}

void LatencyBursts::TimeBatches(std::uint64_t endTicks) {
  for (std::uint64_t after = 0; after < endTicks && batches_.size() < kMostBatches;) {
    const std::uint64_t before = Ticks();
    line_ = FollowBatch(line_);
    after = Ticks();
    batches_.push_back(after - before);
  }
}

// The counter may move in steps that are as long as the difference that a user looks for. A value stands for
// all of its step, so it is spread over that.
void LatencyBursts::Count() {
  for (const std::uint64_t ticks : singles_) {
    const double ns = std::max(0.0, timer_.LoadNs(ticks) + Dither(random_) * timer_.StepNs());
    const auto whole = static_cast<std::uint64_t>(ns + 0.5);
    ++counts_.buckets[BucketOf(whole)];
    counts_.maxNs = std::max(counts_.maxNs, whole);
  }
  counts_.accesses += singles_.size();
  CountBatches();
}

void LatencyBursts::CountBatches() {
  const std::uint64_t most = LongestWholeBatch(batches_);
  for (const std::uint64_t ticks : batches_) {
    if (ticks > most) continue;
    counts_.batchAccesses += kBatch;
    counts_.batchNs += timer_.LoadNs(ticks, 1);
  }
}

LatencyCounts LatencyBursts::Take() {
  return std::exchange(counts_, {});
}

std::uint64_t LatencyAt(const LatencyCounts& counts, double quantile) {
  Histogram histogram;
  for (std::size_t bucket = 0; bucket < counts.buckets.size(); ++bucket) {
    histogram.Add(bucket, counts.buckets[bucket]);
  }
  return std::min(histogram.Percentile(quantile), counts.maxNs);
}

}  // namespace scope
