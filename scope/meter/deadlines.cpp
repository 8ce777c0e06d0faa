// SPDX-License-Identifier: Apache-2.0
#include "deadlines.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

namespace scope {
namespace {

constexpr const char* kEngineIds[] = {
#define ENGINE(symbol, id, ...) id,
#include "engines.inc"
#undef ENGINE
};

// What one thread missed on one engine. Only that thread writes, and the reporting thread reads.
struct alignas(64) Misses {
  std::atomic<std::uint64_t> operations;
  std::atomic<std::uint64_t> missed;
  std::atomic<std::uint64_t> longestRun;
  std::atomic<std::uint32_t> engine;
  std::uint64_t run;  // of misses, up to the last operation
};

std::uint64_t deadlines[kEngineCount];
Misses misses[kCounterSets];

void Raise(std::atomic<std::uint64_t>& counter) {
  counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

}  // namespace

bool PrepareDeadlines() {
  const char* at = std::getenv(kDeadlinesVariable);
  bool any = false;
  while (at != nullptr && *at != '\0') {
    const char* const equals = std::strchr(at, '=');
    if (equals == nullptr) break;
    char* end = nullptr;
    const std::uint64_t ns = std::strtoull(equals + 1, &end, 10);
    const auto length = static_cast<std::size_t>(equals - at);
    for (std::uint32_t i = 0; i < kEngineCount; ++i) {
      if (std::strlen(kEngineIds[i]) != length || std::strncmp(kEngineIds[i], at, length) != 0) continue;
      deadlines[i] = ns;
      any = any || ns != 0;
    }
    at = *end == ',' ? end + 1 : nullptr;
  }
  return any;
}

void CountDeadline(const ThreadCounters& counters, std::uint64_t ns) {
  const auto engine = static_cast<std::uint32_t>(counters.engine);
  if (deadlines[engine] == 0) return;
  Misses& own = misses[counters.set];
  own.engine.store(engine, std::memory_order_relaxed);
  Raise(own.operations);
  if (ns <= deadlines[engine]) {
    own.run = 0;
    return;
  }
  Raise(own.missed);
  if (++own.run > own.longestRun.load(std::memory_order_relaxed)) {
    own.longestRun.store(own.run, std::memory_order_relaxed);
  }
}

DeadlinePacket DeadlineCounts(Engine engine) {
  const auto row = static_cast<std::uint32_t>(engine);
  DeadlinePacket packet{};
  packet.engine = engine;
  packet.deadlineNs = deadlines[row];
  for (const Misses& own : misses) {
    const std::uint64_t operations = own.operations.load(std::memory_order_relaxed);
    if (operations == 0 || own.engine.load(std::memory_order_relaxed) != row) continue;
    packet.operations += operations;
    packet.missed += own.missed.load(std::memory_order_relaxed);
    packet.longestRun = std::max(packet.longestRun, own.longestRun.load(std::memory_order_relaxed));
  }
  return packet;
}

}  // namespace scope
