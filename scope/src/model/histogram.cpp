// SPDX-License-Identifier: Apache-2.0
#include "histogram.h"

#include "latency_buckets.h"

namespace scope {

void Histogram::Add(std::size_t bucket, std::uint64_t count) {
  if (count != 0) buckets_[bucket] += count;
}

void Histogram::Add(const Histogram& other) {
  for (const auto& [bucket, count] : other.buckets_) Add(bucket, count);
}

std::uint64_t Histogram::Percentile(double quantile) const {
  const auto at = AtQuantile(buckets_, quantile);
  return at == buckets_.end() ? 0 : (BucketLow(at->first) + BucketHigh(at->first) - 1) / 2;
}

}  // namespace scope
