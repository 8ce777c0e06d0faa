// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

/// The engines of the counting platform, numbered as in the meter.
enum CountedEngine { kCountedCpu, kCountedVpc, kCountedVenc, kCountedAic, kCountedVpcCopy, kCountedEngines };

constexpr std::size_t kKeptLatencies = 100'000;

/// What the platform has counted for itself.
struct CountedCalls {
  std::atomic<std::uint64_t> calls;
  std::atomic<std::uint64_t> operations;
  std::atomic<std::uint64_t> busyNs;
  std::atomic<std::uint64_t> failures;
  std::uint64_t latenciesNs[kKeptLatencies];
};

__attribute__((visibility("default"))) CountedCalls& CountedCallsOf(int engine);

/// The virtual time of the calling thread, in ns. A step adds its length to it and does not wait. At 0, the
/// initial value, the thread uses real time.
__attribute__((visibility("default"))) std::uint64_t& VirtualNs();

/// From now on each step waits `ns` (0: not at all), and every `failEveryNth` call fails with 77 (0: none).
__attribute__((visibility("default"))) void SetWork(long ns, int failEveryNth);
