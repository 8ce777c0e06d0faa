// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <vector>

/// Statistics of values of which some may be wrong or odd. Threads: any.
namespace scope {

/// Where most values lie. Up to half of the values may be anywhere.
struct RobustCentre {
  double middle = 0;     ///< the median
  double deviation = 0;  ///< estimates the standard deviation of the values that are not odd
};

/// The median, and the median distance from it, scaled for values with a normal distribution. If more than
/// half of the values are the same, the scale comes from the distance that nine of ten do not exceed. Needs
/// one value; throws std::invalid_argument otherwise.
RobustCentre FindCentre(std::vector<double> values);

/// Values that do not belong to the others.
struct Outliers {
  std::vector<std::size_t> odd;  ///< their places, the oddest first
  double middle = 0;             ///< mean of the other values
  double deviation = 0;          ///< their standard deviation
  double reach = 0;              ///< a further value would be odd beyond middle +- reach * deviation
};

/// The generalized test for many outliers (Rosner, "Percentage Points for a Generalized ESD Many-Outlier
/// Procedure", 1983): again and again, the value farthest from the mean of the remaining ones is taken away,
/// up to two fifths of all, a quarter of fewer than 25. If all values have the same normal distribution, any
/// of them is called odd in at most a share of `error` of all cases. Needs kFewestForOutliers values; throws
/// std::invalid_argument otherwise.
Outliers FindOutliers(const std::vector<double>& values, double error);

constexpr std::size_t kFewestForOutliers = 5;

}  // namespace scope
