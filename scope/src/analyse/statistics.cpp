// SPDX-License-Identifier: Apache-2.0
#include "statistics.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>

namespace scope {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr std::size_t kExactRankSum = 50;
constexpr int kMostRepeats = 1'000'000;
// Tolerance for rounding: 1 - 0.9 is slightly less than 0.1.
constexpr double kRounding = 1 + 1e-9;

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
  const double z = std::max(0.0, std::abs(score) - halfStep) / deviation;
  return std::min(1.0, 2 * NormalTail(z));
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

// Twice the rank of each value. Equal values share their mean rank, so the doubled ranks are whole.
std::vector<std::size_t> DoubledRanks(const std::vector<double>& values) {
  std::vector<double> sorted = values;
  std::sort(sorted.begin(), sorted.end());
  std::vector<std::size_t> ranks;
  ranks.reserve(values.size());
  for (const double value : values) {
    const auto [first, last] = std::equal_range(sorted.begin(), sorted.end(), value);
    ranks.push_back(static_cast<std::size_t>((first - sorted.begin()) + (last - sorted.begin())) + 1);
  }
  return ranks;
}

// Two-sided p: twice the share of choices of `chosen` ranks whose sum is as far out as `sum`.
double ExactRankSumP(const std::vector<std::size_t>& ranks, std::size_t chosen, std::size_t sum) {
  const std::size_t whole = std::accumulate(ranks.begin(), ranks.end(), std::size_t{0});
  std::vector<std::vector<double>> ways(chosen + 1, std::vector<double>(whole + 1, 0));
  ways[0][0] = 1;
  for (const std::size_t rank : ranks) {
    for (std::size_t count = chosen; count > 0; --count) {
      for (std::size_t total = whole; total >= rank; --total)
        ways[count][total] += ways[count - 1][total - rank];
    }
  }
  const std::vector<double>& of = ways[chosen];
  const auto at = of.begin() + static_cast<std::ptrdiff_t>(sum);
  const double all = std::accumulate(of.begin(), of.end(), 0.0);
  const double low = std::accumulate(of.begin(), at + 1, 0.0);
  const double high = std::accumulate(at, of.end(), 0.0);
  return std::min(1.0, 2 * std::min(low, high) / all);
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
  // Bisection: the standard library has no inverse of erfc, and speed does not matter here.
  double low = 0;
  double high = 40;
  for (int step = 0; step < 100; ++step) {
    const double middle = (low + high) / 2;
    (NormalTail(middle) > 1 - p ? low : high) = middle;
  }
  return low;
}

std::vector<double> BootstrapMedians(const std::vector<double>& values, const BootstrapOptions& options) {
  Need(values, 1, "a bootstrap");
  const std::size_t count = values.size();
  const std::size_t block = std::clamp<std::size_t>(options.block, 1, count);
  // The C++ standard fixes the numbers of this engine, but not those of its distributions. The remainder of
  // a 64-bit number is uniform enough.
  std::mt19937_64 random(options.seed);
  std::vector<double> medians;
  medians.reserve(static_cast<std::size_t>(std::max(options.resamples, 0)));
  std::vector<double> drawn(count);
  for (int resample = 0; resample < options.resamples; ++resample) {
    for (std::size_t i = 0; i < count; i += block) {
      const std::size_t start = random() % count;
      for (std::size_t j = 0; j < block && i + j < count; ++j) drawn[i + j] = values[(start + j) % count];
    }
    medians.push_back(Median(drawn));
  }
  return medians;
}

Interval MedianDifference(const std::vector<double>& a, const std::vector<double>& b,
                          const BootstrapOptions& options) {
  const std::vector<double> ofA = BootstrapMedians(a, options);
  BootstrapOptions other = options;
  other.seed = ~options.seed;  // equal numbers would correlate the resamples of both sides
  std::vector<double> differences = BootstrapMedians(b, other);
  for (std::size_t i = 0; i < differences.size(); ++i) differences[i] -= ofA[i];
  const double tail = (1 - options.confidence) / 2;
  return {Quantile(differences, tail), Quantile(differences, 1 - tail)};
}

double RankSumP(const std::vector<double>& a, const std::vector<double>& b) {
  Need(a, 1, "a rank-sum test");
  Need(b, 1, "a rank-sum test");
  std::vector<double> all = a;
  all.insert(all.end(), b.begin(), b.end());
  const std::vector<std::size_t> ranks = DoubledRanks(all);
  const auto endOfA = ranks.begin() + static_cast<std::ptrdiff_t>(a.size());
  const std::size_t sum = std::accumulate(ranks.begin(), endOfA, std::size_t{0});
  if (all.size() <= kExactRankSum) return ExactRankSumP(ranks, a.size(), sum);
  const auto inA = static_cast<double>(a.size());
  const auto inB = static_cast<double>(b.size());
  const double both = inA + inB;
  const double ties = OverTies(all, [](double count) { return count * count * count - count; });
  const double score = static_cast<double>(sum) / 2 - inA * (both + 1) / 2;
  const double variance = inA * inB / 12 * ((both + 1) - ties / (both * (both - 1)));
  return NormalP(score, 0.5, std::sqrt(variance));
}

Difference TestDifference(const std::vector<double>& a, const std::vector<double>& b, bool repeats,
                          const BootstrapOptions& options) {
  Difference difference;
  difference.interval = MedianDifference(a, b, options);
  if (repeats) difference.rankSumP = RankSumP(a, b);
  difference.shown = (difference.interval.low > 0 || difference.interval.high < 0) &&
                     difference.rankSumP.value_or(0) <= (1 - options.confidence) * kRounding;
  return difference;
}

int LeastRepeats(double confidence) {
  // Of all choices of n among 2n values, two put one side completely above the other.
  double choices = 1;
  int repeats = 0;
  do {
    ++repeats;
    choices *= 2.0 * (2.0 * repeats - 1) / repeats;
  } while (2 / choices > (1 - confidence) * kRounding);
  return repeats;
}

int RepeatsToShow(double variation, double share, double confidence, double power) {
  const double sum = NormalQuantile(1 - (1 - confidence) / 2) + NormalQuantile(power);
  const double ratio = sum * variation / share;
  const double repeats = std::ceil(kPi / 2 * 2 * ratio * ratio);
  return std::max(LeastRepeats(confidence), static_cast<int>(std::min<double>(repeats, kMostRepeats)));
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
