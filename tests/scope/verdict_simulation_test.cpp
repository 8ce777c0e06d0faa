// SPDX-License-Identifier: Apache-2.0

// How often the verdicts are right, over simulated comparisons with a known truth. Prints the table that
// docs/verdicts.md shows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "compare_values.h"
#include "experiment_plan.h"
#include "simulated_runs.h"

namespace {

using namespace scope;

// Of each row. VERDICT_COMPARISONS sets another number, to know the shares more exactly.
int Comparisons() {
  const char* const given = std::getenv("VERDICT_COMPARISONS");
  return given != nullptr ? std::max(10, std::atoi(given)) : 400;
}
const int kComparisons = Comparisons();
constexpr double kTolerancePercent = 2;
constexpr double kSlower = 0.95;
// The most that real runs have scattered.
constexpr SimulatedScatter kGreatScatter = {0.11};

// The greatest share that a true share of `goal` exceeds in one of 1000 simulations: the normal approximation
// with 3.1 standard errors, and one case more.
double AtMost(double goal, int cases) {
  return goal + 3.1 * std::sqrt(goal * (1 - goal) / cases) + 1.0 / cases;
}

double NotBelow(double goal, int cases) {
  return 1 - AtMost(1 - goal, cases);
}

CompareOptions Options() {
  CompareOptions options;
  options.tolerancePercent = kTolerancePercent;
  return options;
}

// Counts of what comparisons said.
struct Tally {
  int comparisons = 0;
  int falseVerdicts = 0;  ///< some figure better or worse that is not, or no difference in one that differs
  int answeredWorse = 0;  ///< exit status 1
  int answeredClear = 0;  ///< exit status 0
  int overlooked = 0;     ///< no difference in a figure that is 5 % slower
  int seen = 0;           ///< worse for the figure that is 5 % slower

  double Share(int count) const { return static_cast<double>(count) / std::max(1, comparisons); }
};

// `slower`: the first engine of B is 5 % slower.
void Count(const Comparison& comparison, bool slower, Tally& tally) {
  bool isFalse = false;
  for (const ComparedFigure& figure : comparison.figures) {
    if (figure.verdict == Verdict::kNotJudged) continue;
    const bool isSlowEngine = slower && figure.key.engine == "cpu";
    // The total of several engines is 3 to 4 % slower then.
    const bool isSlower = isSlowEngine || (slower && figure.key.engine == kAllEngines);
    if (figure.verdict == Verdict::kBetter) isFalse = true;
    if (figure.verdict == Verdict::kWorse && !isSlower) isFalse = true;
    if (figure.verdict == Verdict::kNoDifference && isSlower) isFalse = true;
    if (isSlowEngine && figure.verdict == Verdict::kNoDifference) ++tally.overlooked;
    if (isSlowEngine && figure.verdict == Verdict::kWorse) ++tally.seen;
  }
  ++tally.comparisons;
  tally.falseVerdicts += isFalse ? 1 : 0;
  tally.answeredWorse += comparison.answer == Answer::kWorse ? 1 : 0;
  tally.answeredClear +=
      comparison.answer != Answer::kWorse && comparison.answer != Answer::kCannotTell ? 1 : 0;
}

std::vector<double> Factors(int engines, bool slower, double all = 1) {
  std::vector<double> factors(static_cast<std::size_t>(engines), all);
  if (slower) factors.front() *= kSlower;
  return factors;
}

Tally Simulate(int engines, int repeats, bool slower, const SimulatedScatter& scatterOfA = {},
               const SimulatedScatter& scatterOfB = {}) {
  SimulatedRuns runs(static_cast<std::uint64_t>(engines * 1000 + repeats * 10 + (slower ? 1 : 0)));
  Tally tally;
  for (int i = 0; i < kComparisons; ++i) {
    const auto a = runs.Side(repeats, Factors(engines, false), scatterOfA);
    const auto b = runs.Side(repeats, Factors(engines, slower), scatterOfB);
    Count(CompareValues(a, b, Options()), slower, tally);
  }
  return tally;
}

void PrintRow(const char* what, int engines, int repeats, const Tally& tally) {
  std::printf("| %-26s | %7d | %7d | %5.1f %% | %6.1f %% | %6.1f %% | %6.1f %% | %5.1f %% |\n", what, engines,
              repeats, 100 * tally.Share(tally.falseVerdicts), 100 * tally.Share(tally.answeredWorse),
              100 * tally.Share(tally.answeredClear), 100 * tally.Share(tally.overlooked),
              100 * tally.Share(tally.seen));
}

void PrintHead() {
  std::printf(
      "| B                          | engines | repeats | false   | status 1 | status 0 | overlooked | seen "
      "|\n"
      "|---|---|---|---|---|---|---|---|\n");
}

TEST(VerdictSimulation, TheTotalOfSeveralEnginesIsThreeToFourPercentSlower) {
  const FigureKey total = {kAllEngines, Figure::kBandwidth};
  for (const int engines : {2, 3, 4}) {
    SimulatedRuns runs(1);
    const double a = runs.Run(Factors(engines, false), {0, 0, 0}).at(total);
    const double b = runs.Run(Factors(engines, true), {0, 0, 0}).at(total);
    EXPECT_GT(b / a, 0.96) << engines;
    EXPECT_LT(b / a, 0.97) << engines;
  }
}

TEST(VerdictSimulation, NoDifferenceInASlowerFigureIsFalse) {
  for (const char* engine : {"cpu", kAllEngines, "venc"}) {
    Comparison comparison;
    comparison.figures.emplace_back();
    comparison.figures.back().key.engine = engine;
    comparison.figures.back().verdict = Verdict::kNoDifference;
    Tally tally;
    Count(comparison, true, tally);
    EXPECT_EQ(tally.falseVerdicts, engine == std::string("venc") ? 0 : 1) << engine;
    EXPECT_EQ(tally.overlooked, engine == std::string("cpu") ? 1 : 0) << engine;
  }
}

TEST(VerdictSimulation, SidesThatDoNotDiffer) {
  PrintHead();
  Tally all;
  for (const int engines : {1, 2, 3, 4}) {
    for (const int repeats : {2, 4, 8, 16}) {
      const Tally tally = Simulate(engines, repeats, false);
      PrintRow("as A", engines, repeats, tally);
      EXPECT_LE(tally.Share(tally.falseVerdicts), AtMost(0.05, tally.comparisons));
      EXPECT_LE(tally.Share(tally.answeredWorse), AtMost(0.05, tally.comparisons));
      all.comparisons += tally.comparisons;
      all.falseVerdicts += tally.falseVerdicts;
      all.answeredWorse += tally.answeredWorse;
    }
  }
  EXPECT_LE(all.Share(all.falseVerdicts), AtMost(0.05, all.comparisons));
}

TEST(VerdictSimulation, OneEngineIsSlower) {
  PrintHead();
  for (const int engines : {1, 2, 3, 4}) {
    for (const int repeats : {2, 4, 8, 16}) {
      const Tally tally = Simulate(engines, repeats, true);
      PrintRow("one engine 5 % slower", engines, repeats, tally);
      EXPECT_LE(tally.Share(tally.falseVerdicts), AtMost(0.05, tally.comparisons));
      EXPECT_LE(tally.Share(tally.overlooked), AtMost(0.05, tally.comparisons));
    }
  }
}

TEST(VerdictSimulation, BScattersTwiceAsMuch) {
  SimulatedScatter twice;
  twice.runs *= 2;
  PrintHead();
  for (const int repeats : {2, 4, 8, 16}) {
    const Tally tally = Simulate(4, repeats, false, {}, twice);
    PrintRow("as A, twice the scatter", 4, repeats, tally);
    EXPECT_LE(tally.Share(tally.falseVerdicts), AtMost(0.05, tally.comparisons));
    EXPECT_LE(tally.Share(tally.answeredWorse), AtMost(0.05, tally.comparisons));
  }
}

TEST(VerdictSimulation, BothSidesScatterByElevenPercent) {
  PrintHead();
  for (const bool slower : {false, true}) {
    for (const int engines : {1, 4}) {
      for (const int repeats : {2, 4, 8, 16}) {
        const Tally tally = Simulate(engines, repeats, slower, kGreatScatter, kGreatScatter);
        PrintRow(slower ? "one engine 5 % slower" : "as A", engines, repeats, tally);
        EXPECT_LE(tally.Share(tally.falseVerdicts), AtMost(0.05, tally.comparisons));
        EXPECT_LE(tally.Share(tally.overlooked), AtMost(0.05, tally.comparisons));
        if (!slower) EXPECT_LE(tally.Share(tally.answeredWorse), AtMost(0.05, tally.comparisons));
      }
    }
  }
}

TEST(VerdictSimulation, OneRunASideGivesNoVerdict) {
  for (const bool slower : {false, true}) {
    const Tally tally = Simulate(4, 1, slower);
    EXPECT_EQ(tally.falseVerdicts + tally.answeredWorse + tally.answeredClear + tally.seen, 0);
  }
}

// Records as many repeats as the comparison of `pilot` repeats asked for, if it could not tell.
Tally FollowAdvice(int engines, int pilot, bool slower, const SimulatedScatter& scatter, int comparisons,
                   double& meanRepeats) {
  SimulatedRuns runs(static_cast<std::uint64_t>(500'000 + engines * 1000 + pilot * 10 + (slower ? 1 : 0)));
  Tally tally;
  double repeats = 0;
  for (int i = 0; i < comparisons; ++i) {
    Comparison comparison;
    // Pilots that can tell alone are no question for the advice.
    do {
      comparison = CompareValues(runs.Side(pilot, Factors(engines, false), scatter),
                                 runs.Side(pilot, Factors(engines, slower), scatter), Options());
    } while (comparison.answer != Answer::kCannotTell);
    const int wanted = comparison.repeats.value();
    repeats += wanted;
    const auto a = runs.Side(wanted, Factors(engines, false), scatter);
    const auto b = runs.Side(wanted, Factors(engines, slower), scatter);
    Count(CompareValues(a, b, Options()), slower, tally);
  }
  meanRepeats = repeats / comparisons;
  return tally;
}

void CheckAdvice(const std::vector<std::pair<int, int>>& enginesAndPilots, const SimulatedScatter& scatter,
                 int comparisons) {
  PrintHead();
  for (const auto& [engines, pilot] : enginesAndPilots) {
    for (const bool slower : {false, true}) {
      double repeats = 0;
      const Tally tally = FollowAdvice(engines, pilot, slower, scatter, comparisons, repeats);
      PrintRow(slower ? "one engine 5 % slower" : "as A", engines, static_cast<int>(std::lround(repeats)),
               tally);
      EXPECT_LE(tally.Share(tally.falseVerdicts), AtMost(0.05, tally.comparisons));
      if (!slower) EXPECT_LE(tally.Share(tally.answeredWorse), AtMost(0.05, tally.comparisons)) << engines;
      const int told = slower ? tally.seen : tally.answeredClear;
      EXPECT_GE(tally.Share(told), NotBelow(0.8, tally.comparisons)) << engines << " engines, from " << pilot;
    }
  }
}

TEST(VerdictSimulation, TheRepeatsThatItAsksForAreEnough) {
  CheckAdvice({{1, 2}, {1, 4}, {2, 4}, {3, 4}, {4, 4}, {4, 8}}, {}, kComparisons / 2);
}

// It asks for a thousand runs.
TEST(VerdictSimulation, TheRepeatsThatItAsksForAreEnoughIfBothSidesScatterByElevenPercent) {
  CheckAdvice({{1, 4}, {2, 4}}, kGreatScatter, kComparisons / 8);
}

// Records both sides until the answer is clear, as the program's experiments do.
// `drift`: how much the machine changes from pair to pair, for all engines alike.
Tally SimulateExperiments(int engines, bool slower, double drift, const SimulatedScatter& scatter,
                          double& meanRepeats) {
  SimulatedRuns runs(static_cast<std::uint64_t>(900'000 + engines * 10 + (slower ? 1 : 0)));
  const ExperimentSettings settings;
  const CompareOptions options = LookOptions(settings);
  Tally tally;
  std::size_t repeats = 0;
  for (int i = 0; i < kComparisons; ++i) {
    std::vector<RunValues> a;
    std::vector<RunValues> b;
    Comparison comparison;
    for (const std::size_t look : LooksOf(static_cast<std::size_t>(settings.mostRuns / 2))) {
      while (a.size() < look) {
        const double pair = runs.Factor(drift);
        a.push_back(runs.Run(Factors(engines, false, pair), scatter));
        b.push_back(runs.Run(Factors(engines, slower, pair), scatter));
      }
      comparison = CompareValues(a, b, options);
      if (IsClear(comparison.answer)) break;
    }
    repeats += a.size();
    Count(comparison, slower, tally);
  }
  meanRepeats = static_cast<double>(repeats) / kComparisons;
  return tally;
}

// `least`: the share of the cases in which the slower engine is to be seen, if the runs are to be enough.
void CheckExperiments(const std::vector<int>& numbersOfEngines, double drift, std::optional<double> least,
                      const SimulatedScatter& scatter = {}) {
  PrintHead();
  for (const int engines : numbersOfEngines) {
    for (const bool slower : {false, true}) {
      double repeats = 0;
      const Tally tally = SimulateExperiments(engines, slower, drift, scatter, repeats);
      PrintRow(slower ? "one engine 5 % slower" : "as A", engines, static_cast<int>(std::lround(repeats)),
               tally);
      EXPECT_LE(tally.Share(tally.falseVerdicts), AtMost(0.05, tally.comparisons));
      EXPECT_LE(tally.Share(tally.overlooked), AtMost(0.05, tally.comparisons));
      if (slower && least) EXPECT_GE(tally.Share(tally.seen), NotBelow(*least, tally.comparisons)) << engines;
      if (!slower) EXPECT_LE(tally.Share(tally.answeredWorse), AtMost(0.05, tally.comparisons)) << engines;
    }
  }
}

TEST(VerdictSimulation, ExperimentsThatStopWhenTheAnswerIsClear) {
  CheckExperiments({1, 2, 3, 4}, 0, 0.8);
}

TEST(VerdictSimulation, ExperimentsOnAMachineThatChanges) {
  CheckExperiments({1, 4}, 0.1, 0.8);
}

// 64 runs are not enough then, which the program says.
TEST(VerdictSimulation, ExperimentsWhoseRunsScatterByElevenPercent) {
  CheckExperiments({1, 4}, 0, std::nullopt, kGreatScatter);
}

}  // namespace
