#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

/// Statistics of repeated measurements. Every function takes finite values; those that need some say how
/// many, and throw std::invalid_argument for fewer. Results depend on the arguments alone. Threads: any.
namespace scope {

/// The quantile `share` (0 to 1) by linear interpolation between the order statistics (type 7 of Hyndman and
/// Fan, "Sample Quantiles in Statistical Packages", 1996). Needs one value.
double Quantile(std::vector<double> values, double share);
double Median(std::vector<double> values);

double Mean(const std::vector<double>& values);
/// Of a sample: over n - 1. Needs two values.
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
  /// Values are drawn in runs of so many neighbours (circular block bootstrap). 1 for values that do not
  /// depend on the one before; more for a series over time.
  std::size_t block = 1;
};

/// Medians of resamples of `values`, which needs one.
std::vector<double> BootstrapMedians(const std::vector<double>& values, const BootstrapOptions& options);

/// Confidence interval of median(b) - median(a): the percentiles of its bootstrap distribution, both sides
/// resampled on their own. Percentiles and not BCa: the acceleration of BCa comes from a jackknife, which is
/// not consistent for the median.
Interval MedianDifference(const std::vector<double>& a, const std::vector<double>& b,
                          const BootstrapOptions& options);

/// Two-sided p of the rank-sum test of Wilcoxon, Mann and Whitney: how often values that are all of one kind
/// would fall as far apart as `a` and `b`. Exact, with ties too, for up to 50 values together; by the normal
/// approximation, corrected for ties and continuity, above. Both need one value.
double RankSumP(const std::vector<double>& a, const std::vector<double>& b);

/// Repeats a side below which RankSumP cannot come to 1 - `confidence`, however far the sides lie apart.
int LeastRepeats(double confidence);

/// Repeats a side that show a difference of `share` (0.01: 1 %) between two medians with the probability
/// `power`, for repeats that scatter with the coefficient of variation `variation`. Of normal values: the
/// sample size for two means times pi / 2, by which the median needs more values; never below LeastRepeats.
int RepeatsToShow(double variation, double share, double confidence = 0.95, double power = 0.8);

/// Whether values in the order of time rise or fall: the test of Mann and Kendall, with the slope of Theil
/// and Sen.
struct Trend {
  double score = 0;  ///< S: pairs that rise less pairs that fall
  double tau = 0;    ///< S over the number of pairs
  double p = 1;      ///< two-sided, normal approximation, corrected for ties and continuity
  double slope = 0;  ///< median of the slopes of all pairs, a step
};
/// Needs two values. For values that do not depend on the one before; where they do, p comes out too small.
Trend TestTrend(const std::vector<double>& values);

}  // namespace scope
