// SPDX-License-Identifier: Apache-2.0
#include "robust.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <stdexcept>

#include "distributions.h"
#include "statistics.h"

namespace scope {
namespace {

// Quantiles of the distance of a normal variable from its mean: half of all, and nine of ten.
constexpr double kHalfOfNormal = 0.6744897501960817;
constexpr double kMostOfNormal = 1.6448536269514722;
constexpr double kNineOfTen = 0.9;
constexpr double kMostOdd = 0.4;
// The published limits hold from some 25 values on. For fewer, simulated normal values are called odd up to
// twice as often, and the less so the fewer steps are made.
constexpr std::size_t kSmallSample = 25;
constexpr double kMostOddOfFew = 0.25;

// Few values lie closer to their own median than to that of all possible values. Factors for up to nine
// values are published (Croux and Rousseeuw, 1992).
double SmallSampleFactor(std::size_t count) {
  constexpr std::array<double, 10> kFactors = {1, 1, 1.196, 1.495, 1.363, 1.206, 1.2, 1.14, 1.129, 1.107};
  if (count < kFactors.size()) return kFactors[count];
  const auto n = static_cast<double>(count);
  return n / (n - 0.8);
}

// The greatest distance from the mean, in standard deviations, that is not odd among `left` values.
double Limit(std::size_t left, double error) {
  const auto n = static_cast<double>(left);
  const double t = StudentQuantile(1 - error / (2 * n), n - 2);
  return t * (n - 1) / std::sqrt((n - 2 + t * t) * n);
}

// The greatest distance of one more value from the mean of `kept` values that is not odd, in their standard
// deviations.
double Reach(std::size_t kept, double error) {
  const auto n = static_cast<double>(kept);
  return StudentQuantile(1 - error / (2 * (n + 1)), n - 1) * std::sqrt(1 + 1 / n);
}

// Sum and sum of squares of the values that remain, which are a part of the sorted ones.
struct Remaining {
  std::size_t from = 0;
  std::size_t to = 0;  // behind the last one
  double sum = 0;
  double squares = 0;

  std::size_t Count() const { return to - from; }
  double Middle() const { return sum / static_cast<double>(Count()); }
  double Deviation() const {
    const auto n = static_cast<double>(Count());
    return std::sqrt(std::max(0.0, (squares - sum * sum / n) / (n - 1)));
  }
  void Add(double value, double sign) {
    sum += sign * value;
    squares += sign * value * value;
  }
};

}  // namespace

RobustCentre FindCentre(std::vector<double> values) {
  const std::size_t count = values.size();
  RobustCentre centre;
  centre.middle = Median(values);
  for (double& value : values) value = std::abs(value - centre.middle);
  centre.deviation = Median(values) / kHalfOfNormal * SmallSampleFactor(count);
  if (centre.deviation == 0) centre.deviation = Quantile(std::move(values), kNineOfTen) / kMostOfNormal;
  return centre;
}

Outliers FindOutliers(const std::vector<double>& values, double error) {
  if (values.size() < kFewestForOutliers) throw std::invalid_argument("too few values to find outliers");
  std::vector<std::size_t> order(values.size());
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return values[a] < values[b]; });
  // Differences from the median: sums of squares of values far from 0 would lose their digits.
  const double shift = values[order[order.size() / 2]];
  const auto valueAt = [&](std::size_t place) { return values[order[place]] - shift; };
  Remaining remaining;
  remaining.to = values.size();
  for (std::size_t i = 0; i < values.size(); ++i) remaining.Add(valueAt(i), 1);
  const bool isSmall = values.size() < kSmallSample;
  const auto most =
      static_cast<std::size_t>((isSmall ? kMostOddOfFew : kMostOdd) * static_cast<double>(values.size()));
  if (isSmall) error /= 2;
  // The limits fall from step to step, so a distance below the last one need not be looked at closely.
  const double leastLimit = Limit(values.size() - most + 1, error);
  std::vector<std::size_t> removed;
  std::size_t odd = 0;
  Remaining kept = remaining;
  while (removed.size() < most) {
    const double middle = remaining.Middle();
    const double deviation = remaining.Deviation();
    const double limit = leastLimit * deviation;
    const std::size_t left = remaining.Count();
    const bool isLow = middle - valueAt(remaining.from) > valueAt(remaining.to - 1) - middle;
    const std::size_t place = isLow ? remaining.from++ : --remaining.to;
    const double distance = std::abs(valueAt(place) - middle);
    remaining.Add(valueAt(place), -1);
    removed.push_back(order[place]);
    if (deviation == 0 || distance <= limit || distance <= Limit(left, error) * deviation) continue;
    odd = removed.size();
    kept = remaining;
  }
  removed.resize(odd);
  return {std::move(removed), kept.Middle() + shift, kept.Deviation(), Reach(kept.Count(), error)};
}

}  // namespace scope
