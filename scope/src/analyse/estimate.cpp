// SPDX-License-Identifier: Apache-2.0
#include "estimate.h"

#include <algorithm>
#include <utility>

#include "ratio.h"
#include "statistics.h"

namespace scope {
namespace {

constexpr double kEstimateError = 0.05;

}  // namespace

Estimate EstimateOf(std::vector<double> values) {
  Estimate estimate;
  const bool isPositive = std::all_of(values.begin(), values.end(), [](double value) { return value > 0; });
  if (isPositive && values.size() > 1) {
    // The ratio to a side that is 1 without scatter: its interval is that of the values alone.
    const RatioEstimate ratio = EstimateRatio({1, 1}, values, kEstimateError);
    estimate.value = ratio.ratio;
    estimate.low = ratio.low;
    estimate.high = ratio.high;
  } else {
    estimate.value = Mean(values);
  }
  estimate.values = std::move(values);
  return estimate;
}

}  // namespace scope
