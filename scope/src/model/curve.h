// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <utility>

#include "experiment.h"
#include "sweep.h"

/// A curve of memory latency over bandwidth, as plain data: the same mix of engines under rising load.
namespace scope {

constexpr NumberRange kAllowedCurvePoints = {4, 100};
constexpr NumberRange kAllowedCurveRepeats = {1, 100};

struct Curve {
  /// Its runs by load, then by repeat. It has no axes.
  Sweep sweep;
  /// Levels of one unit of load, for all sections of the configuration; at least one is above 0.
  SweepLevels mix;
  int most = 1;     ///< units of the greatest load
  int points = 10;  ///< loads in equal steps from 0 to `most`
};

/// The load of a point, from 0, in units of the mix.
double LoadOf(const Curve& curve, int point);

/// What makes this load: the levels of the next whole number of units, and the share of the time in which
/// their threads work.
std::pair<SweepLevels, double> LevelsOf(const Curve& curve, int point);

}  // namespace scope
