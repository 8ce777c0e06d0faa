// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

/// Statistics of repeated measurements. All values must be finite. A function that needs a number of values
/// says so and throws std::invalid_argument for fewer. Results depend only on the arguments. Threads: any.
namespace scope {

/// The quantile `share` (0 to 1) by linear interpolation between the order statistics (type 7 of Hyndman and
/// Fan, "Sample Quantiles in Statistical Packages", 1996). Needs one value.
double Quantile(std::vector<double> values, double share);
double Median(std::vector<double> values);

double Mean(const std::vector<double>& values);
/// Sample standard deviation (divides by n - 1). Needs two values.
double StandardDeviation(const std::vector<double>& values);

/// The value that a standard normal variable does not exceed with probability `p`, 0 < p < 1.
double NormalQuantile(double p);

/// The Mann-Kendall test for a trend of values in order of time, with the Theil-Sen slope.
struct Trend {
  double score = 0;  ///< S: rising pairs minus falling pairs
  double tau = 0;    ///< S divided by the number of pairs
  double p = 1;      ///< two-sided, normal approximation, corrected for ties and continuity
  double slope = 0;  ///< median slope of all pairs, per step
};
/// Needs two values. Assumes independent values; p is too small if neighbours depend on each other.
Trend TestTrend(const std::vector<double>& values);

}  // namespace scope
