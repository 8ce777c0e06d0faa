// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "chase_memory.h"
#include "monotonic_ns.h"

/// Times single loads. The counter of the processor is read where a program may read one.
namespace scope {

#if defined(__x86_64__)

constexpr const char* kTimerName = "rdtsc";

// The fences keep the load between the two readings.
inline std::uint64_t Ticks() {
  __builtin_ia32_lfence();
  const std::uint64_t ticks = __builtin_ia32_rdtsc();
  __builtin_ia32_lfence();
  return ticks;
}

#elif defined(__aarch64__)

constexpr const char* kTimerName = "cntvct";

inline std::uint64_t Ticks() {
  std::uint64_t ticks = 0;
  __asm__ volatile("dsb ish\n\tisb\n\tmrs %0, cntvct_el0\n\tisb" : "=r"(ticks) : : "memory");
  return ticks;
}

#else

constexpr const char* kTimerName = "clock_gettime";

inline std::uint64_t Ticks() {
  return MonotonicNs();
}

#endif

/// The next line of the cycle, when it has arrived.
inline ChaseMemory::Line* Follow(ChaseMemory::Line* line) {
  return *const_cast<ChaseMemory::Line* volatile*>(&line->next);
}

/// Number of loads per reading of the counter, where only their mean matters.
constexpr int kBatch = 64;

inline ChaseMemory::Line* FollowBatch(ChaseMemory::Line* line) {
  for (int i = 0; i < kBatch; ++i) line = Follow(line);
  return line;
}

/// What the ticks of the counter mean.
class ChaseTimer {
 public:
  /// Measures for a few milliseconds. `memory` gets a cycle that fits into the first cache, if it has no
  /// larger one.
  explicit ChaseTimer(ChaseMemory& memory);

  /// Measures the length of a tick again, over the time since the construction: the longer, the more exact.
  void Adjust();

  /// The time that timing a load takes by itself.
  double OverheadNs() const { return overheadTicks_ * nsPerTick_; }
  /// The smallest step of the counter. On some processors it is many ticks.
  double StepNs() const { return stepTicks_ * nsPerTick_; }
  std::uint64_t TicksOf(double ns) const { return static_cast<std::uint64_t>(ns / nsPerTick_); }
  /// Time of the loads that took `ticks`, without the overhead of `timings` readings.
  double LoadNs(std::uint64_t ticks, std::uint64_t timings = 1) const;

 private:
  std::uint64_t startTicks_;
  std::uint64_t startNs_;
  double nsPerTick_ = 1;
  double overheadTicks_ = 0;
  double stepTicks_ = 1;
};

}  // namespace scope
