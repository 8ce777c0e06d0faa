// SPDX-License-Identifier: Apache-2.0

// Compares with published values. Each number has its source beside it.
#include "ratio.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <stdexcept>
#include <string>

#include "distributions.h"
#include "normal_values.h"
#include "verdict.h"

namespace {

using namespace scope;

// The additional sleep of ten patients with two drugs, hours: Student, "The probable error of a mean",
// Biometrika 6, 1908. R 4, t.test(extra ~ group, sleep): Welch's interval of the difference is
// -3.3654832 to 0.2054832, with 17.776 degrees of freedom.
const std::vector<double> kFirstDrug = {0.7, -1.6, -0.2, -1.2, -0.1, 3.4, 3.7, 0.8, 0.0, 2.0};
const std::vector<double> kSecondDrug = {1.9, 0.8, 1.1, 0.1, -0.1, 4.4, 5.5, 1.6, 4.6, 3.4};

std::vector<double> Exp(const std::vector<double>& logarithms) {
  std::vector<double> values;
  for (const double logarithm : logarithms) values.push_back(std::exp(logarithm));
  return values;
}

// Any table of Student's t.
TEST(DistributionsTest, StudentQuantilesArePublishedOnes) {
  EXPECT_NEAR(StudentQuantile(0.975, 1), 12.7062, 1e-4);
  EXPECT_NEAR(StudentQuantile(0.975, 2), 4.30265, 1e-5);
  EXPECT_NEAR(StudentQuantile(0.995, 4), 4.60409, 1e-5);
  EXPECT_NEAR(StudentQuantile(0.9995, 3), 12.9240, 1e-4);
  EXPECT_NEAR(StudentQuantile(0.975, 10), 2.22814, 1e-5);
  EXPECT_NEAR(StudentQuantile(0.95, 30), 1.69726, 1e-5);
  EXPECT_NEAR(StudentQuantile(0.975, 1e6), 1.959966, 1e-6);
  EXPECT_NEAR(StudentQuantile(0.025, 10), -2.22814, 1e-5);
  EXPECT_EQ(StudentQuantile(0.5, 3), 0);
}

// With 1 degree of freedom it is Cauchy's distribution, with 2 its quantile has a closed form.
TEST(DistributionsTest, StudentQuantilesFarOut) {
  EXPECT_NEAR(StudentQuantile(1 - 1e-6, 1), 1 / std::tan(1e-6 * std::acos(-1.0)), 1e-3);
  const double p = 0.9999;
  EXPECT_NEAR(StudentQuantile(p, 2), (2 * p - 1) / std::sqrt(2 * p * (1 - p)), 1e-9);
}

TEST(DistributionsTest, TailAndQuantileBelongTogether) {
  for (const double freedom : {1.0, 1.7, 3.2, 17.776, 250.0}) {
    for (const double p : {0.51, 0.8, 0.995, 0.99999}) {
      EXPECT_NEAR(StudentTail(StudentQuantile(p, freedom), freedom), 1 - p, 1e-12) << freedom << " " << p;
    }
  }
  EXPECT_DOUBLE_EQ(StudentTail(0, 5), 0.5);
  EXPECT_NEAR(StudentTail(-4.30265, 2), 0.975, 1e-6);
}

// Any table of chi-squared.
TEST(DistributionsTest, ChiSquaredQuantilesAreNearPublishedOnes) {
  EXPECT_NEAR(ChiSquaredQuantile(0.2, 2), 0.446, 0.01);
  EXPECT_NEAR(ChiSquaredQuantile(0.2, 6), 3.070, 0.02);
  EXPECT_NEAR(ChiSquaredQuantile(0.2, 30), 23.364, 0.03);
  EXPECT_NEAR(ChiSquaredQuantile(0.9, 10), 15.987, 0.03);
}

TEST(DistributionsTest, RefuseWhatHasNoQuantile) {
  EXPECT_THROW((void)StudentQuantile(0, 3), std::invalid_argument);
  EXPECT_THROW((void)StudentQuantile(1, 3), std::invalid_argument);
  EXPECT_THROW((void)StudentQuantile(std::nan(""), 3), std::invalid_argument);
  EXPECT_THROW((void)StudentQuantile(0.9, 0.5), std::invalid_argument);
  EXPECT_THROW((void)StudentTail(1, 0), std::invalid_argument);
  EXPECT_THROW((void)ChiSquaredQuantile(1, 3), std::invalid_argument);
}

TEST(RatioTest, TheIntervalIsThePublishedOne) {
  const RatioEstimate estimate = EstimateRatio(Exp(kFirstDrug), Exp(kSecondDrug), 0.05);
  EXPECT_NEAR(std::log(estimate.ratio), 1.58, 1e-9);
  EXPECT_NEAR(std::log(estimate.low), -0.2054832, 1e-6);
  EXPECT_NEAR(std::log(estimate.high), 3.3654832, 1e-6);
  // R 4: the pooled variance of t.test(..., var.equal = TRUE): standard deviations 1.789010 and 2.002249.
  EXPECT_NEAR(estimate.deviation, std::sqrt((1.789010 * 1.789010 + 2.002249 * 2.002249) / 2), 1e-5);
  EXPECT_EQ(estimate.freedom, 18);
}

// R 4, t.test(extra ~ group, sleep, paired = TRUE): -2.4598858 to -0.7001142.
TEST(RatioTest, TheIntervalOfPairsIsThePublishedOne) {
  const RatioEstimate estimate = EstimatePairedRatio(Exp(kFirstDrug), Exp(kSecondDrug), 0.05);
  EXPECT_NEAR(std::log(estimate.ratio), 1.58, 1e-9);
  EXPECT_NEAR(std::log(estimate.low), 0.7001142, 1e-6);
  EXPECT_NEAR(std::log(estimate.high), 2.4598858, 1e-6);
  // sd(differences) is 1.229995; a difference varies as two runs do.
  EXPECT_NEAR(estimate.deviation, 1.229995 / std::sqrt(2.0), 1e-5);
  EXPECT_EQ(estimate.freedom, 9);
  EXPECT_TRUE(estimate.paired);
  EXPECT_THROW((void)EstimatePairedRatio({1, 2}, {1, 2, 3}, 0.05), std::invalid_argument);
  EXPECT_THROW((void)EstimatePairedRatio({1}, {1}, 0.05), std::invalid_argument);
}

TEST(RatioTest, WhatChangesFromPairToPairDoesNotWidenItsInterval) {
  const RatioEstimate estimate = EstimatePairedRatio({10, 20, 40}, {9, 18, 36}, 0.05);
  EXPECT_NEAR(estimate.low, 0.9, 1e-9);
  EXPECT_NEAR(estimate.high, 0.9, 1e-9);
  EXPECT_LT(EstimateRatio({10, 20, 40}, {9, 18, 36}, 0.05).low, 0.5);
}

TEST(RatioTest, NeverFallsBelowZeroAndTurnsWithItsSides) {
  const std::vector<double> a = {1, 20};
  const std::vector<double> b = {2, 3};
  const RatioEstimate there = EstimateRatio(a, b, 0.01);
  const RatioEstimate back = EstimateRatio(b, a, 0.01);
  EXPECT_GT(there.low, 0);
  EXPECT_NEAR(there.low * back.high, 1, 1e-9);
  EXPECT_NEAR(there.ratio * back.ratio, 1, 1e-12);
  EXPECT_LT(there.low, EstimateRatio(a, b, 0.05).low);
}

// From the formulas, with 30 digits. Welch's degrees of freedom are 1.0366.
TEST(RatioTest, OfTwoRunsASideWithHardlyADegreeOfFreedom) {
  const RatioEstimate estimate = EstimateRatio({1, 20}, {2, 3}, 0.05);
  EXPECT_NEAR(estimate.ratio, 0.54772255750516611, 1e-12);
  EXPECT_NEAR(estimate.low / 1.155540157671855e-8, 1, 1e-9);
  EXPECT_NEAR(estimate.high / 25961884.40602794, 1, 1e-9);
  EXPECT_FALSE(estimate.paired);
}

TEST(RatioTest, RunsWithoutScatterHaveAPoint) {
  const RatioEstimate estimate = EstimateRatio({10, 10}, {9, 9, 9}, 0.05);
  EXPECT_DOUBLE_EQ(estimate.ratio, 0.9);
  EXPECT_DOUBLE_EQ(estimate.low, 0.9);
  EXPECT_DOUBLE_EQ(estimate.high, 0.9);
  EXPECT_EQ(RepeatsToTell(estimate, 0.02, {}), 2);
}

TEST(RatioTest, RefusesWhatHasNoRatio) {
  EXPECT_THROW((void)EstimateRatio({1}, {1, 2}, 0.05), std::invalid_argument);
  EXPECT_THROW((void)EstimateRatio({1, 2}, {1, 0}, 0.05), std::invalid_argument);
  EXPECT_THROW((void)EstimateRatio({1, -2}, {1, 2}, 0.05), std::invalid_argument);
  const auto error = [](const std::function<RatioEstimate()>& call) {
    try {
      return "no error: " + std::to_string(call().ratio);
    } catch (const std::invalid_argument& caught) {
      return std::string(caught.what());
    }
  };
  EXPECT_EQ(error([] { return EstimateRatio({1, 2}, {1, 0}, 0.05); }), "a ratio needs values above 0");
  EXPECT_EQ(error([] { return EstimatePairedRatio({1, 2}, {1, 2, 3}, 0.05); }),
            "pairs need as many values of each side");
}

// Cohen, "Statistical Power Analysis for the Behavioral Sciences", 1988, table 2.4.1: 17 and 64 a side for
// differences of 1 and 0.5 standard deviations, two-sided 5 %, power 80 %.
TEST(RatioTest, RepeatsArePublishedOnesWhereTheScatterIsKnown) {
  RatioEstimate known;
  known.freedom = 100'000'000;
  known.deviation = std::log1p(0.01);
  EXPECT_EQ(RepeatsToTell(known, 0.01, {}), 17);
  // Pairs know the scatter from half as many differences: t(17) is 2.1098 and 0.8633, t(16) 2.1199 and
  // 0.8647.
  known.paired = true;
  EXPECT_EQ(RepeatsToTell(known, 0.01, {}), 18);
  known.paired = false;
  known.deviation *= 2;
  EXPECT_EQ(RepeatsToTell(known, 0.01, {}), 64);
}

// From the formulas, with 30 digits: t of the repeats' own degrees of freedom, which are few.
TEST(RatioTest, FewRepeatsKnowTheScatterLessWell) {
  const auto repeats = [](double deviation, bool paired) {
    RatioEstimate known;
    known.freedom = 100'000'000;
    known.deviation = deviation * std::log1p(0.01);
    known.paired = paired;
    return RepeatsToTell(known, 0.01, {});
  };
  EXPECT_EQ(repeats(0.2, false), 3);
  EXPECT_EQ(repeats(0.2, true), 3);
  EXPECT_EQ(repeats(0.4, false), 4);
  EXPECT_EQ(repeats(0.4, true), 5);
  EXPECT_EQ(repeats(0.5, false), 6);
  EXPECT_EQ(repeats(0.5, true), 7);
}

TEST(RatioTest, MoreRepeatsWhereTheScatterIsHardlyKnown) {
  RatioEstimate estimate;
  estimate.deviation = 0.01;
  estimate.freedom = 2;
  const int few = *RepeatsToTell(estimate, 0.01, {});
  estimate.freedom = 30;
  const int many = *RepeatsToTell(estimate, 0.01, {});
  // From the formulas, with 30 digits.
  EXPECT_EQ(few, 45);
  EXPECT_EQ(many, 20);
  EXPECT_EQ(RepeatsToTell(estimate, 0.01, {0.01, 0.2}), 30);
  EXPECT_EQ(RepeatsToTell(estimate, 0.01, {0.05, 0.1}), 26);
}

TEST(RatioTest, SomeQuestionsNoNumberOfRepeatsAnswers) {
  RatioEstimate estimate;
  estimate.deviation = 1;
  estimate.freedom = 6;
  EXPECT_FALSE(RepeatsToTell(estimate, 0, {}).has_value());
  EXPECT_FALSE(RepeatsToTell(estimate, 1e-5, {}).has_value());
  estimate.deviation = 0;
  EXPECT_FALSE(RepeatsToTell(estimate, 0, {}).has_value()) << "nothing scatters, and nothing is told apart";
}

// Where the scatter is known, the least number is 2 sum^2 (deviation / log 2)^2 for a difference of 100 %.
TEST(RatioTest, AMillionRepeatsAreTheMost) {
  const auto repeats = [](double least) {
    RatioEstimate known;
    known.freedom = 100'000'000;
    const double sum = 1.959963984540054 + 0.8416212335729143;
    const double bound = std::sqrt(least / 2) / sum * std::log(2);
    known.deviation = bound / std::sqrt(known.freedom / ChiSquaredQuantile(0.3, known.freedom));
    return RepeatsToTell(known, 1, {});
  };
  ASSERT_TRUE(repeats(999'999.5));
  EXPECT_GE(*repeats(999'999.5), 1'000'000);
  EXPECT_LE(*repeats(999'999.5), 1'000'002);
  EXPECT_FALSE(repeats(1'000'000.5));
}

TEST(VerdictTest, ADifferenceIsInPercentOfTheFirstSide) {
  RatioEstimate estimate;
  estimate.ratio = 1.25;
  estimate.low = 0.5;
  estimate.high = 3;
  const DifferencePercent difference = PercentOf(estimate);
  EXPECT_DOUBLE_EQ(difference.value, 25);
  EXPECT_DOUBLE_EQ(difference.low, -50);
  EXPECT_DOUBLE_EQ(difference.high, 200);
}

TEST(VerdictTest, DependsOnTheIntervalAndTheTolerance) {
  const auto judge = [](double value, double low, double high) {
    return JudgeDifference({value, low, high}, false, 2);
  };
  EXPECT_EQ(judge(-5, -7, -3), Verdict::kWorse);
  EXPECT_EQ(judge(-2.5, -4.9, -0.1), Verdict::kWorse);
  EXPECT_EQ(judge(-2.5, -5.1, 0.1), Verdict::kCannotTell) << "the interval holds 0";
  EXPECT_EQ(judge(-1.5, -2.5, -0.5), Verdict::kCannotTell) << "within the tolerance, or beyond it";
  EXPECT_EQ(judge(-1, -1.9, -0.1), Verdict::kNoDifference) << "shown, but below the tolerance";
  EXPECT_EQ(judge(0.1, -1.9, 1.9), Verdict::kNoDifference);
  EXPECT_EQ(judge(0.1, -1.9, 2.1), Verdict::kCannotTell);
  EXPECT_EQ(judge(2.1, 0.1, 4.1), Verdict::kBetter);
  EXPECT_EQ(judge(5, -1, 11), Verdict::kCannotTell);
}

TEST(VerdictTest, ALatencyIsWorseWhenItIsHigher) {
  EXPECT_EQ(JudgeDifference({5, 3, 7}, true, 2), Verdict::kWorse);
  EXPECT_EQ(JudgeDifference({-5, -7, -3}, true, 2), Verdict::kBetter);
  EXPECT_TRUE(IsShownNotWorse({-1, -5, 1.9}, true, 2));
  EXPECT_FALSE(IsShownNotWorse({-1, -5, 2.1}, true, 2));
  EXPECT_TRUE(IsShownNotWorse({3, -1.9, 8}, false, 2));
  EXPECT_FALSE(IsShownNotWorse({3, -2.1, 8}, false, 2));
}

TEST(VerdictTest, AtItsLimits) {
  for (const bool lowerIsBetter : {false, true}) {
    const auto judge = [lowerIsBetter](double value, double low, double high) {
      return lowerIsBetter ? JudgeDifference({-value, -high, -low}, true, 2)
                           : JudgeDifference({value, low, high}, false, 2);
    };
    EXPECT_EQ(judge(0, -2, 2), Verdict::kNoDifference);
    EXPECT_EQ(judge(3, 0, 6), Verdict::kCannotTell) << "the interval holds 0";
    EXPECT_EQ(judge(-3, -6, 0), Verdict::kCannotTell);
    EXPECT_EQ(judge(2, 1, 3), Verdict::kCannotTell) << "not above the tolerance";
    EXPECT_EQ(judge(-2, -3, -1), Verdict::kCannotTell);
    EXPECT_EQ(judge(2.1, 0.1, 4.1), Verdict::kBetter);
    EXPECT_EQ(judge(-2.1, -4.1, -0.1), Verdict::kWorse);
  }
  EXPECT_TRUE(IsShownNotWorse({-1, -2, 0}, false, 2));
}

TEST(VerdictTest, WithoutATolerance) {
  EXPECT_EQ(JudgeDifference({0, 0, 0}, false, 0), Verdict::kNoDifference);
  EXPECT_EQ(JudgeDifference({-0.1, -0.2, -0.05}, false, 0), Verdict::kWorse);
  EXPECT_EQ(JudgeDifference({-0.1, -0.2, 0.05}, false, 0), Verdict::kCannotTell);
}

// 1.25 x 1.6 = 2.
TEST(ShareTest, IsThatOfTheLogarithms) {
  const auto share = EstimateShare({100, 100}, {80, 80}, {50, 50}, 0.05);
  ASSERT_TRUE(share);
  EXPECT_NEAR(share->share, std::log(1.6) / std::log(2), 1e-12);
  EXPECT_NEAR(share->low, share->share, 1e-9) << "nothing scatters";
  EXPECT_NEAR(share->high, share->share, 1e-9);
  EXPECT_NEAR(EstimateShare({100, 101}, {50, 50.5}, {50, 50.5}, 0.05)->share, 0, 1e-12);
  EXPECT_FALSE(EstimateShare({100, 101}, {100, 101}, {100.5, 101}, 0.05)) << "the change may be 0";
  EXPECT_FALSE(EstimateShare({100, 100}, {80, 80}, {100, 100}, 0.05));
  EXPECT_THROW((void)EstimateShare({100}, {80, 80}, {50, 50}, 0.05), std::invalid_argument);
}

// From the formulas, with 30 digits.
TEST(ShareTest, ItsIntervalIsThatOfFiellersTheorem) {
  const auto isNear = [](const std::optional<ShareEstimate>& share, double value, double low, double high) {
    ASSERT_TRUE(share);
    EXPECT_NEAR(share->share, value, 1e-9);
    EXPECT_NEAR(share->low, low, 1e-9);
    EXPECT_NEAR(share->high, high, 1e-9);
  };
  const std::vector<double> a = {100, 101, 99};
  const std::vector<double> between = {80, 81, 79, 80.5};
  const std::vector<double> b = {50, 53, 51, 52, 50.5};
  isNear(EstimateShare(a, between, b, 0.05), 0.66810970320034251, 0.64030427763338701, 0.69552967724317257);
  isNear(EstimateShare(a, between, b, 0.5), 0.66810970320034251, 0.66006835212857343, 0.67611849540909978);
  // Only the values between scatter: t has their 4 degrees of freedom.
  isNear(EstimateShare({100, 100}, {78, 79, 80, 81, 82}, {50, 50}, 0.05), 0.67784642411115971,
         0.64243466900244402, 0.7132581792198754);
}

TEST(ShareTest, IsAPointWithoutScatterHoweverItIsRounded) {
  for (const double between : {0.5, 0.6, 0.7, 0.75, 0.8, 0.85, 0.9}) {
    const auto share = EstimateShare({1, 1}, {between, between}, {0.4, 0.4}, 0.05);
    ASSERT_TRUE(share) << between;
    EXPECT_NEAR(share->low, share->share, 1e-7) << between;
    EXPECT_NEAR(share->high, share->share, 1e-7) << between;
  }
}

TEST(ShareTest, ItsIntervalMissesInOneOfTwenty) {
  NormalValues values(1);
  const auto draw = [&values](double mean) {
    std::vector<double> drawn;
    for (int i = 0; i < 4; ++i) drawn.push_back(std::exp(mean + 0.05 * values.Normal()));
    return drawn;
  };
  int missed = 0;
  int shown = 0;
  for (int i = 0; i < 4000; ++i) {
    // A quarter of the change is the second step.
    const auto share = EstimateShare(draw(0.4), draw(0.1), draw(0), 0.05);
    if (!share) continue;
    ++shown;
    EXPECT_LE(share->low, share->share);
    EXPECT_GE(share->high, share->share);
    if (share->low > 0.25 || share->high < 0.25) ++missed;
  }
  EXPECT_GT(shown, 3900);
  EXPECT_LT(missed, shown * 0.06);
  EXPECT_GT(missed, shown * 0.025);
}

}  // namespace
