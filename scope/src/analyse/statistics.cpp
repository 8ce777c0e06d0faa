// SPDX-License-Identifier: Apache-2.0
#include "statistics.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <stdexcept>
#include <string>

namespace scope {
namespace {

void Need(const std::vector<double>& values, std::size_t count, const char* what) {
  if (values.size() >= count) return;
  throw std::invalid_argument(std::string(what) + " needs " + std::to_string(count) + " values, got " +
                              std::to_string(values.size()));
}

double NormalTail(double z) {
  return 0.5 * std::erfc(z / std::sqrt(2.0));
}

// Two-sided p of a score with this standard deviation. The score moves in steps of 2 * `halfStep`.
double NormalP(double score, double halfStep, double deviation) {
  if (deviation <= 0) return 1;
  return 2 * NormalTail(std::max(0.0, std::abs(score) - halfStep) / deviation);
}

// Sums `add(t)` over the groups of equal values, where t is the size of the group.
template <typename Add>
double OverTies(const std::vector<double>& values, Add add) {
  std::map<double, double> counts;
  for (const double value : values) ++counts[value];
  double sum = 0;
  for (const auto& [value, count] : counts) sum += add(count);
  return sum;
}

}  // namespace

double Quantile(std::vector<double> values, double share) {
  Need(values, 1, "a quantile");
  const double position = std::clamp(share, 0.0, 1.0) * static_cast<double>(values.size() - 1);
  const auto below = static_cast<std::size_t>(position);
  const auto at = values.begin() + static_cast<std::ptrdiff_t>(below);
  std::nth_element(values.begin(), at, values.end());
  const double low = *at;
  if (at + 1 == values.end()) return low;
  const double high = *std::min_element(at + 1, values.end());
  return low + (position - static_cast<double>(below)) * (high - low);
}

double Median(std::vector<double> values) {
  return Quantile(std::move(values), 0.5);
}

double Mean(const std::vector<double>& values) {
  Need(values, 1, "a mean");
  const auto count = static_cast<double>(values.size());
  const double first = std::accumulate(values.begin(), values.end(), 0.0) / count;
  // Adds the rounding error of the division. It matters if values are much larger than their differences.
  double rest = 0;
  for (const double value : values) rest += value - first;
  return first + rest / count;
}

double StandardDeviation(const std::vector<double>& values) {
  Need(values, 2, "a standard deviation");
  const double mean = Mean(values);
  double squares = 0;
  for (const double value : values) squares += (value - mean) * (value - mean);
  return std::sqrt(squares / static_cast<double>(values.size() - 1));
}

double NormalQuantile(double p) {
  if (!(p > 0 && p < 1)) throw std::invalid_argument("a normal quantile needs a probability in (0, 1)");
  if (p < 0.5) return -NormalQuantile(1 - p);
  // Newton's method: the standard library has no inverse of erfc. To the right of 0 the tail is convex, so
  // each step ends between the last value and the quantile.
  constexpr double kRootOfTwoPi = 2.50662827463100050;
  double quantile = 0;
  for (;;) {
    const double density = std::exp(-quantile * quantile / 2) / kRootOfTwoPi;
    const double next = quantile + (NormalTail(quantile) - (1 - p)) / density;
    if (!(next > quantile)) return quantile;
    quantile = next;
  }
}

Trend TestTrend(const std::vector<double>& values) {
  Need(values, 2, "a trend");
  Trend trend;
  std::vector<double> slopes;
  for (std::size_t i = 0; i < values.size(); ++i) {
    for (std::size_t j = i + 1; j < values.size(); ++j) {
      const double rise = values[j] - values[i];
      trend.score += rise > 0 ? 1 : rise < 0 ? -1 : 0;
      slopes.push_back(rise / static_cast<double>(j - i));
    }
  }
  const auto count = static_cast<double>(values.size());
  trend.tau = trend.score / static_cast<double>(slopes.size());
  trend.slope = Median(std::move(slopes));
  const auto weight = [](double n) { return n * (n - 1) * (2 * n + 5); };
  trend.p = NormalP(trend.score, 1, std::sqrt((weight(count) - OverTies(values, weight)) / 18));
  return trend;
}

}  // namespace scope
