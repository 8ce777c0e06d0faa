// SPDX-License-Identifier: Apache-2.0
#include "verdict.h"

namespace scope {
namespace {

constexpr double kPercent = 100;

// Greater is better.
DifferencePercent Gain(const DifferencePercent& difference, bool lowerIsBetter) {
  if (!lowerIsBetter) return difference;
  return {-difference.value, -difference.high, -difference.low};
}

}  // namespace

DifferencePercent PercentOf(const RatioEstimate& estimate) {
  return {(estimate.ratio - 1) * kPercent, (estimate.low - 1) * kPercent, (estimate.high - 1) * kPercent};
}

Verdict JudgeDifference(const DifferencePercent& difference, bool lowerIsBetter, double tolerancePercent) {
  const DifferencePercent gain = Gain(difference, lowerIsBetter);
  if (gain.low >= -tolerancePercent && gain.high <= tolerancePercent) return Verdict::kNoDifference;
  if (gain.low > 0 && gain.value > tolerancePercent) return Verdict::kBetter;
  if (gain.high < 0 && gain.value < -tolerancePercent) return Verdict::kWorse;
  return Verdict::kCannotTell;
}

bool IsShownNotWorse(const DifferencePercent& difference, bool lowerIsBetter, double tolerancePercent) {
  return Gain(difference, lowerIsBetter).low >= -tolerancePercent;
}

}  // namespace scope
