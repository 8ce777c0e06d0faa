// SPDX-License-Identifier: Apache-2.0
#include "chase_timer.h"

#include <algorithm>
#include <limits>
#include <numeric>

namespace scope {
namespace {

constexpr std::uint64_t kLeastNs = 5'000'000;
constexpr std::uint64_t kSmallLines = 32;
constexpr int kTries = 15;
constexpr int kLoads = 16 * kBatch;

}  // namespace

// Loads from the first cache, one after the other: the ticks of a reading, a load, a reading and so on, less
// those of loads alone, are the readings'. So a load from memory means the same alone and in a batch. Only
// the ends of a row of readings count, so the steps of the counter do not matter. The shortest try was not
// interrupted.
ChaseTimer::ChaseTimer(ChaseMemory& memory) : startTicks_(Ticks()), startNs_(MonotonicNs()) {
  memory.GrowTo(kSmallLines * memory.LineBytes());
  ChaseMemory::Line* line = memory.Start();
  std::uint64_t timed = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t plain = timed;
  std::uint64_t step = 0;
  for (int round = 0; round < kTries; ++round) {
    const std::uint64_t start = Ticks();
    std::uint64_t last = start;
    for (int load = 0; load < kLoads; ++load) {
      line = Follow(line);
      const std::uint64_t now = Ticks();
      step = std::gcd(step, now - last);
      last = now;
    }
    for (int batch = 0; batch < kLoads / kBatch; ++batch) line = FollowBatch(line);
    const std::uint64_t end = Ticks();
    timed = std::min(timed, last - start);
    plain = std::min(plain, end - last);
  }
  overheadTicks_ = std::max(0.0, (static_cast<double>(timed) - static_cast<double>(plain)) / (kLoads - 1));
  stepTicks_ = static_cast<double>(std::max<std::uint64_t>(1, step));
  while (MonotonicNs() < startNs_ + kLeastNs) {
  }
  Adjust();
}

void ChaseTimer::Adjust() {
  const auto ticks = static_cast<double>(Ticks() - startTicks_);
  const auto ns = static_cast<double>(MonotonicNs() - startNs_);
  if (ticks > 0) nsPerTick_ = ns / ticks;
}

double ChaseTimer::LoadNs(std::uint64_t ticks, std::uint64_t timings) const {
  const double overhead = static_cast<double>(timings) * overheadTicks_;
  return std::max(0.0, (static_cast<double>(ticks) - overhead) * nsPerTick_);
}

}  // namespace scope
