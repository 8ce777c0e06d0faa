// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <ctime>

namespace scope {

/// The time of CLOCK_MONOTONIC.
inline std::uint64_t MonotonicNs() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

/// Seconds since `startNs` of that clock.
inline double SecondsSince(std::uint64_t startNs) {
  return static_cast<double>(MonotonicNs() - startNs) * 1e-9;
}

}  // namespace scope
