// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <vector>

/// How much two sides of repeated runs differ, as a ratio.
namespace scope {

/// B divided by A, from one value per run. A ratio cannot fall below 0.
struct RatioEstimate {
  double ratio = 1;  ///< of the geometric means
  double low = 0;    ///< limits of its interval
  double high = 0;
  /// Standard deviation of the logarithms of a side's values, over both sides: close to their coefficient of
  /// variation.
  double deviation = 0;
  int freedom = 0;  ///< degrees of freedom of `deviation`
  bool paired = false;
};

/// The interval of Welch's t test for the means of the logarithms. It misses the true ratio in a share of
/// `error` of all cases, half of them on each side. It does not assume that both sides scatter alike. Needs
/// two values a side, all above 0; throws std::invalid_argument otherwise.
RatioEstimate EstimateRatio(const std::vector<double>& a, const std::vector<double>& b, double error);

/// The same for values that were recorded in pairs, one of each side right after the other: the interval of
/// the t test for the pairs' differences. What changes from pair to pair, such as other work on the machine,
/// does not widen it. Needs two pairs of values above 0; throws std::invalid_argument otherwise.
RatioEstimate EstimatePairedRatio(const std::vector<double>& a, const std::vector<double>& b, double error);

/// The part that the last of two steps has in a change.
struct ShareEstimate {
  double share = 0;  ///< 1: all of it
  double low = 0;    ///< limits of its interval; it may be below 0 or above 1
  double high = 0;
};

/// Which part of the change from `a` to `b` is that from `between` to `b`, in logarithms: of a change by 1.25
/// x 1.6 = 2 the second step is log 1.6 / log 2. The interval of Fieller's theorem, with Student's t of the
/// step whose scatter is known less well. None if the change itself may be 0. Needs two values of each, all
/// above 0; throws std::invalid_argument otherwise.
std::optional<ShareEstimate> EstimateShare(const std::vector<double>& a, const std::vector<double>& between,
                                           const std::vector<double>& b, double error);

/// What an interval may get wrong, as shares of all cases.
struct ErrorShares {
  double error = 0.05;  ///< the interval misses the true ratio
  double miss = 0.2;    ///< a difference that the repeats were chosen for is not shown
};

/// The repeats a side with which two sides that do not differ are shown not to differ by `share` (0.02: 2 %)
/// in one direction. By symmetry they show a difference of `share`. Either fails in `shares.miss` of all
/// cases. The scatter is known only from the runs behind `estimate`, so a bound is used that it exceeds in 3
/// of 10 cases. None if the number is above a million or `share` is 0.
std::optional<int> RepeatsToTell(const RatioEstimate& estimate, double share, const ErrorShares& shares);

}  // namespace scope
