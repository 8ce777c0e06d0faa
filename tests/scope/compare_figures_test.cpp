// SPDX-License-Identifier: Apache-2.0
#include "compare_figures.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "compare_values.h"
#include "made_run.h"
#include "run_reader.h"
#include "synthetic_run.h"
#include "temporary_folder.h"

namespace {

using ::testing::DoubleEq;
using ::testing::Each;
using ::testing::ElementsAre;
using namespace scope;

using Values = std::map<FigureKey, std::vector<double>>;

Sample At(double timeS, std::uint64_t operations, const std::string& engine = "cpu") {
  Sample sample;
  sample.timeS = timeS;
  sample.engine = engine;
  sample.operations = operations;
  sample.bytes = operations * 1'000'000'000;
  if (operations != 0) {
    sample.p50Ns = 1'000;
    sample.p99Ns = 2'500;
  }
  return sample;
}

Values Figures(const std::vector<Sample>& samples, double skipS = 0) {
  scope::Run run;
  run.samples = samples;
  return FiguresOf(Summarise(Completed(run)), skipS);
}

TEST(CompareFigures, FiguresLeaveOutTheWarmUpAndTheEnd) {
  SyntheticEngine cpu;
  cpu.threads = 2;
  cpu.riseAS = 10;
  SyntheticEngine venc;
  venc.engine = "venc";
  venc.stress = "kivuVencStress";
  venc.operationsPerS = 100;
  const TemporaryFolder folder;
  WriteRun(folder / "run", {cpu, venc});
  const scope::Run run = ReadRun(folder / "run");
  const auto figures = FiguresOf(Summarise(Completed(run)), 5);
  // The seconds of two threads that end at 6 to 27. The last second with operations is not whole.
  const std::vector<double>& operations = figures.at({"cpu", Figure::kOperations});
  ASSERT_EQ(operations.size(), 22U);
  EXPECT_DOUBLE_EQ(operations.front(), 2 * 560);
  EXPECT_DOUBLE_EQ(operations.back(), 2 * 770);
  EXPECT_DOUBLE_EQ(figures.at({"cpu", Figure::kBandwidth}).front(), 1120 * 2e6 / 1e9);
  EXPECT_DOUBLE_EQ(figures.at({kAllEngines, Figure::kBandwidth}).front(), (1120 + 100) * 2e6 / 1e9);
  EXPECT_DOUBLE_EQ(figures.at({"cpu", Figure::kP50}).front(), 2000);
  EXPECT_DOUBLE_EQ(figures.at({"venc", Figure::kP99}).front(), 4000);
  EXPECT_EQ(figures.at({"venc", Figure::kPrinted}).size(), 26U);
  // The first second of an engine is never whole.
  EXPECT_EQ(FiguresOf(Summarise(Completed(run)), 0).at({"cpu", Figure::kOperations}).size(), 26U);
}

TEST(CompareFigures, FiguresAreOverTheLengthOfTheSecond) {
  scope::Run run;
  run.info.durationS = 100;
  for (const double timeS : {1.0, 2.0, 3.5, 4.5}) {
    Sample sample;
    sample.timeS = timeS;
    sample.engine = "vpc";
    sample.operations = 300;
    run.samples.push_back(sample);
  }
  const auto figures = FiguresOf(Summarise(Completed(run)), 0);
  EXPECT_THAT(figures.at({"vpc", Figure::kOperations}), ElementsAre(300, 200));
  EXPECT_EQ(figures.count({"vpc", Figure::kBandwidth}), 0U);  // bytes unknown
  EXPECT_EQ(figures.count({kAllEngines, Figure::kBandwidth}), 0U);
}

TEST(CompareFigures, TheTotalIsOfSecondsInWhichEveryEngineWorks) {
  scope::Run run;
  for (int timeS = 1; timeS <= 10; ++timeS) {
    for (const char* const engine : {"cpu", "aic", "vpc_copy"}) {
      if (engine == std::string("aic") && timeS < 4) continue;  // a model that takes long to load
      Sample sample;
      sample.timeS = timeS;
      sample.engine = engine;
      sample.operations = 1;
      sample.bytes = engine == std::string("cpu") ? 2'000'000'000 : 1'000'000'000;
      run.samples.push_back(sample);
    }
  }
  EXPECT_THAT(FiguresOf(Summarise(Completed(run)), 0).at({kAllEngines, Figure::kBandwidth}),
              ElementsAre(3, 3, 3, 3, 3));  // seconds 5 to 9
}

TEST(CompareFigures, ASecondIsLeftOutIfItsMiddleIs) {
  const std::vector<Sample> samples = {At(1, 1), At(2, 2), At(3, 3), At(4.5, 6), At(5.5, 5), At(6, 1)};
  EXPECT_THAT(Figures(samples, 2.5).at({"cpu", Figure::kOperations}), ElementsAre(3, 4, 5));
  EXPECT_THAT(Figures(samples, 2.51).at({"cpu", Figure::kOperations}), ElementsAre(4, 5));
  EXPECT_THAT(Figures(samples, 3.75).at({"cpu", Figure::kOperations}), ElementsAre(4, 5));
  EXPECT_THAT(Figures(samples, 3.76).at({"cpu", Figure::kOperations}), ElementsAre(5));
  EXPECT_TRUE(Figures(samples, 100).empty());
}

TEST(CompareFigures, ASecondAfterAGapIsLeftOut) {
  const Values figures = Figures({At(1, 1), At(2, 2), At(5, 9), At(6, 3), At(7, 1)});
  EXPECT_THAT(figures.at({"cpu", Figure::kOperations}), ElementsAre(2, 3));
  EXPECT_THAT(figures.at({kAllEngines, Figure::kBandwidth}), ElementsAre(2, 3));
}

TEST(CompareFigures, LatenciesAreMicrosecondsOfSecondsWithOperations) {
  const Values figures = Figures({At(1, 1), At(2, 2), At(3, 0), At(4, 3), At(5, 1)});
  EXPECT_THAT(figures.at({"cpu", Figure::kOperations}), ElementsAre(2, 0, 3));
  EXPECT_THAT(figures.at({"cpu", Figure::kP50}), ElementsAre(1, 1));
  EXPECT_THAT(figures.at({"cpu", Figure::kP99}), ElementsAre(2.5, 2.5));
}

TEST(CompareFigures, AnEngineThatNeverWorksHasTheRateZeroAlone) {
  const std::vector<Sample> idle = {At(1, 0, "aic"), At(2, 0, "aic")};
  Values figures = Figures(idle);
  EXPECT_EQ(figures.size(), 2U);
  EXPECT_THAT(figures.at({"aic", Figure::kOperations}), ElementsAre(0));
  EXPECT_THAT(figures.at({kAllEngines, Figure::kBandwidth}), ElementsAre(0));
  std::vector<Sample> both = {At(1, 1), At(2, 4), At(3, 1)};
  both.insert(both.end(), idle.begin(), idle.end());
  figures = Figures(both);
  EXPECT_THAT(figures.at({"aic", Figure::kOperations}), ElementsAre(0));
  EXPECT_THAT(figures.at({kAllEngines, Figure::kBandwidth}), ElementsAre(4));
}

TEST(CompareFigures, OneUnknownSecondLeavesNoBandwidth) {
  std::vector<Sample> samples = {At(1, 1), At(2, 2), At(3, 3), At(4, 1)};
  for (const double timeS : {1.0, 2.0, 3.0, 4.0}) samples.push_back(At(timeS, 10, "vpc"));
  EXPECT_THAT(Figures(samples).at({kAllEngines, Figure::kBandwidth}), ElementsAre(12, 13));
  samples[1].bytes.reset();
  const Values figures = Figures(samples);
  EXPECT_EQ(figures.count({"cpu", Figure::kBandwidth}), 0U);
  EXPECT_EQ(figures.at({"cpu", Figure::kOperations}).size(), 2U);
  EXPECT_EQ(figures.at({"vpc", Figure::kBandwidth}).size(), 2U);
  EXPECT_THAT(figures.at({kAllEngines, Figure::kBandwidth}), ElementsAre(13)) << "the second that is known";
}

TEST(CompareFigures, PrintedRatesAreOfKnownStressesFromTheSkippedTimeOn) {
  scope::Run run;
  run.rates = {{4.9, "cpuStress", 1}, {5, "cpuStress", 2}, {6, "cpuStress", 3}, {6, "newStress", 9}};
  const Values figures = FiguresOf(Summarise(Completed(run)), 5);
  EXPECT_EQ(figures.size(), 1U);
  EXPECT_THAT(figures.at({"cpu", Figure::kPrinted}), ElementsAre(2, 3));
}

TEST(CompareFigures, TheLatencyOfMemoryIsThatOfWholeSecondsUnderLoad) {
  scope::Run run = made_run::Run();
  made_run::AddLatency(run);
  const Values figures = FiguresOf(Summarise(Completed(run)), 5);
  const std::vector<double>& p50 = figures.at({kMemory, Figure::kP50});
  // The seconds whose middle is after 5 s, up to the last whole one of the engines, without the interrupted
  // one.
  EXPECT_EQ(p50.size(), std::size_t{made_run::kWholeSeconds + 1 - 5 - 1});
  EXPECT_THAT(p50, Each(DoubleEq(0.15))) << "us";
  EXPECT_THAT(figures.at({kMemory, Figure::kP99}), Each(DoubleEq(0.4)));
  EXPECT_THAT(figures.at({kMemory, Figure::kP999}), Each(DoubleEq(0.6)));
  run.samples.clear();
  const Values idle = FiguresOf(Summarise(Completed(run)), 0);
  EXPECT_EQ(idle.at({kMemory, Figure::kP50}).size(), std::size_t{made_run::kWholeSeconds})
      << "all but the last one, which is short, and the interrupted one";
}

TEST(CompareFigures, ASecondOfMemoryIsLeftOutIfItsMiddleIs) {
  RunSummary run;
  for (const double timeS : {2.5, 3.5}) run.latency.emplace_back().timeS = timeS;
  EXPECT_EQ(LatencyAfter(run, 2).size(), 2U);
  ASSERT_EQ(LatencyAfter(run, 2.01).size(), 1U);
  EXPECT_DOUBLE_EQ(LatencyAfter(run, 2.01)[0].timeS, 3.5);
  EXPECT_TRUE(LatencyAfter(run, 3.01).empty());
}

TEST(CompareFigures, RatesAreMeansAndOtherFiguresMedians) {
  for (const Figure figure : {Figure::kOperations, Figure::kBandwidth})
    EXPECT_DOUBLE_EQ(ValueOf(figure, {1, 2, 6}), 3);
  for (const Figure figure : {Figure::kP50, Figure::kP99, Figure::kPrinted, Figure::kP999})
    EXPECT_DOUBLE_EQ(ValueOf(figure, {1, 2, 6}), 2);
}

// It does no work: the bandwidth of one engine and the probe is still that of one engine.
TEST(CompareFigures, TheLatencyOfMemoryIsJudgedOnlyIfItIsAskedFor) {
  const FigureKey ops = {"cpu", Figure::kOperations};
  const FigureKey total = {kAllEngines, Figure::kBandwidth};
  const FigureKey latency = {kMemory, Figure::kP999};
  const std::vector<RunValues> a = {{{ops, 100}, {total, 1}, {latency, 1}},
                                    {{ops, 101}, {total, 1}, {latency, 1.01}}};
  const std::vector<RunValues> b = {{{ops, 100}, {total, 1}, {latency, 2}},
                                    {{ops, 101}, {total, 1}, {latency, 2.02}}};
  EXPECT_EQ(CompareValues(a, b, {}).judged, 1U);
  CompareOptions options;
  options.figures = {Figure::kP999};
  const Comparison comparison = CompareValues(a, b, options);
  ASSERT_EQ(comparison.figures.size(), 1U);
  EXPECT_EQ(comparison.figures[0].verdict, Verdict::kWorse) << "lower is better";
}

TEST(CompareFigures, HaveNamesUnitsAndDirections) {
  const auto is = [](Figure figure, const std::string& name, const std::string& unit, bool lowerIsBetter) {
    EXPECT_EQ(KindOf(figure).figure, figure);
    EXPECT_EQ(KindOf(figure).name, name);
    EXPECT_EQ(KindOf(figure).unit, unit);
    EXPECT_EQ(KindOf(figure).lowerIsBetter, lowerIsBetter) << name;
  };
  is(Figure::kOperations, "ops", "op/s", false);
  is(Figure::kBandwidth, "bandwidth", "GB/s", false);
  is(Figure::kP50, "p50", "us", true);
  is(Figure::kP99, "p99", "us", true);
  is(Figure::kPrinted, "printed", "fps", false);
  is(Figure::kP999, "p999", "us", true);
  for (const FigureKind& kind : FigureKinds()) EXPECT_EQ(&KindOf(kind.figure), &kind) << kind.name;
  const auto names = [](const std::vector<const FigureKind*>& kinds) {
    std::vector<std::string> all;
    for (const FigureKind* const kind : kinds) all.emplace_back(kind->name);
    return all;
  };
  EXPECT_THAT(names(ComparedKinds()), ElementsAre("ops", "bandwidth", "p50", "p99", "printed", "p999"));
  EXPECT_THAT(names(EngineKinds()), ElementsAre("operations", "ops", "bandwidth", "p50", "p99", "max",
                                                "failures", "printed", "exact"));
}

TEST(CompareFigures, AreInTheOrderOfTheEnginesAndThenOfTheFigures) {
  const std::vector<FigureKey> order = {
      {"cpu", Figure::kOperations},     {"cpu", Figure::kPrinted},     {"vpc", Figure::kOperations},
      {"venc", Figure::kOperations},    {"aic", Figure::kP99},         {kAllEngines, Figure::kBandwidth},
      {"another", Figure::kOperations}, {"other", Figure::kOperations}};
  for (std::size_t i = 0; i != order.size(); ++i) {
    for (std::size_t j = 0; j != order.size(); ++j) EXPECT_EQ(order[i] < order[j], i < j) << i << " " << j;
  }
}

// Nobody waits for a figure that decides nothing, however noisy it is.
TEST(CompareFigures, RepeatsAreThoseOfJudgedFigures) {
  const FigureKey ops = {"cpu", Figure::kOperations};
  const FigureKey latency = {"cpu", Figure::kP99};
  const std::vector<RunValues> a = {
      {{ops, 100}, {latency, 10}}, {{ops, 110}, {latency, 90}}, {{ops, 105}, {latency, 30}}};
  const Comparison comparison = CompareValues(a, {a.rbegin(), a.rend()}, {});
  ASSERT_EQ(comparison.figures.size(), 2U);
  EXPECT_EQ(comparison.figures[0].verdict, Verdict::kCannotTell);
  ASSERT_TRUE(comparison.figures[0].repeats.has_value());
  EXPECT_EQ(comparison.figures[1].verdict, Verdict::kNotJudged);
  EXPECT_TRUE(comparison.figures[1].interval.has_value());
  EXPECT_EQ(comparison.figures[1].repeats, std::nullopt);
  EXPECT_EQ(comparison.repeats, comparison.figures[0].repeats);
}

}  // namespace
