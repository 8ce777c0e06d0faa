#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

namespace scope {

/// Latencies counted in the meter's buckets (latency_buckets.h).
class Histogram {
 public:
  void Add(std::size_t bucket, std::uint64_t count);
  void Add(const Histogram& other);

  std::uint64_t Total() const { return total_; }

  /// The latency, in ns, that a share of `quantile` (0 to 1) of the operations does not exceed, by nearest
  /// rank: the middle of its bucket, so within 0.4 %. 0 without operations.
  std::uint64_t Percentile(double quantile) const;

  /// Bucket to count, none of them 0, in rising order.
  const std::map<std::size_t, std::uint64_t>& Buckets() const { return buckets_; }

 private:
  std::map<std::size_t, std::uint64_t> buckets_;
  std::uint64_t total_ = 0;
};

}  // namespace scope
