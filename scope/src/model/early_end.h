// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace scope {

/// True if a worker whose last operation ended at `lastS` had stopped before `endS`. One more operation may
/// still run at the end. It may take as long as the longest one did.
inline bool StoppedEarly(double endS, double lastS, std::uint64_t longestNs) {
  constexpr double kStoppedEarlyS = 2.5;
  return endS - lastS > kStoppedEarlyS + static_cast<double>(longestNs) * 1e-9;
}

}  // namespace scope
