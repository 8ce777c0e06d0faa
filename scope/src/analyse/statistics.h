// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
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

struct Interval {
  double low = 0;
  double high = 0;
};

struct BootstrapOptions {
  double confidence = 0.95;
  int resamples = 9999;
  std::uint64_t seed = 1;
  /// Number of neighbours that are drawn together (circular block bootstrap). Use 1 for independent values
  /// and more for a series over time.
  std::size_t block = 1;
};

/// Medians of resamples of `values`. Needs one value.
std::vector<double> BootstrapMedians(const std::vector<double>& values, const BootstrapOptions& options);

/// Confidence interval of median(b) - median(a): percentiles of its bootstrap distribution. Each side is
/// resampled independently. BCa is not used: its jackknife is not consistent for the median.
Interval MedianDifference(const std::vector<double>& a, const std::vector<double>& b,
                          const BootstrapOptions& options);

/// Two-sided p of the rank-sum test of Wilcoxon, Mann and Whitney: the probability that samples of one
/// distribution lie as far apart as `a` and `b`. Exact for up to 50 values in total, also with ties. Above,
/// the normal approximation, corrected for ties and continuity. Each side needs one value.
double RankSumP(const std::vector<double>& a, const std::vector<double>& b);

/// Whether the medians of `a` and `b` differ.
struct Difference {
  Interval interval;               ///< of MedianDifference
  std::optional<double> rankSumP;  ///< of repeats only
  bool shown = false;  ///< the interval leaves out 0, and rankSumP, if any, is at most 1 - confidence
};
/// `repeats`: the values are medians of runs, not neighbouring seconds of one. Each side needs one value.
Difference TestDifference(const std::vector<double>& a, const std::vector<double>& b, bool repeats,
                          const BootstrapOptions& options);

/// The fewest repeats per side with which RankSumP can reach 1 - `confidence`.
int LeastRepeats(double confidence);

/// The repeats per side that show a difference of `share` (0.01: 1 %) between two medians with probability
/// `power`. `variation` is the coefficient of variation of the repeats. Assumes normal values: the sample
/// size for two means, times pi / 2 because these are medians. Never below LeastRepeats.
int RepeatsToShow(double variation, double share, double confidence = 0.95, double power = 0.8);

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
