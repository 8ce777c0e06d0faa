// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <map>

namespace scope {

/// The entry of `counts` (a map from value to count) that holds the quantile `quantile` (0 to 1), by nearest
/// rank. The end if `counts` is empty.
template <typename Counts>
typename Counts::const_iterator AtQuantile(const Counts& counts, double quantile) {
  std::uint64_t whole = 0;
  for (const auto& [value, count] : counts) whole += count;
  const double rank = std::max(1.0, std::ceil(quantile * static_cast<double>(whole)));
  std::uint64_t seen = 0;
  return std::find_if(counts.begin(), counts.end(), [&](const auto& entry) {
    seen += entry.second;
    return static_cast<double>(seen) >= rank;
  });
}

/// Latencies counted in the meter's buckets (latency_buckets.h).
class Histogram {
 public:
  void Add(std::size_t bucket, std::uint64_t count);
  void Add(const Histogram& other);

  /// The latency in ns at the quantile `quantile` (0 to 1), by nearest rank. It is the middle of a bucket, so
  /// it is within 0.4 %. 0 without operations.
  std::uint64_t Percentile(double quantile) const;

  /// Bucket to count, in rising order, without counts of 0.
  const std::map<std::size_t, std::uint64_t>& Buckets() const { return buckets_; }

 private:
  std::map<std::size_t, std::uint64_t> buckets_;
};

}  // namespace scope
