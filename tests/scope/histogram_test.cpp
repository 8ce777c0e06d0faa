// SPDX-License-Identifier: Apache-2.0
#include "histogram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
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
  std::mt19937_64 random(7);  // the same figures in every run
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
  EXPECT_EQ(one.Buckets().at(5), 4U);
  EXPECT_EQ(one.Buckets().at(3), 3U);
}

TEST(Histogram, APercentileIsTheMiddleOfItsBucket) {
  scope::Histogram histogram;
  const std::size_t bucket = BucketOf(1'000'000);
  histogram.Add(bucket, 1);
  EXPECT_EQ(histogram.Percentile(0.5), (BucketLow(bucket) + BucketHigh(bucket) - 1) / 2);
  EXPECT_GT(histogram.Percentile(0.5), BucketLow(bucket));
  EXPECT_LT(histogram.Percentile(0.5), BucketHigh(bucket) - 1);
}

TEST(Histogram, HasNoBucketOfWhatDidNotCome) {
  scope::Histogram histogram;
  histogram.Add(7, 0);
  EXPECT_TRUE(histogram.Buckets().empty());
  histogram.Add(7, 2);
  histogram.Add(7, 3);
  EXPECT_EQ(histogram.Buckets().at(7), 5U);
}

TEST(AtQuantile, IsByNearestRank) {
  const std::map<int, std::uint64_t> counts = {{10, 0}, {20, 3}, {30, 6}, {40, 1}};
  const auto at = [&counts](double quantile) { return scope::AtQuantile(counts, quantile)->first; };
  EXPECT_EQ(at(0), 20) << "the least that came";
  EXPECT_EQ(at(0.3), 20);
  EXPECT_EQ(at(0.31), 30);
  EXPECT_EQ(at(0.9), 30);
  EXPECT_EQ(at(0.91), 40);
  EXPECT_EQ(at(1), 40);
}

TEST(AtQuantile, OfNothingIsTheEnd) {
  const std::map<int, std::uint64_t> none;
  EXPECT_EQ(scope::AtQuantile(none, 0.5), none.end());
  const std::map<int, std::uint64_t> notOne = {{1, 0}, {2, 0}};
  EXPECT_EQ(scope::AtQuantile(notOne, 0.5), notOne.end());
}

}  // namespace
