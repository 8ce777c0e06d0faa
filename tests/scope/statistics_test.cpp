// SPDX-License-Identifier: Apache-2.0

// Compares with published values. Each number has its source beside it.
#include "statistics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <map>
#include <numeric>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

using namespace scope;  // NOLINT(google-build-using-namespace): all of it is under test

// Michelson's hundred measurements of the speed of light in air, km/s above 299000, in the order of NIST's
// Statistical Reference Datasets ("Michelso"), which certifies mean and standard deviation to 15 digits.
const std::vector<double> kMichelson = {
    850, 740, 900, 1070, 930, 850, 950, 980, 980, 880, 1000, 980, 930, 650, 760, 810, 1000, 1000, 960, 960,
    960, 940, 960, 940,  880, 800, 850, 880, 900, 840, 830,  790, 810, 880, 880, 830, 800,  790,  760, 800,
    880, 880, 880, 860,  720, 720, 620, 860, 970, 950, 880,  910, 850, 870, 840, 840, 850,  840,  840, 840,
    890, 810, 810, 820,  800, 770, 760, 740, 750, 760, 910,  920, 890, 860, 880, 720, 840,  850,  850, 780,
    890, 840, 780, 810,  760, 810, 790, 810, 820, 850, 870,  870, 810, 740, 810, 940, 950,  800,  810, 870};

// NIST's "NumAcc3" and "NumAcc4": 1001 values that differ in the last digits only. Certified standard
// deviation of both: 0.1.
std::vector<double> NumAcc(double base) {
  std::vector<double> values = {base + 0.2};
  for (int i = 0; i < 500; ++i) {
    values.push_back(base + 0.1);
    values.push_back(base + 0.3);
  }
  return values;
}

// The survival of mice after surgery, days: Efron and Tibshirani, "An Introduction to the Bootstrap", 1993,
// table 2.1.
const std::vector<double> kTreated = {94, 197, 16, 38, 99, 141, 23};
const std::vector<double> kUntreated = {52, 104, 146, 10, 51, 30, 40, 27, 46};

TEST(StatisticsTest, MeanAndDeviationAreNistsToTwelveDigits) {
  ASSERT_EQ(kMichelson.size(), 100U);
  EXPECT_DOUBLE_EQ(Mean(kMichelson), 852.4);
  EXPECT_NEAR(StandardDeviation(kMichelson), 79.0105478190518, 1e-11);
}

TEST(StatisticsTest, DigitsAreKeptWhereTheMeanIsMuchGreaterThanTheSpread) {
  EXPECT_DOUBLE_EQ(Mean(NumAcc(1e6)), 1000000.2);
  EXPECT_NEAR(StandardDeviation(NumAcc(1e6)), 0.1, 1e-10);
  EXPECT_DOUBLE_EQ(Mean(NumAcc(1e7)), 10000000.2);
  EXPECT_NEAR(StandardDeviation(NumAcc(1e7)), 0.1, 1e-8);
}

// R 4: summary(morley$Speed), the same hundred values.
TEST(StatisticsTest, QuantilesAreTypeSeven) {
  EXPECT_DOUBLE_EQ(Quantile(kMichelson, 0), 620);
  EXPECT_DOUBLE_EQ(Quantile(kMichelson, 0.25), 807.5);
  EXPECT_DOUBLE_EQ(Median(kMichelson), 850);
  EXPECT_DOUBLE_EQ(Quantile(kMichelson, 0.75), 892.5);
  EXPECT_DOUBLE_EQ(Quantile(kMichelson, 1), 1070);
  EXPECT_DOUBLE_EQ(Quantile({4, 1, 3, 2}, 0.4), 2.2);
  EXPECT_DOUBLE_EQ(Median({7}), 7);
}

// Any table of the normal distribution.
TEST(StatisticsTest, NormalQuantiles) {
  EXPECT_NEAR(NormalQuantile(0.975), 1.959963984540054, 1e-12);
  EXPECT_NEAR(NormalQuantile(0.8), 0.8416212335729143, 1e-12);
  EXPECT_NEAR(NormalQuantile(0.05), -1.6448536269514722, 1e-12);
  EXPECT_NEAR(NormalQuantile(0.5), 0, 1e-12);
}

// Efron and Tibshirani, table 2.2: the bootstrap standard error of the treated group's median comes to 37.83
// with ever more resamples.
TEST(StatisticsTest, BootstrapErrorOfAMedianIsThePublishedOne) {
  BootstrapOptions options;
  options.resamples = 200'000;
  EXPECT_NEAR(StandardDeviation(BootstrapMedians(kTreated, options)), 37.83, 0.2);
}

// The median of a resample of three is the smallest in 7 of 27, the middle in 13, the greatest in 7.
TEST(StatisticsTest, BootstrapDrawsEveryValueAlike) {
  BootstrapOptions options;
  options.resamples = 270'000;
  int counts[3] = {};
  for (const double median : BootstrapMedians({0, 1, 2}, options)) ++counts[static_cast<int>(median)];
  EXPECT_NEAR(counts[0], 70'000, 1200);
  EXPECT_NEAR(counts[1], 130'000, 1200);
  EXPECT_NEAR(counts[2], 70'000, 1200);
}

TEST(StatisticsTest, IntervalHoldsTheDifferenceAndRepeatsWithItsSeed) {
  BootstrapOptions options;
  const Interval interval = MedianDifference(kUntreated, kTreated, options);
  EXPECT_LT(interval.low, 0);  // the book's conclusion: 48 days more, and no difference shown
  EXPECT_GT(interval.high, 48);
  const Interval again = MedianDifference(kUntreated, kTreated, options);
  EXPECT_EQ(interval.low, again.low);
  EXPECT_EQ(interval.high, again.high);
  options.seed = 2;
  EXPECT_NE(BootstrapMedians(kTreated, options), BootstrapMedians(kTreated, {}));
}

TEST(StatisticsTest, SidesAreResampledIndependently) {
  // If both sides used the same numbers, a side's difference from itself would always be 0.
  const Interval interval = MedianDifference(kTreated, kTreated, {});
  EXPECT_LT(interval.low, -10);
  EXPECT_GT(interval.high, 10);
}

TEST(StatisticsTest, HigherConfidenceIsWider) {
  BootstrapOptions options;
  const Interval usual = MedianDifference(kUntreated, kTreated, options);
  options.confidence = 0.5;
  const Interval half = MedianDifference(kUntreated, kTreated, options);
  EXPECT_LT(usual.low, half.low);
  EXPECT_GT(usual.high, half.high);
}

TEST(StatisticsTest, BlocksKeepNeighboursTogether) {
  // Two long phases: blocks move the median much further than single draws do.
  std::vector<double> phases(40, 0.0);
  for (std::size_t i = 0; i < phases.size(); ++i) phases[i] = (i < 20 ? 0 : 100) + static_cast<double>(i % 3);
  BootstrapOptions options;
  const auto far = [&] {
    int count = 0;
    for (const double median : BootstrapMedians(phases, options)) count += median < 2 || median > 100 ? 1 : 0;
    return count;
  };
  const int singly = far();
  options.block = 10;
  const int inBlocks = far();
  EXPECT_GT(inBlocks, singly);
}

// Hollander and Wolfe, "Nonparametric Statistical Methods", 1973, p. 69: permeability of the human
// chorioamnion; W = 35, one-sided p = 0.1272 (also in the examples of R's wilcox.test).
TEST(StatisticsTest, RankSumIsThePublishedOne) {
  const std::vector<double> x = {0.80, 0.83, 1.89, 1.04, 1.45, 1.38, 1.91, 1.64, 0.73, 1.46};
  const std::vector<double> y = {1.15, 0.88, 0.90, 0.74, 1.21};
  EXPECT_NEAR(RankSumP(x, y), 2 * 0.1272, 0.0001);
  EXPECT_DOUBLE_EQ(RankSumP(x, y), RankSumP(y, x));
}

TEST(StatisticsTest, RankSumOfSidesThatLieApart) {
  // Two of the 70 choices of four out of eight.
  EXPECT_DOUBLE_EQ(RankSumP({1, 2, 3, 4}, {5, 6, 7, 8}), 2.0 / 70);
  EXPECT_DOUBLE_EQ(RankSumP({5, 6, 7, 8}, {1, 2, 3, 4}), 2.0 / 70);
  EXPECT_DOUBLE_EQ(RankSumP({1}, {2}), 1);
}

TEST(StatisticsTest, RankSumWithTies) {
  EXPECT_DOUBLE_EQ(RankSumP({3, 3, 3}, {3, 3, 3}), 1);
  // Of the 10 choices of two among {1, 1, 2, 2, 2}, one has both ones; it is the least.
  EXPECT_DOUBLE_EQ(RankSumP({1, 1}, {2, 2, 2}), 0.2);
}

TEST(StatisticsTest, RankSumOfManyIsCloseToTheExactOne) {
  std::vector<double> a(25);
  std::iota(a.begin(), a.end(), 0.0);
  std::vector<double> b = a;
  for (double& value : b) value += 5.5;
  const double exact = RankSumP(a, b);
  b.push_back(18);  // one value more than the exact method takes, in the middle
  EXPECT_NEAR(RankSumP(a, b), exact, 0.01);
  EXPECT_LT(exact, 0.05);
  const std::vector<double> same(30, 7.0);
  EXPECT_DOUBLE_EQ(RankSumP(same, same), 1);
}

TEST(StatisticsTest, FewerThanFourRepeatsShowNothingAtFivePercent) {
  EXPECT_EQ(LeastRepeats(0.95), 4);
  EXPECT_EQ(LeastRepeats(0.90), 3);
  EXPECT_EQ(LeastRepeats(0.99), 5);
}

TEST(StatisticsTest, RepeatsForADifferenceOfOneSpread) {
  // 16 for two means (Lehr, "Sixteen s-squared over d-squared", Statistics in Medicine 11, 1992; exactly
  // 15.70), times pi / 2.
  EXPECT_EQ(RepeatsToShow(0.01, 0.01), 25);
  EXPECT_EQ(RepeatsToShow(0.02, 0.01), 99);
  EXPECT_EQ(RepeatsToShow(0.0001, 0.01), 4);
  EXPECT_EQ(RepeatsToShow(0, 0.01), 4);
}

// Hollander and Wolfe, 1973, p. 187: lightness of tuna, by the Hunter L measure and by a panel; T = 26,
// tau = 0.4444, exact p = 0.1194 (also in the examples of R's cor.test). Here the panel's values in the order
// of the measure.
TEST(StatisticsTest, TrendIsThePublishedOne) {
  const Trend trend = TestTrend({2.5, 4.0, 2.6, 3.6, 2.8, 3.1, 5.2, 5.0, 3.8});
  EXPECT_DOUBLE_EQ(trend.score, 2 * 26 - 36);
  EXPECT_NEAR(trend.tau, 0.4444, 0.0001);
  EXPECT_NEAR(trend.p, 0.1194, 0.002);  // an approximation of the exact one
}

TEST(StatisticsTest, SlopeIsThatOfALineWithOutliers) {
  std::vector<double> line;
  line.reserve(21);
  for (int i = 0; i <= 20; ++i) line.push_back(100 - 3.0 * i);
  EXPECT_DOUBLE_EQ(TestTrend(line).slope, -3);
  EXPECT_DOUBLE_EQ(TestTrend(line).tau, -1);
  line[7] = 1e9;
  EXPECT_NEAR(TestTrend(line).slope, -3, 0.2);
}

TEST(StatisticsTest, TooFewValuesAreRefused) {
  EXPECT_THROW(Median({}), std::invalid_argument);
  EXPECT_THROW(Mean({}), std::invalid_argument);
  EXPECT_THROW(StandardDeviation({1}), std::invalid_argument);
  EXPECT_THROW(NormalQuantile(1), std::invalid_argument);
  EXPECT_THROW(BootstrapMedians({}, {}), std::invalid_argument);
  EXPECT_THROW(RankSumP({}, {1}), std::invalid_argument);
  EXPECT_THROW(TestTrend({1}), std::invalid_argument);
}

// From here on, figures without a source were computed independently from the published formulas.

TEST(StatisticsTest, QuantilesBetweenTheLastTwoValues) {
  EXPECT_DOUBLE_EQ(Quantile({3, 1, 4, 2}, 0.9), 3.7);
  EXPECT_DOUBLE_EQ(Quantile({10, 20}, 0.75), 17.5);
  EXPECT_DOUBLE_EQ(Quantile({10, 20}, 0.999), 19.99);
  EXPECT_DOUBLE_EQ(Median({1, 2, 3, 10}), 2.5);
}

TEST(StatisticsTest, SharesOutsideOfZeroToOneAreTheEnds) {
  EXPECT_DOUBLE_EQ(Quantile({1, 2, 3}, -0.5), 1);
  EXPECT_DOUBLE_EQ(Quantile({1, 2, 3}, 1.5), 3);
}

TEST(StatisticsTest, NormalQuantilesOfTheTails) {
  EXPECT_NEAR(NormalQuantile(1e-6), -4.753424308822899, 1e-9);
  EXPECT_NEAR(NormalQuantile(0.999), 3.090232306167813, 1e-11);
  EXPECT_NEAR(NormalQuantile(0.6), 0.2533471031357998, 1e-12);
  EXPECT_THROW(NormalQuantile(0), std::invalid_argument);
  EXPECT_THROW(NormalQuantile(-0.1), std::invalid_argument);
}

TEST(StatisticsTest, BootstrapMakesAsManyResamplesAsAskedFor) {
  EXPECT_EQ(BootstrapMedians(kTreated, {}).size(), 9999U);
  BootstrapOptions options;
  options.resamples = 3;
  EXPECT_EQ(BootstrapMedians(kTreated, options).size(), 3U);
  options.resamples = -1;
  EXPECT_TRUE(BootstrapMedians(kTreated, options).empty());
}

// Two neighbours and one value of any place: of the nine such resamples of {0, 1, 10}, the median is 0 in
// two, 1 in five and 10 in two. The values form a circle, so 10 and 0 are neighbours.
TEST(StatisticsTest, BlocksOfTwoAreDrawnFromACircle) {
  BootstrapOptions options;
  options.resamples = 90'000;
  options.block = 2;
  std::map<double, int> counts;
  for (const double median : BootstrapMedians({0, 1, 10}, options)) ++counts[median];
  EXPECT_EQ(counts.size(), 3U);
  EXPECT_NEAR(counts[0], 20'000, 600);
  EXPECT_NEAR(counts[1], 50'000, 600);
  EXPECT_NEAR(counts[10], 20'000, 600);
}

TEST(StatisticsTest, ABlockOfAllValuesIsARotation) {
  for (const std::size_t block : {std::size_t{7}, std::size_t{1000}}) {
    BootstrapOptions options;
    options.block = block;
    options.resamples = 100;
    for (const double median : BootstrapMedians(kTreated, options)) ASSERT_DOUBLE_EQ(median, 94);
  }
  BootstrapOptions none;
  none.block = 0;
  EXPECT_EQ(BootstrapMedians(kTreated, none), BootstrapMedians(kTreated, {}));
}

TEST(StatisticsTest, TheIntervalLeavesOutHalfOfTheRestAtEachTail) {
  const std::vector<double> zero = {0};
  for (const double confidence : {0.95, 0.9, 0.5}) {
    BootstrapOptions options;
    options.confidence = confidence;
    options.resamples = 999;
    BootstrapOptions ofB = options;
    ofB.seed = ~options.seed;
    const std::vector<double> b = BootstrapMedians(kTreated, ofB);
    const Interval right = MedianDifference(zero, kTreated, options);
    EXPECT_DOUBLE_EQ(right.low, Quantile(b, (1 - confidence) / 2));
    EXPECT_DOUBLE_EQ(right.high, Quantile(b, 1 - (1 - confidence) / 2));
    const std::vector<double> a = BootstrapMedians(kTreated, options);
    const Interval left = MedianDifference(kTreated, zero, options);
    EXPECT_DOUBLE_EQ(left.low, -Quantile(a, 1 - (1 - confidence) / 2));
    EXPECT_DOUBLE_EQ(left.high, -Quantile(a, (1 - confidence) / 2));
  }
}

TEST(StatisticsTest, RankSumOfFewWithTiesBetweenTheSides) {
  // 21 of the 126 choices of four of nine have the ranks of the first side or lower ones.
  EXPECT_DOUBLE_EQ(RankSumP({1, 2, 2, 5}, {2, 3, 4, 5, 5}), 2 * 21.0 / 126);
  EXPECT_DOUBLE_EQ(RankSumP({2, 3, 4, 5, 5}, {1, 2, 2, 5}), 2 * 21.0 / 126);
  EXPECT_DOUBLE_EQ(RankSumP({1, 2}, {2, 3, 3}), 0.4);
}

// `count` values of each given one.
std::vector<double> Many(const std::vector<std::pair<double, int>>& valuesAndCounts) {
  std::vector<double> values;
  for (const auto& [value, count] : valuesAndCounts)
    values.insert(values.end(), static_cast<std::size_t>(count), value);
  return values;
}

// Rank sum 424, mean 610, variance 3555.254 (4066.667 without the ties).
TEST(StatisticsTest, RankSumWithTiesInLargeSamples) {
  const std::vector<double> a = Many({{1, 14}, {2, 4}, {3, 2}});
  const std::vector<double> b = Many({{1, 10}, {2, 18}, {3, 12}});
  EXPECT_NEAR(RankSumP(a, b), 0.0018641617303469505, 1e-12);
  EXPECT_NEAR(RankSumP(b, a), 0.0018641617303469505, 1e-12);
}

TEST(StatisticsTest, RankSumCountsUpToFiftyValuesExactly) {
  std::vector<double> a(25);
  std::iota(a.begin(), a.end(), 0.0);
  std::vector<double> b(25);
  std::iota(b.begin(), b.end(), 25.0);
  EXPECT_NEAR(RankSumP(a, b), 1.5821457204897235e-14, 1e-24);
  b.push_back(50);
  EXPECT_NEAR(RankSumP(a, b), 9.697974076284181e-10, 1e-18);
}

TEST(StatisticsTest, ADifferenceOfRepeatsNeedsTheIntervalAndTheRankSum) {
  const Difference apart = TestDifference({1, 2, 3, 4}, {15, 16, 17, 18}, true, {});
  EXPECT_TRUE(apart.shown);
  EXPECT_DOUBLE_EQ(*apart.rankSumP, 2.0 / 70);
  EXPECT_TRUE(TestDifference({15, 16, 17, 18}, {1, 2, 3, 4}, true, {}).shown);
  EXPECT_FALSE(TestDifference({1, 2, 3}, {15, 16, 17}, true, {}).shown)
      << "the least p of three a side is 0.1";
  BootstrapOptions options;
  options.confidence = 0.9;
  EXPECT_TRUE(TestDifference({1, 2, 3}, {15, 16, 17}, true, options).shown)
      << "0.1 is 1 - 0.9, but for rounding";
  const Difference same = TestDifference(kUntreated, kTreated, true, {});
  EXPECT_FALSE(same.shown);
  EXPECT_EQ(same.interval.low, MedianDifference(kUntreated, kTreated, {}).low);
  EXPECT_EQ(same.interval.high, MedianDifference(kUntreated, kTreated, {}).high);
}

TEST(StatisticsTest, ADifferenceOfSecondsNeedsTheIntervalAlone) {
  const Difference apart = TestDifference({1, 2, 3}, {15, 16, 17}, false, {});
  EXPECT_TRUE(apart.shown);
  EXPECT_FALSE(apart.rankSumP.has_value());
  EXPECT_FALSE(TestDifference({1, 2, 3}, {1, 2, 3}, false, {}).shown);
  EXPECT_FALSE(TestDifference({1}, {1}, false, {}).shown) << "an interval from 0 to 0";
}

TEST(StatisticsTest, LeastRepeatsOfAnyConfidence) {
  EXPECT_EQ(LeastRepeats(0), 1);
  EXPECT_EQ(LeastRepeats(0.6), 2);
  EXPECT_EQ(LeastRepeats(0.999), 7);  // 2 of 3432 choices; 2 of 924 are too many
}

TEST(StatisticsTest, RepeatsDependOnConfidenceAndPower) {
  EXPECT_EQ(RepeatsToShow(0.03, 0.01), 222);
  EXPECT_EQ(RepeatsToShow(0.03, 0.01, 0.99), 331);
  EXPECT_EQ(RepeatsToShow(0.03, 0.01, 0.95, 0.5), 109);
  EXPECT_EQ(RepeatsToShow(0.03, 0.02, 0.95, 0.9), 75);
  EXPECT_EQ(RepeatsToShow(1, 1e-9), 1'000'000) << "as many as none will record";
}

TEST(StatisticsTest, TrendsApproximationIsCorrectedForContinuity) {
  EXPECT_NEAR(TestTrend({2.5, 4.0, 2.6, 3.6, 2.8, 3.1, 5.2, 5.0, 3.8}).p, 0.11785089502136512, 1e-12);
  const Trend falling = TestTrend({9, 7, 8, 5, 5, 3, 4, 1});
  EXPECT_DOUBLE_EQ(falling.score, -23);
  EXPECT_NEAR(falling.tau, -23.0 / 28, 1e-12);
  EXPECT_NEAR(falling.p, 0.00609054605657882, 1e-12);
  EXPECT_DOUBLE_EQ(falling.slope, -1);
}

TEST(StatisticsTest, TrendWithTies) {
  const Trend trend = TestTrend({1, 1, 2, 2, 2, 3, 1, 3, 3, 4, 4, 2});
  EXPECT_DOUBLE_EQ(trend.score, 35);
  EXPECT_NEAR(trend.p, 0.015072216073823563, 1e-12);  // 0.0197 without the ties
  EXPECT_DOUBLE_EQ(trend.slope, 0.25);
  const Trend flat = TestTrend({5, 5, 5, 5});
  EXPECT_DOUBLE_EQ(flat.p, 1);
  EXPECT_DOUBLE_EQ(flat.slope, 0);
  EXPECT_DOUBLE_EQ(TestTrend({1, 2}).p, 1) << "two values have no trend that could be told from noise";
}

TEST(StatisticsTest, SaysWhatIsMissing) {
  const auto error = [](const std::function<double()>& call) {
    try {
      return "no error: " + std::to_string(call());
    } catch (const std::invalid_argument& caught) {
      return std::string(caught.what());
    }
  };
  EXPECT_EQ(error([] { return Median({}); }), "a quantile needs 1 values, got 0");
  EXPECT_EQ(error([] { return Mean({}); }), "a mean needs 1 values, got 0");
  EXPECT_EQ(error([] { return StandardDeviation({1}); }), "a standard deviation needs 2 values, got 1");
  EXPECT_EQ(error([] { return NormalQuantile(1); }), "a normal quantile needs a probability in (0, 1)");
  EXPECT_EQ(error([] { return BootstrapMedians({}, {})[0]; }), "a bootstrap needs 1 values, got 0");
  EXPECT_EQ(error([] { return RankSumP({}, {1}); }), "a rank-sum test needs 1 values, got 0");
  EXPECT_EQ(error([] { return RankSumP({1}, {}); }), "a rank-sum test needs 1 values, got 0");
  EXPECT_EQ(error([] { return TestTrend({1}).p; }), "a trend needs 2 values, got 1");
}

}  // namespace
