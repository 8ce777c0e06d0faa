// SPDX-License-Identifier: Apache-2.0

// Curves of latency over bandwidth: their plan, what they say of made-up runs, their folder, and the program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <random>
#include <set>

#include "control.h"
#include "curve_compare.h"
#include "curve_fit.h"
#include "curve_plan.h"
#include "curve_table.h"
#include "error_of.h"
#include "latency_texts.h"
#include "made_curve.h"
#include "on_one_cpu.h"
#include "page_json.h"
#include "run_reader.h"
#include "run_tool.h"
#include "system_files.h"
#include "temporary_folder.h"

namespace {

using made_curve::Queue;
using made_curve::Value;
using nlohmann::json;
using ::testing::AllOf;
using ::testing::DoubleEq;
using ::testing::DoubleNear;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using ::testing::StartsWith;
using namespace scope;

TEST(CurvePlanTest, ReadsMixes) {
  EXPECT_THAT(ParseMix("CPU"), ElementsAre(Pair("CPU", 1)));
  EXPECT_THAT(ParseMix("CPU,VPC:2"), ElementsAre(Pair("CPU", 1), Pair("VPC", 2)));
  EXPECT_EQ(MixText({{"CPU", 1}, {"AIC", 0}, {"VPC", 2}}), "CPU,VPC:2");
  const auto error = [](const char* text) { return ErrorOf([text] { (void)ParseMix(text); }); };
  EXPECT_THAT(error("GPU"), AllOf(HasSubstr("--mix GPU"), HasSubstr("expected CPU, VPC, VENC or AIC")));
  EXPECT_THAT(error("CPU,"), HasSubstr("as in CPU,VPC:2"));
  EXPECT_THAT(error("CPU:"), HasSubstr("found \"\""));
  EXPECT_THAT(error("CPU:11"), HasSubstr("found \"11\""));
  EXPECT_THAT(error("CPU:1..2"), HasSubstr("expected one level"));
  EXPECT_THAT(error("CPU:0"), HasSubstr("shares from 1, found 0"));
  EXPECT_THAT(error("CPU,VPC,CPU:2"), HasSubstr("CPU is given twice"));
}

TEST(CurvePlanTest, TheGreatestLoadHasFiveThreadsForEachCpu) {
  SweepLevels mix = {{"CPU", 4}, {"VPC", 2}};
  EXPECT_EQ(ReduceMix(mix), 2);
  EXPECT_THAT(mix, ElementsAre(Pair("CPU", 2), Pair("VPC", 1)));
  EXPECT_EQ(UsualMost(mix, 1), 2);
  EXPECT_EQ(UsualMost(mix, 2), 4);
  EXPECT_EQ(UsualMost({{"CPU", 5}, {"VPC", 5}}, 1), 1);
  EXPECT_EQ(UsualMost({{"AIC", 1}}, 2), 4) << "each loads a file";
  EXPECT_EQ(UsualMost({{"AIC", 3}, {"CPU", 1}}, 1), 1);
  EXPECT_EQ(UsualMost({{"CPU", 1}, {"AIC", 0}}, 2), 10);
  EXPECT_EQ(GreatestMost(mix), 5);
  EXPECT_EQ(UsualMost(mix, 64), 5) << "no more than levels allow";
}

// Between whole levels the threads of the next one work a share of the time.
TEST(CurvePlanTest, StepsTheLoadEvenly) {
  Curve curve;
  curve.mix = {{"CPU", 1}, {"VPC", 2}, {"AIC", 0}};
  curve.most = 2;
  curve.points = 9;
  EXPECT_THAT(LevelsOf(curve, 0).first, ElementsAre(Pair("CPU", 0), Pair("VPC", 0), Pair("AIC", 0)));
  EXPECT_THAT(LevelsOf(curve, 1).first, ElementsAre(Pair("CPU", 1), Pair("VPC", 2), Pair("AIC", 0)));
  EXPECT_THAT(LevelsOf(curve, 8).first, ElementsAre(Pair("CPU", 2), Pair("VPC", 4), Pair("AIC", 0)));
  std::vector<double> loads;
  for (int point = 0; point < curve.points; ++point) {
    const auto [levels, duty] = LevelsOf(curve, point);
    loads.push_back(levels[0].second * duty / 100);
  }
  EXPECT_THAT(loads, ElementsAre(0, 0.25, 0.5, 0.75, 1, 1.25, 1.5, 1.75, 2));
  EXPECT_EQ(LevelsOf(curve, 0).second, 100);
  EXPECT_EQ(LevelsOf(curve, 5).second, 62.5);
}

TEST(CurvePlanTest, EachRepeatIsAWholeCurveInRandomOrder) {
  Curve curve;
  curve.mix = {{"CPU", 1}};
  curve.sweep.settings.repeats = 3;
  curve.sweep.settings.seed = 5;
  PlanRunsOf(curve);
  const std::vector<SweepRun>& runs = curve.sweep.runs;
  ASSERT_EQ(runs.size(), 30U);
  std::vector<double> first(10);
  for (std::size_t i = 0; i < runs.size(); ++i) {
    EXPECT_EQ((runs[i].order - 1) / 10 + 1, runs[i].repeat);
    EXPECT_EQ(std::pair(runs[i].levels, runs[i].dutyPercent), LevelsOf(curve, static_cast<int>(i) / 3));
    if (runs[i].repeat == 1)
      first[static_cast<std::size_t>(runs[i].order) - 1] = LoadOf(curve, static_cast<int>(i) / 3);
  }
  EXPECT_FALSE(std::is_sorted(first.begin(), first.end()));
  EXPECT_EQ(std::set<double>(first.begin(), first.end()).size(), 10U);
}

TEST(CurveFitTest, EvensOutWhatFalls) {
  EXPECT_THAT(Rising({1, 2, 3}), ElementsAre(1, 2, 3));
  EXPECT_THAT(Rising({1, 4, 2, 6}), ElementsAre(1, 3, 3, 6));
  EXPECT_THAT(Rising({3, 2, 1}), ElementsAre(2, 2, 2));
  EXPECT_THAT(Rising({5, 1, 1, 1, 9, 8}), ElementsAre(2, 2, 2, 2, 8.5, 8.5));
}

TEST(CurveFitTest, TheKneeIsWhereTheLatencyIsHalfAsMuchAgain) {
  // 150 is a third of the way from 140 to 170.
  EXPECT_THAT(*KneeOf(FitCurve({0, 5, 8}, {100, 140, 170})), DoubleEq(6));
  EXPECT_THAT(*KneeOf(FitCurve({0, 5, 8}, {100, 150, 170})), DoubleEq(5));
  EXPECT_THAT(*KneeOf(FitCurve({0, 8, 8}, {100, 140, 400})), DoubleEq(8)) << "the latency rises alone";
  EXPECT_FALSE(KneeOf(FitCurve({0, 5, 8}, {100, 120, 149})));
  EXPECT_THAT(*LatencyAtBandwidth(FitCurve({0, 5, 8}, {100, 140, 170}), 2.5), DoubleEq(120));
  EXPECT_THAT(*LatencyAtBandwidth(FitCurve({0, 8, 8}, {100, 140, 400}), 8), DoubleEq(140));
  EXPECT_FALSE(LatencyAtBandwidth(FitCurve({0, 5, 8}, {100, 140, 170}), 8.1));
  EXPECT_THROW((void)FitCurve({0}, {100}), std::invalid_argument);
}

class CurveTest : public ::testing::Test {
 protected:
  // Latencies scatter by some per cent, bandwidths by one.
  static made_curve::Machine Scattering(std::uint64_t seed, double latencyFactor = 1, double percent = 2) {
    auto random = std::make_shared<std::mt19937_64>(seed);
    return [random, latencyFactor, percent](double load, int repeat) {
      // Not std::normal_distribution: its values differ between libraries.
      const auto draw = [&] {
        double sum = 0;
        for (int i = 0; i < 12; ++i) sum += static_cast<double>((*random)() >> 11) * 0x1p-53;
        return sum - 6;
      };
      Value value = Queue(load, repeat);
      value.p50Ns *= latencyFactor * (1 + percent / 100 * draw());
      value.gigabytesPerS *= 1 + 0.01 * draw();
      return value;
    };
  }

  TemporaryFolder folder_;
};

TEST_F(CurveTest, SaysIdleKneeAndSaturation) {
  made_curve::Write(folder_ / "curve", Queue, 2);
  const CurveTable table = ReadCurveTable(folder_ / "curve");
  ASSERT_EQ(table.points.size(), 10U);
  EXPECT_EQ(table.points[0].name, "idle");
  EXPECT_EQ(table.points[3].name, "CPU=1 at 33.3 %");
  EXPECT_EQ(table.points[9].name, "CPU=1");
  const auto figures = FiguresOf(table);
  ASSERT_TRUE(figures);
  EXPECT_THAT(figures->idleNs.value, DoubleNear(100, 1e-9)) << "without the warm-up";
  EXPECT_THAT(*figures->idleNs.low, DoubleNear(100, 1e-9)) << "no scatter";
  EXPECT_THAT(figures->mostGigabytesPerS.values, ElementsAre(DoubleEq(10), DoubleEq(10)));
  // 20 u / (1.02 - u) is 50 at u = 0.7286.
  ASSERT_TRUE(figures->knee);
  EXPECT_NEAR(figures->knee->value, 7.286, 0.3) << "on lines between ten points";
  EXPECT_TRUE(figures->saturation.reached);
  EXPECT_EQ(figures->saturation.lowest, 8U);
  EXPECT_THAT(
      CurveSentences(table, *figures),
      ElementsAre(
          "Idle latency: 100.0 ns (100.0 to 100.0). Its mean, which other tools show: "
          "110.0 ns (110.0 to 110.0).",
          HasSubstr("Knee: 7."), "Most bandwidth: 10.00 GB/s (10.00 to 10.00) at CPU=1 at 88.9 %.",
          AllOf(HasSubstr("CPU=1 at 88.9 % is the least load within 5 %"), HasSubstr("p99 2200.0 ns")),
          HasSubstr("1 MiB 9 ns, 256 MiB 100 ns")));
  EXPECT_THAT(table.notes, IsEmpty());
}

// Five curves in a row on a machine whose latencies scatter by 2 %.
TEST_F(CurveTest, TheKneeIsTheSameInFiveCurves) {
  std::vector<double> knees;
  for (std::uint64_t seed = 1; seed <= 5; ++seed) {
    const auto figures = FiguresOf(made_curve::Table(Scattering(seed)));
    ASSERT_TRUE(figures && figures->knee);
    EXPECT_LT(*figures->knee->low, *figures->knee->high);
    knees.push_back(figures->knee->value);
  }
  const auto [least, most] = std::minmax_element(knees.begin(), knees.end());
  EXPECT_NE(*least, *most);
  EXPECT_LT(*most / *least, 1.1);
}

TEST_F(CurveTest, SaysWhatItDoesNotReach) {
  const CurveTable table =
      made_curve::Table([](double load, int) { return Value{4 * load, 100 + 10 * load}; });
  const auto figures = FiguresOf(table);
  ASSERT_TRUE(figures);
  EXPECT_FALSE(figures->knee);
  EXPECT_EQ(figures->withoutKnee, 3U);
  EXPECT_FALSE(figures->saturation.reached);
  EXPECT_THAT(CurveSentences(table, *figures),
              ElementsAre(HasSubstr("Idle"),
                          "No knee: in 3 of 3 repeats the latency stays below 1.5 times that at idle.",
                          HasSubstr("at point 9."), HasSubstr("Try --most with a greater number.")));
  CurveTable greatest = table;
  greatest.curve.most = 10;
  EXPECT_THAT(CurveSentences(greatest, *figures)[3],
              AllOf(HasSubstr("Saturation is not reached"),
                    HasSubstr("Levels allow no more of this mix: add an engine with --mix.")));
}

// Where bandwidth stands still and latency rises, the best point is an early one only by chance.
TEST_F(CurveTest, APlateauIsPartOfTheCurve) {
  const CurveTable table = made_curve::Table([](double load, int) {
    return load < 0.5 ? Value{20 * load, 100} : Value{10.2 - 0.4 * load, 100 + 200 * (load - 0.5)};
  });
  const auto figures = FiguresOf(table);
  ASSERT_TRUE(figures);
  EXPECT_EQ(figures->saturation.best, 5U);
  EXPECT_EQ(figures->saturation.last, 9U);
  ASSERT_TRUE(figures->knee) << "150 ns at three quarters of the load";
  EXPECT_EQ(figures->withoutKnee, 0U);
  EXPECT_NEAR(figures->knee->value, 9.9, 0.2);
  // What falls behind the plateau is no part of it.
  const CurveTable falling = made_curve::Table(
      [](double load, int) { return load < 0.8 ? Value{10 * load, 100} : Value{6 - load, 200}; });
  EXPECT_EQ(FiguresOf(falling)->saturation.last, 7U);
  EXPECT_FALSE(FiguresOf(falling)->knee);
}

// The median of the eighth point's bandwidths is the greatest, its mean is not.
TEST_F(CurveTest, TheBestPointHasTheGreatestOfTheValuesThatAreShown) {
  const CurveTable table = made_curve::Table([](double load, int repeat) {
    const bool isEighth = std::abs(load - 8.0 / 9) < 1e-9;
    return Value{isEighth ? (repeat == 3 ? 5 : 10) : 9 * load, 100};
  });
  const auto figures = FiguresOf(table);
  ASSERT_TRUE(figures);
  EXPECT_EQ(figures->saturation.best, 9U);
  EXPECT_FALSE(figures->saturation.reached);
  EXPECT_DOUBLE_EQ(figures->mostGigabytesPerS.value,
                   EstimateAt(table.points[9], &CurveValue::gigabytesPerS)->value);
}

TEST_F(CurveTest, SaysHowManyRepeatsHaveAKnee) {
  const auto table = made_curve::Table([](double load, int repeat) {
    return repeat == 2 ? Value{10 * load, 100 + 40 * load} : Queue(load, repeat);
  });
  const auto figures = FiguresOf(table);
  ASSERT_TRUE(figures && figures->knee);
  EXPECT_EQ(figures->knee->values.size(), 2U);
  EXPECT_EQ(figures->withoutKnee, 1U);
  EXPECT_FALSE(figures->knee->low) << "of those that have one";
  EXPECT_THAT(
      CurveSentences(table, *figures)[1],
      AllOf(HasSubstr("Knee: 7."), HasSubstr("That is of 2 of 3 repeats: in the others the latency")));
  const Comparison comparison = CompareCurves(made_curve::Table(Queue), table, {});
  EXPECT_THAT(comparison.notes, ElementsAre(HasSubstr("B has no knee in 1 of 3 repeats")));
}

// One that is slow at a single load, as on a machine that others use, too.
TEST_F(CurveTest, AKneeOfHalfTheRepeatsIsNone) {
  const auto withKnees = [](int knees) {
    return made_curve::Table(
        [knees](double load, int repeat) {
          return repeat <= knees ? Queue(load, repeat) : Value{10 * load, 100 + 40 * load};
        },
        4);
  };
  const CurveTable half = withKnees(2);
  const auto figures = FiguresOf(half);
  ASSERT_TRUE(figures);
  EXPECT_FALSE(figures->knee);
  EXPECT_EQ(figures->withoutKnee, 2U);
  EXPECT_EQ(CurveSentences(half, *figures)[1],
            "No knee: in 2 of 4 repeats the latency stays below 1.5 times that at idle. "
            "A knee has to be in more than half of the repeats.");
  EXPECT_TRUE(FiguresOf(withKnees(3))->knee);
}

TEST_F(CurveTest, TheLongestAccessIsOfTheSameSecondsAndOfAllRepeats) {
  scope::Run run = made_curve::Run({0, 100});
  for (LatencySecond& second : run.latency) second.timeS += 0.2;
  run.latency[0].maxNs = 1'000'000;  // from 0.2 to 1.2 s: most of it is the warm-up
  run.latency[1].maxNs = 5000;
  for (const std::size_t second : {2U, 3U}) {
    run.latency[second].accesses = 0;  // all of its bursts were interrupted
    run.latency[second].meanNs = 0;
  }
  const CurveValue value = *CurveValueOf(run, Summarise(run), 1);
  EXPECT_EQ(value.maxNs, 5000);
  EXPECT_EQ(value.p50Ns, 100);
  EXPECT_DOUBLE_EQ(value.meanNs, 110);
  EXPECT_EQ(value.bursts, 24U) << "without the last second, which may be shorter";
  EXPECT_EQ(value.interrupted, 1U);
  const CurveTable table =
      made_curve::Table([](double load, int repeat) { return Value{load, 100.0 * repeat}; });
  EXPECT_EQ(LongestAt(table.points[3]), 1200) << "four times 300";
}

TEST_F(CurveTest, ARepeatThatIsNotWholeIsLeftOut) {
  Curve curve = made_curve::Write(folder_ / "curve", Queue, 3);
  const auto set = [&](std::size_t run, SweepState state) {
    curve.sweep.runs[run].state = state;
    WriteCurve(folder_ / "curve", curve);
    return ReadCurveTable(folder_ / "curve");
  };
  const CurveTable less = set(13, SweepState::kInterrupted);  // point 4, repeat 2
  const auto figures = FiguresOf(less);
  ASSERT_TRUE(figures);
  EXPECT_THAT(figures->repeats, ElementsAre(0, 2));
  EXPECT_EQ(EstimateAt(less.points[4], &CurveValue::p50Ns)->values.size(), 2U);
  EXPECT_THAT(less.notes, ElementsAre("not done: 1 of 30 runs"));
  (void)set(12, SweepState::kFailed);
  const CurveTable none = set(14, SweepState::kPlanned);
  EXPECT_FALSE(FiguresOf(none));
  EXPECT_FALSE(EstimateAt(none.points[4], &CurveValue::p50Ns));
  EXPECT_THAT(ErrorOf([&] { (void)CompareCurves(none, less, {}); }),
              HasSubstr("No repeat of the curve is whole yet. Continue with: stress_scope curve --resume "));
}

TEST_F(CurveTest, ARunWithoutALatencyIsLeftOut) {
  const Curve curve = made_curve::Write(folder_ / "curve", Queue, 1);
  scope::Run run = made_curve::Run(Queue(0.5, 1));
  for (LatencySecond& second : run.latency)
    second.accesses = second.p50Ns = second.p99Ns = second.p999Ns = second.maxNs = 0;
  std::filesystem::remove_all(folder_ / ("curve/" + curve.sweep.runs[5].folder));
  made_run::Write(run, folder_ / ("curve/" + curve.sweep.runs[5].folder));
  const CurveTable table = ReadCurveTable(folder_ / "curve");
  EXPECT_FALSE(table.points[5].values[0]);
  EXPECT_THAT(table.notes, ElementsAre("1 run without a latency or a bandwidth after the warm-up: left out"));
  EXPECT_THAT(ErrorOf([&] { (void)CompareCurves(table, table, {}); }),
              HasSubstr("after the warm-up. The notes of its report say more"));
  EXPECT_THAT(CurveSentences(table, FiguresOf(table)),
              ElementsAre("No figures: no run of " + table.points[5].name +
                          " has a latency and a bandwidth after the warm-up."));
}

TEST_F(CurveTest, SaysWhyItHasNoFigures) {
  const auto sentences = [](const CurveTable& table) { return CurveSentences(table, FiguresOf(table)); };
  made_curve::Write(folder_ / "curve", Queue, 2);
  CurveTable table = ReadCurveTable(folder_ / "curve");
  ASSERT_TRUE(FiguresOf(table));
  table.points[2].values[0] = table.points[7].values[1] = std::nullopt;
  EXPECT_THAT(sentences(table),
              ElementsAre("No figures: no repeat has a latency and a bandwidth at each load."));
  table.curve.sweep.runs[3].state = SweepState::kPlanned;
  EXPECT_THAT(sentences(table), ElementsAre("No repeat of the curve is whole yet."));
  made_curve::Write(folder_ / "none", [](double, int) { return Value{0, 100}; }, 1);
  EXPECT_THAT(sentences(ReadCurveTable(folder_ / "none")),
              ElementsAre("No figures: no load has a bandwidth."));
}

TEST_F(CurveTest, SaysWhatTheProbeCouldNotHave) {
  const Curve curve = made_curve::Write(folder_ / "curve", Queue, 1);
  const auto notes = [&](const std::function<void(scope::Run&, std::size_t)>& change) {
    for (std::size_t i = 0; i < curve.sweep.runs.size(); ++i) {
      const std::string folder = folder_ / ("curve/" + curve.sweep.runs[i].folder);
      scope::Run run = made_curve::Run(Queue(LoadOf(curve, static_cast<int>(i)), 1));
      change(run, i);
      std::filesystem::remove_all(folder);
      made_run::Write(run, folder);
    }
    return ReadCurveTable(folder_ / "curve").notes;
  };
  EXPECT_THAT(notes([](scope::Run& run, std::size_t) {
                run.info.latency.cpu = -1;
                run.info.latency.cpuNote = "Operation not permitted";
              }),
              ElementsAre("latency of 10 runs: the probe had no CPU of its own: Operation not permitted"));
  const std::vector<std::string> interrupted = notes([](scope::Run& run, std::size_t i) {
    if (i == 0) return;
    run.info.latency.bursts = 32;
    run.info.latency.interrupted = i;
  });
  EXPECT_THAT(interrupted,
              ElementsAre("latency of 6 runs, worst in run-0010: 9 of 32 bursts interrupted: the load, other "
                          "programs or the host took the probe's CPU"))
      << "a tenth may be interrupted";
  // One line for each kind, whatever its texts are.
  const std::vector<std::string> both = notes([](scope::Run& run, std::size_t i) {
    if (i == 7) run.info.latency.cpu = -1;
    run.info.latency.bytes = (i + 1) << 20;
  });
  EXPECT_THAT(both,
              ElementsAre("latency of run-0008: the probe had no CPU of its own: ",
                          "latency of 10 runs, worst in run-0001: the probe went through 1 MiB, and the "
                          "largest cache has 32 MiB: some accesses may have ended there"));
}

// Each run reads the latency over parts of its memory.
TEST_F(CurveTest, ShowsHowTheReadingGrowsWithTheMemory) {
  std::vector<scope::Run> runs(3);
  for (std::size_t i = 0; i < runs.size(); ++i) {
    runs[i].info.latency.growth = {{1 << 20, 8 + i}, {1 << 28, i == 2 ? 0 : 100 + 10 * i}};
  }
  runs[0].info.latency.growth.push_back({1 << 30, 200});
  CurveTable table = made_curve::Table(Queue);
  table.growth = MedianGrowth(runs);
  EXPECT_EQ(GrowthText(table.growth), "1 MiB 9 ns, 256 MiB 105 ns")
      << "0 is no reading, one of three no size";
  EXPECT_THAT(CurveSentences(table, *FiguresOf(table)).back(),
              "Before the load, medians of all runs over parts of this memory: 1 MiB 9 ns, 256 MiB 105 ns.");
}

TEST_F(CurveTest, ComparesTwo) {
  const CurveTable a = made_curve::Table(Scattering(1, 1, 0.1), 4);
  const auto verdicts = [&](const CurveTable& b, double tolerance = 5) {
    CompareOptions options;
    options.tolerancePercent = tolerance;
    const Comparison comparison = CompareCurves(a, b, options);
    std::map<std::string, Verdict> found;
    for (const ComparedFigure& figure : comparison.figures) {
      if (figure.verdict == Verdict::kNotJudged) continue;
      const std::string& at = figure.key.engine;
      found[at.find(" GB/s") == std::string::npos ? at : "between"] = figure.verdict;
    }
    return std::pair(comparison.answer, found);
  };
  const auto same = verdicts(made_curve::Table(Scattering(2, 1, 0.1), 4));
  EXPECT_EQ(same.first, Answer::kNoDifference);
  EXPECT_EQ(same.second.size(), 4U) << "two bandwidths begin alike";
  const auto slow = verdicts(made_curve::Table(Scattering(3, 1.2, 0.1), 4));
  EXPECT_EQ(slow.first, Answer::kWorse);
  EXPECT_EQ(slow.second.at("idle"), Verdict::kWorse);
  EXPECT_EQ(slow.second.at("between"), Verdict::kWorse);
  EXPECT_EQ(slow.second.at("knee"), Verdict::kNoDifference) << "the latency is that much greater everywhere";
  EXPECT_EQ(slow.second.at("most"), Verdict::kNoDifference);
  const auto quick = verdicts(made_curve::Table(Scattering(4, 0.8, 0.1), 4));
  EXPECT_EQ(quick.first, Answer::kBetter);
}

// Tails scatter so much that a verdict on them would mostly be one of chance.
TEST_F(CurveTest, ShowsTheTailsAndTheLatencyAtSaturationAndJudgesNone) {
  CurveTable a = made_curve::Table(Scattering(1, 1, 0.1), 4);
  CurveTable b = made_curve::Table(Scattering(2, 1, 0.1), 4);
  CompareOptions options;
  options.tolerancePercent = 5;
  const auto compare = [&] {
    std::map<std::string, ComparedFigure> found;
    Comparison comparison = CompareCurves(a, b, options);
    for (const ComparedFigure& figure : comparison.figures)
      found[figure.key.engine + " " + KindOf(figure.key.figure).name] = figure;
    return std::pair(std::move(comparison), std::move(found));
  };
  const auto before = compare();
  // The tails of B are longer everywhere, its median where it saturates.
  const std::size_t saturated = FiguresOf(b)->saturation.lowest;
  for (std::size_t i = 0; i < b.points.size(); ++i) {
    for (auto& value : b.points[i].values) {
      value->p99Ns *= 10;
      value->p999Ns *= 20;
      if (i == saturated) value->p50Ns *= 3;
    }
  }
  const auto [comparison, found] = compare();
  EXPECT_EQ(before.first.judged, 5U) << "idle, two bandwidths, knee and most";
  EXPECT_EQ(comparison.judged, 5U);
  EXPECT_THAT(comparison.figureConfidence, DoubleNear(0.99, 1e-12)) << "the 5 % are of the judged figures";
  EXPECT_EQ(before.first.answer, Answer::kNoDifference);
  EXPECT_EQ(comparison.answer, Answer::kNoDifference);
  EXPECT_THAT(comparison.notes, IsEmpty());
  std::size_t shown = 0;
  for (const auto& [name, figure] : found) {
    if (figure.verdict != Verdict::kNotJudged) continue;
    ++shown;
    ASSERT_TRUE(figure.interval) << name;
    const bool isP99 = name.find("p99") != std::string::npos && name.find("p999") == std::string::npos;
    const double percent = name == "saturation p50" ? 200 : isP99 ? 900 : 1900;
    EXPECT_NEAR(*figure.differencePercent, percent, 0.03 * percent) << name;
    EXPECT_LE(figure.interval->low, *figure.differencePercent) << name;
  }
  EXPECT_EQ(shown, 9U) << "two tails at four places, and the median at saturation";
  EXPECT_THAT(*found.at("idle p99").a, DoubleNear(0.2, 0.001)) << "us";
  EXPECT_THAT(*found.at("idle p999").a, DoubleNear(0.3, 0.001));
  EXPECT_THAT(*found.at("saturation p50").a, DoubleNear(FiguresOf(a)->saturation.p50Ns.value / 1000, 1e-9));
  EXPECT_THAT(*found.at("saturation p999").b, DoubleNear(FiguresOf(b)->saturation.p999Ns.value / 1000, 1e-9));
}

// At idle a processor may sleep, and the tail falls with load. Only the median is evened out.
TEST_F(CurveTest, ATailThatFallsWithLoadIsShownAsMeasured) {
  CurveTable b = made_curve::Table(Queue, 2);
  for (auto& value : b.points[0].values) value->p99Ns = 9000;
  const Comparison comparison = CompareCurves(made_curve::Table(Queue, 2), b, {});
  std::map<std::string, double> p99;
  for (const ComparedFigure& figure : comparison.figures) {
    if (figure.key.figure == Figure::kP99) p99[figure.key.engine] = *figure.differencePercent;
  }
  EXPECT_THAT(p99,
              ElementsAre(Pair("5 GB/s", DoubleNear(0, 1e-9)), Pair("8 GB/s", DoubleNear(0, 1e-9)),
                          Pair("idle", DoubleNear(4400, 1e-6)), Pair("saturation", DoubleNear(0, 1e-9))));
}

TEST_F(CurveTest, NotesInWhatThePlansOfTwoDiffer) {
  const CurveTable a = made_curve::Table(Queue, 2);
  const auto notes = [&a](const std::function<void(Curve&)>& change) {
    CurveTable b = a;
    change(b.curve);
    const Comparison comparison = CompareCurves(a, b, {});
    EXPECT_EQ(comparison.answer, CompareCurves(a, a, {}).answer) << "a note is no verdict";
    return comparison.notes;
  };
  EXPECT_THAT(notes([](Curve&) {}), IsEmpty());
  EXPECT_THAT(notes([](Curve& curve) { curve.points = 20; }),
              ElementsAre("the curves differ in the number of points: 10 in A, 20 in B"));
  EXPECT_THAT(notes([](Curve& curve) { curve.most = 3; }),
              ElementsAre("the curves differ in the greatest load: 1 times CPU in A, 3 times CPU in B"));
  EXPECT_THAT(
      notes([](Curve& curve) { curve.mix.emplace_back("VPC", 2); }),
      ElementsAre("the curves differ in the greatest load: 1 times CPU in A, 1 times CPU,VPC:2 in B"));
  EXPECT_THAT(notes([](Curve& curve) { curve.sweep.settings.stopAfterS = 8; }),
              ElementsAre("the curves differ in the length of their runs: to their own end in A, 8 s in B"));
  EXPECT_THAT(notes([](Curve& curve) { curve.sweep.settings.warmupS = 2; }),
              ElementsAre("the curves differ in the warm-up that figures leave out: 1 s in A, 2 s in B"));
}

// A curve without a knee is not worse for that.
TEST_F(CurveTest, KneesAreComparedIfBothHaveOne) {
  const CurveTable a = made_curve::Table(Queue, 2);
  const CurveTable flat = made_curve::Table([](double load, int) { return Value{10 * load, 100}; }, 2);
  const Comparison comparison = CompareCurves(a, flat, {});
  for (const ComparedFigure& figure : comparison.figures) {
    EXPECT_NE(figure.key.engine, "knee");
    EXPECT_NE(figure.key.engine, "saturation");
  }
  EXPECT_THAT(comparison.notes,
              ElementsAre(HasSubstr("B has no knee"),
                          "B does not reach saturation: the latency there is not compared"));
}

TEST_F(CurveTest, ReadsWhatItWroteAndNothingElse) {
  Curve curve = made_curve::Plan(2);
  std::filesystem::create_directories(folder_ / "curve");
  curve.mix.emplace_back("AIC", 0);
  curve.sweep.settings.latencySize = "512M";
  PlanRunsOf(curve);
  curve.sweep.runs[3].reason = "why";
  WriteCurve(folder_ / "curve", curve);
  const Curve read = ReadCurve(folder_ / "curve");
  EXPECT_EQ(read.mix, curve.mix);
  EXPECT_EQ(read.sweep.settings.latencySize, "512M");
  EXPECT_EQ(read.sweep.runs[3].reason, "why");
  EXPECT_EQ(read.sweep.runs[3].dutyPercent, curve.sweep.runs[3].dutyPercent);
  const json good = json::parse(folder_.Get("curve/curve.json"));
  const auto error = [&](const char* pointer, const json& value) {
    json bad = good;
    bad[json::json_pointer(pointer)] = value;
    folder_.Put("curve/curve.json", bad.dump());
    return ErrorOf([&] { (void)ReadCurve(folder_ / "curve"); });
  };
  EXPECT_THAT(error("/kind", "sweep"), HasSubstr("not a curve"));
  EXPECT_THAT(error("/mix", {{"GPU", 1}}),
              HasSubstr("expected sections of engines, each once, found \"GPU\""));
  EXPECT_THAT(error("/mix", {{"CPU", 0}}), HasSubstr("expected a section that works"));
  EXPECT_THAT(error("/most", 11), HasSubstr("most: expected a number from 1 to 10, found 11"));
  EXPECT_THAT(error("/points", 1), HasSubstr("points: expected a number from 4 to 100, found 1"));
  EXPECT_THAT(error("/points", 11), HasSubstr("the curve has 22 runs, found 20"));
  EXPECT_THAT(error("/repeats", 0), HasSubstr("repeats: expected a number from 1 to 100"));
  EXPECT_THAT(error("/runs/2/duty_percent", 50), HasSubstr("is not the next point of the curve"));
  EXPECT_THAT(error("/runs/2/levels/AIC", 1), HasSubstr("is not the next point of the curve"));
  EXPECT_THAT(error("/runs/2/order", 21), HasSubstr("the order of the run"));
  EXPECT_THAT(error("/runs/2/folder", "../x"), HasSubstr("expected a folder of the sweep"));
  EXPECT_THAT(error("/duty_percent", 0), HasSubstr("duty_percent: expected a number from 1 to 100"));
}

// FORMAT-CURVE.md describes each key of the JSON and of curve.json.
void ExpectDescribed(const json& data, const json& file) {
  const std::string format = ReadText(SCOPE_FORMAT_CURVE).value_or("");
  const auto expect = [&format](const json& object) {
    for (const auto& [key, value] : object.items()) {
      const std::string name = key.substr(0, std::min(key.find("_low"), key.find("_high")));
      bool describes = false;
      for (const char* const end : {"`", "[]`", "[]."})
        for (const char* const begin : {"`", "."})
          describes = describes || format.find(begin + name + end) != std::string::npos;
      EXPECT_TRUE(describes) << key;
    }
  };
  expect(data);
  for (const json& part : {data["points"][1], data["growth"][0], data["idle"], data["knee"],
                           data["saturation"], file["runs"][4]})
    expect(part);
  // How runs are recorded is described with sweep.json.
  for (const char* const key : {"kind", "mix", "most", "points", "runs", "repeats", "seed", "warmup_s"})
    expect(json{{key, file.at(key)}});
}

TEST_F(CurveTest, TheProgramReportsOneOrSeveral) {
  made_curve::Write(folder_ / "a", Queue, 2);
  made_curve::Write(folder_ / "b", Scattering(1, 1.3), 1);
  const ToolResult one = RunTool({"report", folder_ / "a"});
  EXPECT_EQ(one.status, 0) << one.errors;
  EXPECT_THAT(one.output,
              AllOf(HasSubstr("Latency of memory over the bandwidth of CPU, after a warm-up of 1 s\n"
                              "Latency of 256 MiB in pages of 2 MiB, CPU 1\n"),
                    ::testing::ContainsRegex("\nidle .* 4 %\n"), HasSubstr(" lost\n"),
                    HasSubstr("\nlost: the share of the bursts in which the probe lost its"),
                    HasSubstr("over parts of this memory: 1 MiB 9 ns, 256 MiB 100 ns."),
                    HasSubstr("Knee: 7."), HasSubstr("report in ")));
  const json page = DataOf(folder_.Get("a/report.html"));
  EXPECT_EQ(page["kind"], "curves");
  EXPECT_EQ(page["curves"].size(), 1U);
  const json data = json::parse(RunTool({"report", "--json", folder_ / "a"}).output);
  EXPECT_EQ(data["points"].size(), 10U);
  EXPECT_EQ(data["points"][0]["gb_per_s"], 0);
  EXPECT_THAT(data["points"][9]["latency_p50_ns"].get<double>(), DoubleNear(1100, 1e-6));
  EXPECT_THAT(data["points"][9]["latency_p99_ns"].get<double>(), DoubleNear(2200, 1e-6));
  EXPECT_THAT(data["points"][9]["latency_p999_ns"].get<double>(), DoubleNear(3300, 1e-6));
  EXPECT_THAT(data["points"][9]["latency_mean_ns"].get<double>(), DoubleNear(1210, 1e-6));
  EXPECT_THAT(data["points"][9]["values"][0]["latency_mean_ns"].get<double>(), DoubleNear(1210, 1e-6));
  EXPECT_EQ(data["points"][9]["latency_max_ns"], 4400);
  EXPECT_EQ(data["points"][9]["values"].size(), 2U);
  EXPECT_EQ(data["points"][9]["values"][1]["bursts"], 24);
  EXPECT_EQ(data["points"][9]["values"][1]["interrupted"], 1);
  EXPECT_NEAR(data["points"][9]["interrupted_percent"].get<double>(), 100.0 / 24, 1e-9);
  EXPECT_EQ(data["growth"],
            json::parse(R"([{"bytes": 1048576, "p50_ns": 9}, {"bytes": 268435456, "p50_ns": 100}])"));
  EXPECT_THAT(data["idle"]["latency_p50_ns"].get<double>(), DoubleNear(100, 1e-6));
  EXPECT_THAT(data["idle"]["latency_mean_ns"].get<double>(), DoubleNear(110, 1e-6));
  EXPECT_NEAR(data["knee"]["gb_per_s"].get<double>(), 7.3, 0.3);
  EXPECT_EQ(data["saturation"]["reached"], true);
  const json both = json::parse(RunTool({"report", "--json", folder_ / "a", folder_ / "b"}).output);
  EXPECT_EQ(both["curves"][1]["folder"], folder_ / "b");
  const ToolResult mixed = RunTool({"report", folder_ / "a", folder_ / ("b/run-0001")});
  EXPECT_EQ(mixed.status, 2);
  EXPECT_THAT(mixed.errors,
              HasSubstr("is a curve, and a report shows one of these or several runs or curves"));
  ExpectDescribed(data, json::parse(folder_.Get("a/curve.json")));
}

TEST_F(CurveTest, TheProgramComparesTwo) {
  made_curve::Write(folder_ / "a", Queue, 2);
  made_curve::Write(folder_ / "b", made_curve::SlowQueue, 2);
  const ToolResult worse =
      RunTool({"compare", folder_ / "a", folder_ / "b", "--tolerance", "5", "-o", folder_ / "page.html"});
  EXPECT_EQ(worse.status, 1) << worse.errors;
  EXPECT_THAT(worse.output, AllOf(HasSubstr("(2 curves)\nB: "), HasSubstr("\nat "), HasSubstr("\nidle "),
                                  HasSubstr("B is worse than A: 4 GB/s p50 "), HasSubstr("idle p50 +"),
                                  ::testing::ContainsRegex("\nidle +p999 .* not judged\n"),
                                  ::testing::ContainsRegex("\nsaturation +p50 .* not judged\n"),
                                  Not(HasSubstr("idle p99 "))));
  const json comparison = DataOf(folder_.Get("page.html"))["comparison"];
  EXPECT_EQ(comparison["answer"], "worse");
  const std::string format = ReadText(SCOPE_FORMAT_CURVE).value_or("");
  for (const json& figure : comparison["figures"]) {
    EXPECT_THAT(format, HasSubstr("`" + figure["figure"].get<std::string>() + "`"));
    const std::string place = figure["engine"];
    if (place.find(" GB/s") == std::string::npos) EXPECT_THAT(format, HasSubstr('"' + place + '"'));
  }
  EXPECT_EQ(RunTool({"compare", folder_ / "b", folder_ / "a", "--tolerance", "5"}).status, 0);
  const ToolResult run = RunTool({"compare", folder_ / "a", folder_ / "b/run-0001"});
  EXPECT_EQ(run.status, 2);
  EXPECT_THAT(run.errors, HasSubstr("is not a curve: a curve is compared with another one"));
  EXPECT_THAT(RunTool({"compare", folder_ / "a", folder_ / "b", "--skip", "2"}).errors,
              HasSubstr("--skip and --figure are not for curves"));
}

// The program with a benchmark that sends what a meter would, at once. `stop` interrupts the run with that
// level and share of time. If there is a file `count`, the memory controller that it names counts errors in
// the run without load.
class CurveProgramTest : public CurveTest {
 protected:
  std::vector<std::string> CurveOf(const std::string& config, std::vector<std::string> more) const {
    // The latency probe takes a quarter of what is left of this without an eighth.
    (void)folder_.Put("root/proc/meminfo", "MemAvailable: 5000 kB\n");
    const std::string benchmark = folder_.Put(
        "benchmark",
        "#!/bin/sh\nlevel=$(sed -n '/^CPU/{n;s/.*: //p}' \"$1\")\necho \"$level $STRESS_SCOPE_DUTY\" "
        ">>\"$0.loads\"\n"
        "[ ! -e \"$0.count\" ] || [ \"$level\" != 0 ] || echo 10 >\"$(cat \"$0.count\")\"\n"
        "if [ -e \"$0.stop\" ] && [ \"$level\" = 2 ]; then rm \"$0.stop\"; kill -INT $PPID; sleep 0.1; fi\n"
        "for s in 1 2 3 4; do for t in $(seq 1 $level); do echo \"sample 0 $((t - 1)) 900 1000\"; done; echo "
        "\"second ${s}000\"; "
        "done >\"$0.script\"\nexec " SCRIPTED_METER " \"$1\" \"$0.script\"\n");
    (void)chmod(benchmark.c_str(), 0755);
    std::vector<std::string> arguments = {"curve",        folder_.Put("c.yaml", config),
                                          "-o",           Folder(),
                                          "--benchmark",  benchmark,
                                          "--meter",      IDLE_LIBRARY,
                                          "--sysfs-root", folder_ / "root",
                                          "--seed",       "1"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  std::string Folder() const { return folder_ / "curve"; }
};

TEST_F(CurveProgramTest, RecordsEachLoadAndGoesOnAfterASignal) {
  const int cpu = AllowedCpus().front();  // the default is the last one
  const std::vector<std::string> arguments =
      CurveOf("CPU: {Level: 1}\nVPC: {Level: 0}\n",
              {"--points", "4", "--most", "2", "--repeat", "1", "--latency-cpu", std::to_string(cpu)});
  folder_.Put("benchmark.stop", "");
  const ToolResult stopped = RunTool(arguments);
  EXPECT_EQ(stopped.status, 1);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "benchmark.stop")) << "no run was interrupted";
  EXPECT_THAT(stopped.errors, HasSubstr("Continue with: stress_scope curve --resume " + Folder()));
  EXPECT_THAT(stopped.output, AllOf(HasSubstr("No repeat of the curve is whole"), HasSubstr("not done: ")));
  // All runs go through as much memory. If there is too little by now, no option alone is blamed for it.
  (void)folder_.Put("root/proc/meminfo", "MemAvailable: 2000 kB\n");
  const ToolResult refused = RunTool({"curve", "--resume", Folder()});
  EXPECT_EQ(refused.status, 1) << refused.errors;
  EXPECT_THAT(
      refused.output + refused.errors,
      HasSubstr("the latency probe is to go through 1M (--latency-size, or chosen before the first run): "
                "expected at most a quarter of the 2.0 MiB"));
  // And even if there is more.
  (void)folder_.Put("root/proc/meminfo", "MemAvailable: 50000 kB\n");
  const ToolResult resumed = RunTool({"curve", "--resume", Folder()});
  EXPECT_EQ(resumed.status, 0) << resumed.errors;
  EXPECT_THAT(resumed.output, HasSubstr("CPU=2 VPC=0 at 66.7 %"));
  std::istringstream lines(folder_.Get("benchmark.loads"));
  std::multiset<std::string> loads;
  for (std::string line; std::getline(lines, line);) loads.insert(line);
  EXPECT_EQ(loads.count("0 "), 1U);
  EXPECT_EQ(loads.count("1 66.6667"), 1U);
  EXPECT_EQ(loads.count("2 66.6667") + loads.count("2 "), 3U) << "one was interrupted";
  for (const SweepRun& run : ReadCurve(Folder()).sweep.runs) {
    EXPECT_EQ(run.state, SweepState::kDone) << run.folder;
    const RunInfo info = ReadRunInfo(Folder() + "/" + run.folder);
    EXPECT_THAT(info.conditions.latency, StartsWith("1 MiB in"));
    EXPECT_EQ(info.latency.cpu, cpu);
    EXPECT_EQ(info.conditions.duty, run.dutyPercent < 100 ? "66.6667 %" : "");
  }
  EXPECT_EQ(RunTool(arguments).status, 2) << "the folder is taken";
}

TEST_F(CurveProgramTest, TellsOfOneCpuAndEndsWithTheStatusOfErrors) {
  const OnOneCpu one;
  const std::string count = folder_.Put("root/sys/devices/system/edac/mc/mc0/ce_count", "7\n");
  folder_.Put("benchmark.count", count);
  const ToolResult result =
      RunTool(CurveOf("CPU: {Level: 1}\nVPC: {Level: 1}\n", {"--points", "4", "--most", "1", "--repeat", "1",
                                                             "--mix", "CPU", "--latency-size", "25%"}));
  EXPECT_EQ(result.status, 3) << result.errors;
  EXPECT_EQ(ReadText(count), "10");
  EXPECT_THAT(
      result.output,
      AllOf(HasSubstr("One CPU: the probe shares it with the load. Bursts in which the load takes it"),
            HasSubstr("Latency of memory over the bandwidth of CPU, after"),
            HasSubstr("(CPU=0 VPC=0): 3 errors (edac 3)\n")));
  // The errors are told whatever else fails.
  std::filesystem::remove(Folder() + "/report.html");
  std::filesystem::create_directory(Folder() + "/report.html");
  const ToolResult noPage = RunTool({"curve", "--resume", Folder()});
  EXPECT_EQ(noPage.status, 3);
  EXPECT_THAT(noPage.errors, HasSubstr("cannot write " + Folder() + "/report.html: Is a directory"));
  const Curve curve = ReadCurve(Folder());
  for (std::size_t i = 0; i < curve.sweep.runs.size(); ++i) {
    const RunInfo info = ReadRunInfo(Folder() + "/" + curve.sweep.runs[i].folder);
    EXPECT_EQ(info.latency.cpu, one.Cpu());
    EXPECT_EQ(info.latency.bytes, 1'120'000U) << "a later run may find an eighth less";
    EXPECT_THAT(info.config.levels, ElementsAre(Pair("cpu", i == 0 ? 0 : 1), Pair("vpc", 0))) << "the mix";
  }
}

TEST_F(CurveProgramTest, RefusesWhatGivesNoCurve) {
  const auto error = [&](const std::string& config, std::vector<std::string> more) {
    const ToolResult result = RunTool(CurveOf(config, std::move(more)));
    EXPECT_EQ(result.status, 2);
    EXPECT_FALSE(std::filesystem::exists(Folder()));
    return result.errors;
  };
  EXPECT_THAT(error("CPU: {Level: 0}\n", {}), HasSubstr("no level is above 0: say what works with --mix"));
  EXPECT_THAT(error("CPU: {Level: 11}\nVPC: {Level: 1}\n", {}),
              HasSubstr("expected a \"Level\" from 0 to 10 in the section CPU"));
  EXPECT_THAT(error("CPU: {Level: 1}\n", {"--mix", "GPU"}), HasSubstr("--mix GPU: expected sections"));
  EXPECT_THAT(error("CPU: {Level: 1}\n", {"--mix", "AIC"}), HasSubstr("with a model as \"File\""));
  EXPECT_THAT(error("CPU: {Level: 1}\n", {"--mix", "CPU,VPC:4", "--most", "3"}),
              HasSubstr("--most 3: levels allow at most 2 times CPU,VPC:4"));
  EXPECT_THAT(error("CPU: {Level: 1}\n", {"--no-meter"}), HasSubstr("no option --no-meter"));
  EXPECT_THAT(error("CPU: {Level: 1}\n", {"--stop-after", "3"}), HasSubstr("too short for a warm-up of 1 s"));
  EXPECT_THAT(error("CPU: {Level: 1}\n", {"--points", "3"}), HasSubstr("--points"));
  EXPECT_THAT(error("CPU: {Level: 1}\n", {"--latency-cpu", "1000"}),
              HasSubstr("--latency-cpu 1000: the latency probe cannot run there: "));
  EXPECT_THAT(error("cpu: {Level: 1}\n", {"--mix", "CPU"}), HasSubstr("nothing reads \"cpu\""));
  EXPECT_THAT(RunTool({"curve"}).errors, HasSubstr("CONFIG or --resume"));
  EXPECT_THAT(RunTool({"curve", "--resume", folder_ / "none"}).errors, HasSubstr("not a curve"));
}

}  // namespace
