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

}  // namespace

RatioEstimate EstimateRatio(const std::vector<double>& a, const std::vector<double>& b, double error) {
  const std::vector<double> logA = Logarithms(a);
  const std::vector<double> logB = Logarithms(b);
  const double deviationA = StandardDeviation(logA);
  const double deviationB = StandardDeviation(logB);
  const auto freedomA = static_cast<double>(a.size() - 1);
  const auto freedomB = static_cast<double>(b.size() - 1);
  const double varianceA = deviationA * deviationA / static_cast<double>(a.size());
  const double varianceB = deviationB * deviationB / static_cast<double>(b.size());
  const double variance = varianceA + varianceB;
  const double difference = Mean(logB) - Mean(logA);
  RatioEstimate estimate;
  estimate.ratio = std::exp(difference);
  estimate.freedom = static_cast<int>(a.size() + b.size()) - 2;
  estimate.deviation =
      std::sqrt((deviationA * deviationA * freedomA + deviationB * deviationB * freedomB) / estimate.freedom);
  double reach = 0;
  if (variance > 0) {
    // The approximation of Welch and Satterthwaite.
    const double freedom =
        variance * variance / (varianceA * varianceA / freedomA + varianceB * varianceB / freedomB);
    reach = StudentQuantile(1 - error / 2, std::max(1.0, freedom)) * std::sqrt(variance);
  }
  estimate.low = std::exp(difference - reach);
  estimate.high = std::exp(difference + reach);
  return estimate;
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
  // Of one side: a difference varies as two runs do.
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
