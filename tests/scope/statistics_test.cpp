// SPDX-License-Identifier: Apache-2.0

// Compares with published values. Each number has its source beside it.
#include "statistics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace scope;

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

// Hollander and Wolfe, "Nonparametric Statistical Methods", 1973, p. 187: lightness of tuna, by the Hunter L
// measure and by a panel; T = 26, tau = 0.4444, exact p = 0.1194 (also in the examples of R's cor.test). Here
// the panel's values in the order of the measure.
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
  EXPECT_THROW(TestTrend({1}), std::invalid_argument);
}

// From here on, figures without a source were computed independently from the published formulas.

TEST(StatisticsTest, QuantilesBetweenTheLastTwoValues) {
  EXPECT_DOUBLE_EQ(Quantile({3, 1, 4, 2}, 0.9), 3.7);
  EXPECT_DOUBLE_EQ(Quantile({10, 20}, 0.75), 17.5);
  EXPECT_DOUBLE_EQ(Quantile({10, 20}, 0.999), 19.99);
  EXPECT_DOUBLE_EQ(Median({1, 2, 3, 10}), 2.5);
}

TEST(StatisticsTest, TheMeanOfTinyValuesKeepsTheirDigits) {
  EXPECT_DOUBLE_EQ(Mean({1e-20, 3e-20}), 2e-20);
}

TEST(StatisticsTest, TheGreatestValueIsReadFromNothingBehindIt) {
  std::vector<double> values = {1, 2, std::nan("")};
  values.pop_back();  // its bytes stay behind the last value
  EXPECT_DOUBLE_EQ(Quantile(std::move(values), 1), 2);
}

TEST(StatisticsTest, SharesOutsideOfZeroToOneAreTheEnds) {
  EXPECT_DOUBLE_EQ(Quantile({1, 2, 3}, -0.5), 1);
  EXPECT_DOUBLE_EQ(Quantile({1, 2, 3}, 1.5), 3);
}

TEST(StatisticsTest, NormalQuantilesOfTheTails) {
  EXPECT_NEAR(NormalQuantile(1e-6), -4.753424308822899, 1e-9);
  EXPECT_NEAR(NormalQuantile(0.999), 3.090232306167813, 1e-11);
  EXPECT_NEAR(NormalQuantile(0.6), 0.2533471031357998, 1e-12);
  EXPECT_NEAR(NormalQuantile(1 - 0x1p-53), 8.209536151601387, 1e-13) << "the greatest p below 1";
  EXPECT_THROW(NormalQuantile(0), std::invalid_argument);
  EXPECT_THROW(NormalQuantile(-0.1), std::invalid_argument);
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
  EXPECT_DOUBLE_EQ(TestTrend({1, 2, 1}).p, 1) << "as much up as down";
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
  EXPECT_EQ(error([] { return TestTrend({1}).p; }), "a trend needs 2 values, got 1");
}

}  // namespace
