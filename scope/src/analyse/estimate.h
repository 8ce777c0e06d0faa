// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <vector>

namespace scope {

/// A figure over repeats: the geometric mean and its interval of 95 % (t test), which needs two values above
/// 0. Without it the value is the mean.
struct Estimate {
  std::vector<double> values;  ///< one of each repeat
  double value = 0;
  std::optional<double> low;
  std::optional<double> high;
};

/// Needs a value.
Estimate EstimateOf(std::vector<double> values);

}  // namespace scope
