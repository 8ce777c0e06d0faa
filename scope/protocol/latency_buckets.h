// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

/// The latency buckets of the meter and its reader. Below 256 ns each bucket is 1 ns wide. Above, each octave
/// has 128 buckets, so a bucket is at most 0.8 % wide. The last bucket also counts latencies of 2^41 ns (36
/// minutes) and longer. Changing this changes the meter's protocol.
namespace scope {

constexpr unsigned kSubBucketBits = 7;
constexpr unsigned kSubBuckets = 1U << kSubBucketBits;
constexpr unsigned kTopBit = 40;
constexpr std::size_t kBucketCount = std::size_t{kTopBit - kSubBucketBits + 2} * kSubBuckets;

constexpr std::size_t BucketOf(std::uint64_t ns) {
  if (ns < 2 * std::uint64_t{kSubBuckets}) return static_cast<std::size_t>(ns);
  const auto topBit = static_cast<unsigned>(63 - __builtin_clzll(ns));
  if (topBit > kTopBit) return kBucketCount - 1;
  const unsigned shift = topBit - kSubBucketBits;
  return shift * std::size_t{kSubBuckets} + static_cast<std::size_t>(ns >> shift);
}

/// The smallest latency in the bucket.
constexpr std::uint64_t BucketLow(std::size_t bucket) {
  if (bucket < 2 * std::size_t{kSubBuckets}) return bucket;
  const std::size_t shift = (bucket >> kSubBucketBits) - 1;
  return (std::uint64_t{bucket} - shift * kSubBuckets) << shift;
}

/// The smallest latency above the bucket.
constexpr std::uint64_t BucketHigh(std::size_t bucket) {
  return BucketLow(bucket + 1);
}

}  // namespace scope
