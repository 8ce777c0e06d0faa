// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "chase_memory.h"
#include "chase_timer.h"
#include "latency_buckets.h"

namespace scope {

/// What says that a thread was stopped while it worked.
struct ThreadState {
  std::uint64_t switches = 0;  ///< how often the thread gave its processor to others, or lost it
  std::uint64_t wallNs = 0;
  std::uint64_t cpuNs = 0;  ///< processor time of the thread
};
ThreadState ReadThreadState();

/// Time that the host of a virtual machine took from the CPU, in ms since the start of the machine; none if
/// the system does not say.
std::optional<std::uint64_t> ReadStealMs(int cpu);
/// Interrupts of the CPU since the start of the machine.
std::optional<std::uint64_t> ReadInterrupts(int cpu);

/// True if the thread was stopped between the two states: it lost its processor, time passed in which it did
/// not work, or an access took very long and the host has taken time since it was asked last. A long access
/// alone is none: memory may be as slow.
bool WasInterrupted(const ThreadState& before, const ThreadState& after, double longestNs, bool stealGrew);

/// Four medians: a batch that took longer was interrupted. Puts the batches into another order.
std::uint64_t LongestWholeBatch(std::vector<std::uint64_t>& batches);

/// An access that takes longer is looked at twice.
constexpr double kLongNs = 20'000;

/// Accesses of some bursts.
struct LatencyCounts {
  std::uint64_t bursts = 0;
  std::uint64_t interrupted = 0;  ///< bursts; none of their accesses is in the figures
  std::uint64_t accesses = 0;     ///< timed one by one
  std::uint64_t allAccesses = 0;  ///< with the first ones of each burst and those of interrupted bursts
  std::uint64_t batchAccesses = 0;
  double batchNs = 0;  ///< of `batchAccesses`: without batches of more than four times the burst's median
  std::uint64_t maxNs = 0;
  std::array<std::uint32_t, kBucketCount> buckets{};
};

/// Chases through memory in bursts.
class LatencyBursts {
 public:
  struct Sources {
    std::function<ThreadState()> state = ReadThreadState;
    std::function<std::optional<std::uint64_t>()> stealMs;
  };

  LatencyBursts(ChaseMemory& memory, const ChaseTimer& timer, Sources sources);

  /// Goes through the memory without counting: once, but not for longer than `ns`.
  void Settle(double ns);

  /// Makes up for a pause, in which the page tables have left the caches: reads some lines, and where pages
  /// are small or the memory has more than 256 MiB chases for 3 ms. Counts nothing. What the host took before
  /// does not spoil the burst that follows.
  void Warm();

  /// A burst of `ns`. Its first tenth counts nothing: after a pause the processor has forgotten the latest
  /// translations of addresses. Then accesses are timed in batches, as long as the page tables are where a
  /// chase without pauses has them, and after that one by one. False if it was interrupted.
  bool Burst(double ns);

  /// What has been counted since the last call.
  LatencyCounts Take();

 private:
  void Count();
  void CountBatches();
  double TimeSingles(std::uint64_t endTicks);
  void TimeBatches(std::uint64_t endTicks);
  void NoteSteal();
  bool StealGrew();  ///< since the last call or note

  const ChaseMemory& memory_;
  ChaseMemory::Line* line_;
  const ChaseTimer& timer_;
  Sources sources_;
  std::optional<std::uint64_t> stealMs_;
  std::vector<std::uint64_t> singles_;  ///< ticks, of this burst
  std::vector<std::uint64_t> batches_;  ///< ticks, of this burst
  std::uint64_t random_ = 1;
  LatencyCounts counts_;
};

/// The latency in ns at the quantile (0 to 1) of what was counted; 0 without an access.
std::uint64_t LatencyAt(const LatencyCounts& counts, double quantile);

}  // namespace scope
