#include "histogram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "latency_buckets.h"

namespace {

using scope::BucketHigh;
using scope::BucketLow;
using scope::BucketOf;
using scope::kBucketCount;

TEST(LatencyBuckets, FollowEachOtherAndAreAtMostOnePercentWide) {
  EXPECT_EQ(BucketLow(0), 0U);
  for (std::size_t bucket = 0; bucket < kBucketCount; ++bucket) {
    const std::uint64_t low = BucketLow(bucket);
    const std::uint64_t high = BucketHigh(bucket);
    ASSERT_LT(low, high) << bucket;
    ASSERT_EQ(BucketOf(low), bucket);
    ASSERT_EQ(BucketOf(high - 1), bucket);
    if (low >= 100) ASSERT_LE(static_cast<double>(high - low), static_cast<double>(low) * 0.01) << bucket;
  }
}

TEST(LatencyBuckets, AreExactBelow256Ns) {
  for (std::uint64_t ns = 0; ns < 256; ++ns) EXPECT_EQ(BucketLow(BucketOf(ns)), ns);
  EXPECT_EQ(BucketHigh(BucketOf(255)), 256U);
}

TEST(LatencyBuckets, EndsWithTheLastOneForWhatIsLonger) {
  EXPECT_EQ(BucketOf((std::uint64_t{1} << 41) - 1), kBucketCount - 1);
  EXPECT_EQ(BucketOf(std::uint64_t{1} << 41), kBucketCount - 1);
  EXPECT_EQ(BucketOf(~std::uint64_t{0}), kBucketCount - 1);
}

TEST(Histogram, PercentilesAreWithinHalfAPercentOfExactOnes) {
  std::mt19937_64 random(7);  // NOLINT(cert-msc51-cpp,cert-msc32-c): the same figures in every run
  std::lognormal_distribution<double> latency(14, 1.5);
  std::vector<std::uint64_t> values(20'001);
  scope::Histogram histogram;
  for (std::uint64_t& value : values) {
    value = static_cast<std::uint64_t>(latency(random));
    histogram.Add(BucketOf(value), 1);
  }
  std::sort(values.begin(), values.end());
  for (const double quantile : {0.0, 0.01, 0.5, 0.9, 0.99, 0.999, 1.0}) {
    const auto rank = static_cast<std::size_t>(std::ceil(quantile * static_cast<double>(values.size())));
    const auto exact = static_cast<double>(values[std::max<std::size_t>(rank, 1) - 1]);
    EXPECT_NEAR(static_cast<double>(histogram.Percentile(quantile)), exact, exact * 0.005) << quantile;
  }
}

TEST(Histogram, WithoutOperationsEveryPercentileIsZero) {
  EXPECT_EQ(scope::Histogram().Percentile(0.5), 0U);
}

TEST(Histogram, OfTwoOperationsTheMedianIsTheFirst) {
  scope::Histogram histogram;
  histogram.Add(BucketOf(10), 1);
  histogram.Add(BucketOf(20), 1);
  EXPECT_EQ(histogram.Percentile(0.50), 10U);
  EXPECT_EQ(histogram.Percentile(0.51), 20U);
}

TEST(Histogram, AddsAnother) {
  scope::Histogram one;
  one.Add(3, 2);
  scope::Histogram other;
  other.Add(3, 1);
  other.Add(5, 4);
  one.Add(other);
  EXPECT_EQ(one.Total(), 7U);
  EXPECT_EQ(one.Buckets().at(3), 3U);
}

}  // namespace
