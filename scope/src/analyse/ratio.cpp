// SPDX-License-Identifier: Apache-2.0
#include "ratio.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <stdexcept>

#include "distributions.h"
#include "statistics.h"

namespace scope {
namespace {

// The scatter may exceed its bound in this share of all cases.
constexpr double kBeyondBound = 0.3;
constexpr double kMostRepeats = 1e6;

std::vector<double> Logarithms(const std::vector<double>& values) {
  std::vector<double> logarithms;
  logarithms.reserve(values.size());
  for (const double value : values) {
    if (!(value > 0)) throw std::invalid_argument("a ratio needs values above 0");
    logarithms.push_back(std::log(value));
  }
  return logarithms;
}

// The mean of the logarithms of one side, and how far it may be off.
struct LogMean {
  double mean = 0;
  double variance = 0;  // of the mean
  double freedom = 0;
};

LogMean LogMeanOf(const std::vector<double>& values) {
  const std::vector<double> logarithms = Logarithms(values);
  const double deviation = StandardDeviation(logarithms);
  const auto count = static_cast<double>(values.size());
  return {Mean(logarithms), deviation * deviation / count, count - 1};
}

// The approximation of Welch and Satterthwaite for the difference of two means. Needs a variance above 0.
double FreedomOf(const LogMean& a, const LogMean& b) {
  const double variance = a.variance + b.variance;
  return std::max(
      1.0, variance * variance / (a.variance * a.variance / a.freedom + b.variance * b.variance / b.freedom));
}

}  // namespace

RatioEstimate EstimateRatio(const std::vector<double>& a, const std::vector<double>& b, double error) {
  const LogMean logA = LogMeanOf(a);
  const LogMean logB = LogMeanOf(b);
  const double variance = logA.variance + logB.variance;
  const double difference = logB.mean - logA.mean;
  // The squares of single values, over both sides.
  const double squares = logA.variance * static_cast<double>(a.size()) * logA.freedom +
                         logB.variance * static_cast<double>(b.size()) * logB.freedom;
  RatioEstimate estimate;
  estimate.ratio = std::exp(difference);
  estimate.freedom = static_cast<int>(a.size() + b.size()) - 2;
  estimate.deviation = std::sqrt(squares / estimate.freedom);
  const double reach =
      variance > 0 ? StudentQuantile(1 - error / 2, FreedomOf(logA, logB)) * std::sqrt(variance) : 0;
  estimate.low = std::exp(difference - reach);
  estimate.high = std::exp(difference + reach);
  return estimate;
}

std::optional<ShareEstimate> EstimateShare(const std::vector<double>& a, const std::vector<double>& between,
                                           const std::vector<double>& b, double error) {
  const LogMean from = LogMeanOf(a);
  const LogMean middle = LogMeanOf(between);
  const LogMean to = LogMeanOf(b);
  const double whole = to.mean - from.mean;
  const double part = to.mean - middle.mean;
  const double wholeVariance = from.variance + to.variance;
  const double partVariance = middle.variance + to.variance;
  double t = 0;
  for (const LogMean& other : {from, middle}) {
    if (other.variance + to.variance > 0)
      t = std::max(t, StudentQuantile(1 - error / 2, FreedomOf(other, to)));
  }
  // The shares s with |part - s whole| <= t times the deviation of that difference: between the roots of
  // square s^2 - 2 linear s + constant. Both steps have the end in common.
  const double square = whole * whole - t * t * wholeVariance;
  if (!(square > 0)) return std::nullopt;
  const double linear = part * whole - t * t * to.variance;
  const double constant = part * part - t * t * partVariance;
  const double root = std::sqrt(std::max(0.0, linear * linear - square * constant));
  return ShareEstimate{part / whole, (linear - root) / square, (linear + root) / square};
}

RatioEstimate EstimatePairedRatio(const std::vector<double>& a, const std::vector<double>& b, double error) {
  if (a.size() != b.size()) throw std::invalid_argument("pairs need as many values of each side");
  std::vector<double> differences = Logarithms(b);
  const std::vector<double> logA = Logarithms(a);
  for (std::size_t i = 0; i < differences.size(); ++i) differences[i] -= logA[i];
  const double deviation = StandardDeviation(differences);
  const double difference = Mean(differences);
  RatioEstimate estimate;
  estimate.paired = true;
  estimate.ratio = std::exp(difference);
  estimate.freedom = static_cast<int>(differences.size()) - 1;
  // The deviation of one side: a difference varies as two runs do.
  estimate.deviation = deviation / std::sqrt(2.0);
  const double reach = StudentQuantile(1 - error / 2, estimate.freedom) * deviation /
                       std::sqrt(static_cast<double>(differences.size()));
  estimate.low = std::exp(difference - reach);
  estimate.high = std::exp(difference + reach);
  return estimate;
}

std::optional<int> RepeatsToTell(const RatioEstimate& estimate, double share, const ErrorShares& shares) {
  if (!(share > 0)) return std::nullopt;
  const double bound =
      estimate.deviation * std::sqrt(estimate.freedom / ChiSquaredQuantile(kBeyondBound, estimate.freedom));
  const double relative = bound / std::log1p(share);
  const auto needed = [&](double sum) { return 2 * sum * sum * relative * relative; };
  const double least = needed(NormalQuantile(1 - shares.error / 2) + NormalQuantile(1 - shares.miss));
  if (least > kMostRepeats) return std::nullopt;
  int repeats = std::max(2, static_cast<int>(std::ceil(least)));
  // Student's quantiles fall with the repeats, so the first number that is enough is the least.
  while (true) {
    const double freedom = (estimate.paired ? 1.0 : 2.0) * (repeats - 1);
    const double sum =
        StudentQuantile(1 - shares.error / 2, freedom) + StudentQuantile(1 - shares.miss, freedom);
    if (repeats >= needed(sum)) return repeats;
    ++repeats;
  }
}

}  // namespace scope
