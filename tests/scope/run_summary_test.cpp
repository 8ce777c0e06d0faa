#include "run_summary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "made_run.h"

namespace {

using scope::EngineSummary;
using scope::RunSummary;
using scope::Sample;
using scope::Summarise;
using ::testing::ElementsAre;

Sample At(double timeS, std::uint64_t operations, int thread = 0, const std::string& engine = "cpu") {
  Sample sample;
  sample.timeS = timeS;
  sample.engine = engine;
  sample.thread = thread;
  sample.operations = operations;
  sample.busyNs = operations * 1'000'000;
  sample.bytes = operations * 1'000'000;
  if (operations != 0) sample.p50Ns = sample.p99Ns = sample.maxNs = 1'000'000;
  return sample;
}

EngineSummary OnlyEngine(const std::vector<Sample>& samples) {
  scope::Run run;
  run.samples = samples;
  const RunSummary summary = Summarise(run);
  EXPECT_EQ(summary.engines.size(), 1U);
  return summary.engines.at(0);
}

TEST(RunSummary, IsOfTheWholeSecondsAndOfAllThreads) {
  const RunSummary summary = Summarise(made_run::Run());
  std::vector<std::string> names;
  double gigabytes = 0;
  for (const EngineSummary& engine : summary.engines) names.push_back(engine.engine);
  EXPECT_THAT(names, ElementsAre("cpu", "vpc", "venc", "aic"));
  for (std::size_t i = 0; i != summary.engines.size(); ++i) {
    const made_run::Engine& made = made_run::kEngines[i];
    const scope::WorkSummary& work = summary.engines[i].work;
    const auto threads = static_cast<std::uint64_t>(made.threads);
    EXPECT_EQ(summary.engines[i].threads.size(), threads);
    EXPECT_EQ(work.operations, made.operations * threads * (made_run::kWholeSeconds + 1));
    EXPECT_DOUBLE_EQ(work.operationsPerS, static_cast<double>(made.operations * threads)) << made.name;
    EXPECT_DOUBLE_EQ(work.gigabytesPerS.value_or(0),
                     static_cast<double>(made.operations * threads * made.bytes) / 1e9);
    EXPECT_EQ(work.p50Ns, made.latencyNs);
    EXPECT_EQ(work.p99Ns, made.latencyNs);
    EXPECT_EQ(work.maxNs, made.latencyNs);
    EXPECT_NEAR(work.busyRate, 1e9 / static_cast<double>(made.latencyNs), 1e-6);
    gigabytes += work.gigabytesPerS.value_or(0);
    ASSERT_NE(summary.PrintedOf(made.name), nullptr);
    EXPECT_DOUBLE_EQ(summary.PrintedOf(made.name)->median, made.printed);
  }
  EXPECT_DOUBLE_EQ(summary.gigabytesPerS.value_or(0), gigabytes);
  EXPECT_DOUBLE_EQ(summary.engines[0].belowMillisecond, 1);
  EXPECT_DOUBLE_EQ(summary.engines[1].belowMillisecond, 0);
}

TEST(RunSummary, TakesTheLengthOfEachSecondFromItsRows) {
  const EngineSummary engine = OnlyEngine({At(1, 5), At(2.25, 250), At(3, 150), At(4, 1)});
  EXPECT_DOUBLE_EQ(engine.work.operationsPerS, 400 / 2.0);
  EXPECT_DOUBLE_EQ(engine.seconds[1].OperationsPerS(), 200);
}

TEST(RunSummary, OfTwoSecondsIsOfBoth) {
  EXPECT_DOUBLE_EQ(OnlyEngine({At(1, 10), At(2, 30)}).work.operationsPerS, 20);
}

TEST(RunSummary, SecondsAtTheEdgesWithoutOperationsAreNoSecondsOfTheEngine) {
  const EngineSummary engine =
      OnlyEngine({At(1, 0), At(2, 1), At(3, 30), At(4, 0), At(5, 30), At(6, 1), At(7, 0)});
  EXPECT_DOUBLE_EQ(engine.work.operationsPerS, 20) << "a pause in between counts";
}

TEST(RunSummary, ASecondAfterAGapTellsNoRate) {
  const EngineSummary engine = OnlyEngine({At(1, 1), At(2, 30), At(5, 30), At(6, 30), At(7, 1)});
  EXPECT_TRUE(engine.seconds[2].afterGap);
  EXPECT_DOUBLE_EQ(engine.work.operationsPerS, 30);
  EXPECT_EQ(engine.work.operations, 92U);
}

TEST(RunSummary, UnknownBytesStayUnknown) {
  scope::Run run;
  run.samples = {At(1, 1), At(2, 5), At(3, 1), At(1, 1, 0, "aic"), At(2, 5, 0, "aic"), At(3, 1, 0, "aic")};
  run.samples[4].bytes.reset();
  const RunSummary summary = Summarise(run);
  EXPECT_TRUE(summary.engines[0].work.gigabytesPerS.has_value());
  EXPECT_FALSE(summary.engines[1].work.gigabytesPerS.has_value());
  EXPECT_FALSE(summary.gigabytesPerS.has_value()) << "a sum without a part of it";
}

TEST(RunSummary, SetUpIsNoPartOfTheSum) {
  scope::Run run;
  run.samples = {At(1, 1000, 0, "vpc_copy"), At(1, 1), At(2, 5), At(3, 1)};
  EXPECT_DOUBLE_EQ(Summarise(run).gigabytesPerS.value_or(0), 0.005);
}

TEST(RunSummary, SecondsOfSeveralThreadsTakeTheWeightedMedianAndTheGreatestTail) {
  Sample slow = At(1, 10, 1);
  slow.p50Ns = 9'000'000;
  slow.p99Ns = 20'000'000;
  slow.maxNs = 30'000'000;
  const EngineSummary engine = OnlyEngine({At(1, 30), slow});
  EXPECT_EQ(engine.seconds[0].p50Ns, 1'000'000U);
  EXPECT_EQ(engine.seconds[0].p99Ns, 20'000'000U);
  EXPECT_EQ(engine.seconds[0].maxNs, 30'000'000U);
  EXPECT_FALSE(engine.work.p50Ns.has_value()) << "without a histogram";
}

TEST(RunSummary, PercentilesAreByNearestRank) {
  scope::Run run;
  run.samples = {At(1, 100)};
  run.samples[0].maxNs = 900'100;
  run.histogram = {{"cpu", 0, 1000, 1001, 50}, {"cpu", 0, 2000, 2001, 49}, {"cpu", 0, 900'000, 901'000, 1}};
  const scope::WorkSummary work = Summarise(run).engines[0].work;
  EXPECT_EQ(work.p50Ns, 1000U);
  EXPECT_EQ(work.p99Ns, 2000U);
  run.histogram[1].count = 48;
  EXPECT_EQ(Summarise(run).engines[0].work.p99Ns, 900'100U) << "not above the longest";
}

TEST(RunSummary, PrintedRatesCountFromTheFirstThatIsNotZero) {
  scope::Run run;
  run.rates = {{1, "cpuStress", 0},
               {2, "cpuStress", 7},
               {3, "cpuStress", 0},
               {4, "cpuStress", 9},
               {4, "newStress", 3}};
  const RunSummary summary = Summarise(run);
  EXPECT_TRUE(summary.engines.empty());
  EXPECT_DOUBLE_EQ(summary.PrintedOf("cpu")->median, 7);
  ASSERT_EQ(summary.printed.size(), 2U);
  EXPECT_EQ(summary.printed[1].stress, "newStress");
  EXPECT_EQ(summary.printed[1].engine, "");
}

TEST(RunSummary, OfNothingIsEmpty) {
  const RunSummary summary = Summarise({});
  EXPECT_TRUE(summary.engines.empty());
  EXPECT_TRUE(summary.printed.empty());
  EXPECT_FALSE(summary.gigabytesPerS.has_value());
}

}  // namespace
