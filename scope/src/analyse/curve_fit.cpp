// SPDX-License-Identifier: Apache-2.0
#include "curve_fit.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

namespace scope {
namespace {

// The value of `of` where `by`, which rises as `of` does, becomes `at`. None if `by` ends below it. Where
// `by` stands still, its first point counts.
std::optional<double> ValueWhere(const std::vector<double>& by, double at, const std::vector<double>& of) {
  const auto above = std::lower_bound(by.begin(), by.end(), at);
  if (above == by.end()) return std::nullopt;
  const auto i = static_cast<std::size_t>(above - by.begin());
  if (i == 0) return of[0];
  return of[i - 1] + (of[i] - of[i - 1]) * (at - by[i - 1]) / (by[i] - by[i - 1]);
}

}  // namespace

std::vector<double> Rising(const std::vector<double>& values) {
  struct Pool {
    double mean;
    double count;
  };
  std::vector<Pool> pools;
  for (const double value : values) {
    pools.push_back({value, 1});
    while (pools.size() > 1 && pools[pools.size() - 2].mean > pools.back().mean) {
      const Pool last = pools.back();
      pools.pop_back();
      Pool& pool = pools.back();
      pool.mean = (pool.mean * pool.count + last.mean * last.count) / (pool.count + last.count);
      pool.count += last.count;
    }
  }
  std::vector<double> rising;
  for (const Pool& pool : pools) rising.insert(rising.end(), static_cast<std::size_t>(pool.count), pool.mean);
  return rising;
}

CurveFit FitCurve(const std::vector<double>& gigabytesPerS, const std::vector<double>& latencyNs) {
  if (gigabytesPerS.size() < 2 || gigabytesPerS.size() != latencyNs.size())
    throw std::invalid_argument("a curve needs two points, each with a bandwidth and a latency");
  return {Rising(gigabytesPerS), Rising(latencyNs)};
}

std::optional<double> LatencyAtBandwidth(const CurveFit& fit, double gigabytesPerS) {
  return ValueWhere(fit.gigabytesPerS, gigabytesPerS, fit.latencyNs);
}

std::optional<double> KneeOf(const CurveFit& fit) {
  return ValueWhere(fit.latencyNs, kKneeFactor * fit.latencyNs.front(), fit.gigabytesPerS);
}

}  // namespace scope
