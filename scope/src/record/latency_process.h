// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "latency_bursts.h"

namespace scope {

/// What the latency probe works with.
struct LatencySetup {
  static constexpr std::size_t kMostGrowth = 12;
  struct Growth {
    std::uint64_t bytes = 0;
    std::uint64_t p50Ns = 0;
  };

  std::uint64_t bytes = 0;
  std::uint64_t lineBytes = 0;
  std::uint64_t hugeBytes = 0;
  std::int32_t cpu = -1;           ///< -1: the system did not let it choose one
  std::int32_t cpuError = 0;       ///< errno of that
  std::int32_t realTimeError = 0;  ///< errno: it is scheduled as other programs are; 0: before all of these
  double timerNs = 0;
  double timerStepNs = 0;
  std::size_t growths = 0;
  std::array<Growth, kMostGrowth> growth{};
};

/// What the latency probe's process tells the recorder, as one packet each.
struct LatencyPacket {
  enum class Type : std::uint32_t {
    kReady,     ///< `setup` is known, nothing is counted yet
    kNoMemory,  ///< the system gives no such memory
    kNoCpu,     ///< it cannot have the CPU that was asked for: `setup.cpuError`
    kSecond,    ///< the counts of the time since the packet before
    kEnd        ///< the same, and there are no more
  };

  Type type = Type::kSecond;
  std::uint64_t timeNs = 0;  ///< monotonic
  LatencySetup setup;
  LatencyCounts counts;
  std::optional<std::uint64_t> stealMs;  ///< of the CPU, in the same time as the counts; so are the next
  std::optional<std::uint64_t> interrupts;
  std::uint64_t switches = 0;  ///< involuntary ones
};

/// How much the probe does. Its load is `burstNs` of `periodNs` of a CPU, and what it takes to begin again
/// after a pause. Longer bursts would seldom end: where others wait for the CPU, a scheduler takes it away
/// after some 3 ms.
struct LatencyRhythm {
  double burstNs = 1e6;
  double periodNs = 125e6;  ///< on average: pauses have random lengths, so that they do not beat with a load
  double mostShare = 0.01;  ///< of a CPU: pauses are longer where beginning again takes long
  double mostPeriodNs = 650e6;  ///< on average, whatever the share: each second has a burst
};

/// The work of the latency probe's process, which has `socket`. It goes through `bytes` of memory on CPU
/// `cpu` (-1: the last one that is allowed), says when it is ready, and begins when a packet comes. When the
/// recorder sends nothing more, it says what it has counted and returns.
void RunLatencyProbe(int socket, std::uint64_t bytes, int cpu, const LatencyRhythm& rhythm = {});

}  // namespace scope
