// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ratio.h"

namespace scope {

enum class Verdict {
  kBetter,        ///< the interval leaves out 0, and the difference is above the tolerance
  kWorse,         ///< the same in the other direction
  kNoDifference,  ///< the whole interval is within the tolerance
  kCannotTell,    ///< none of these
  kNotJudged      ///< shown as a description only
};

/// A difference in per cent of A, with its interval.
struct DifferencePercent {
  double value = 0;
  double low = 0;
  double high = 0;
};

DifferencePercent PercentOf(const RatioEstimate& estimate);

/// The verdict for a figure. `tolerancePercent` is at least 0.
Verdict JudgeDifference(const DifferencePercent& difference, bool lowerIsBetter, double tolerancePercent);

/// True if the interval shows that B is not worse by more than the tolerance.
bool IsShownNotWorse(const DifferencePercent& difference, bool lowerIsBetter, double tolerancePercent);

}  // namespace scope
