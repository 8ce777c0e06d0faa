// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "sweep_table.h"
#include "verdict.h"

namespace scope {

/// A bandwidth that is at most this much below the best one counts as saturated.
constexpr double kSaturatedPercent = 5;

/// The point of a sweep from which more load gives no more bandwidth.
struct Saturation {
  std::size_t best = 0;  ///< the point with the greatest bandwidth
  /// The point with the fewest threads whose median is within 5 % of the best. It may be the best itself.
  std::size_t lowest = 0;
  bool reached = false;  ///< false: `lowest` has the most threads, so more threads may give more
  /// How far `lowest` is from the best, with its interval of 95 %. None if it is the best itself, or if one
  /// of the two has fewer than two runs: then the uncertainty is not known.
  std::optional<DifferencePercent> fromBest;
  /// A point with even fewer threads that the test of `compare` cannot distinguish from the best, with four
  /// or more repeats each. Either it is as good, or noise hides the difference.
  std::optional<std::size_t> indistinct;
  bool hasRepeats = false;  ///< all points that were looked at have two runs or more
};

/// The saturation of the total bandwidth, over all points: threads are the sum of the levels. None if no
/// point has a total bandwidth above 0, or if settings of the board were swept.
std::optional<Saturation> FindSaturation(const SweepTable& table);

/// The saturation of one engine's bandwidth.
struct EngineSaturation {
  std::string engine;
  std::string section;  ///< of the configuration, which was swept
  Saturation saturation;
};

/// The saturation of each engine whose section was swept and that has a bandwidth. Its best point is compared
/// with the points that differ from it only in the level of that section. Empty if a single engine worked:
/// its bandwidth is the total one.
std::vector<EngineSaturation> EngineSaturations(const SweepTable& table);

}  // namespace scope
