#include "histogram.h"

#include <algorithm>
#include <cmath>

#include "latency_buckets.h"

namespace scope {

void Histogram::Add(std::size_t bucket, std::uint64_t count) {
  if (count == 0) return;
  buckets_[bucket] += count;
  total_ += count;
}

void Histogram::Add(const Histogram& other) {
  for (const auto& [bucket, count] : other.buckets_) Add(bucket, count);
}

std::uint64_t Histogram::Percentile(double quantile) const {
  if (total_ == 0) return 0;
  const double exact = std::ceil(std::clamp(quantile, 0.0, 1.0) * static_cast<double>(total_));
  const auto rank = std::max<std::uint64_t>(1, static_cast<std::uint64_t>(exact));
  std::uint64_t seen = 0;
  for (const auto& [bucket, count] : buckets_) {
    seen += count;
    if (seen >= rank) return (BucketLow(bucket) + BucketHigh(bucket) - 1) / 2;
  }
  return BucketLow(buckets_.rbegin()->first);
}

}  // namespace scope
