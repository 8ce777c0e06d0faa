// SPDX-License-Identifier: Apache-2.0
#include "run_summary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>

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
  const RunSummary summary = Summarise(Completed(run));
  EXPECT_EQ(summary.engines.size(), 1U);
  return summary.engines.at(0);
}

TEST(RunSummary, IsOfTheWholeSecondsAndOfAllThreads) {
  const RunSummary summary = Summarise(Completed(made_run::Run()));
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
  EXPECT_DOUBLE_EQ(engine.seconds[1].operationsPerS, 200);
  EXPECT_DOUBLE_EQ(engine.seconds[1].gigabytesPerS.value_or(0), 0.2);
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
  const RunSummary summary = Summarise(Completed(run));
  EXPECT_TRUE(summary.engines[0].work.gigabytesPerS.has_value());
  EXPECT_FALSE(summary.engines[1].work.gigabytesPerS.has_value());
  EXPECT_FALSE(summary.gigabytesPerS.has_value()) << "a sum without a part of it";
}

TEST(RunSummary, SetUpIsNoPartOfTheSum) {
  scope::Run run;
  run.samples = {At(1, 1000, 0, "vpc_copy"), At(1, 1), At(2, 5), At(3, 1)};
  EXPECT_DOUBLE_EQ(Summarise(Completed(run)).gigabytesPerS.value_or(0), 0.005);
}

TEST(RunSummary, SecondsAreTheRowsOfTheEngine) {
  scope::Run run = Completed({});
  run.samples = {At(1, 30), At(1, 10, 1)};
  run.seconds = EngineRows(run.samples);
  run.seconds[0].p50Ns = 9'000;
  run.seconds[0].p99Ns = 20'000;
  run.seconds[0].maxNs = 30'000;
  const EngineSummary engine = Summarise(run).engines.at(0);
  ASSERT_EQ(engine.seconds.size(), 1U);
  EXPECT_EQ(engine.seconds[0].p50Ns, 9'000U) << "not made from those of the threads";
  EXPECT_EQ(engine.seconds[0].p99Ns, 20'000U);
  EXPECT_EQ(engine.seconds[0].maxNs, 30'000U);
  EXPECT_EQ(engine.work.p50Ns, 0U) << "without a histogram";
}

TEST(RunSummary, PercentilesAreByNearestRank) {
  scope::Run run;
  run.samples = {At(1, 100)};
  run.samples[0].maxNs = 900'100;
  run.histogram = {{"cpu", 0, 1000, 1001, 50}, {"cpu", 0, 2000, 2001, 49}, {"cpu", 0, 900'000, 901'000, 1}};
  const scope::WorkSummary work = Summarise(Completed(run)).engines[0].work;
  EXPECT_EQ(work.p50Ns, 1000U);
  EXPECT_EQ(work.p99Ns, 2000U);
  run.histogram[1].count = 48;
  EXPECT_EQ(Summarise(Completed(run)).engines[0].work.p99Ns, 900'100U) << "not above the longest";
  run.histogram[0].count = 49;
  run.histogram[1].count = 50;
  EXPECT_EQ(Summarise(Completed(run)).engines[0].work.p50Ns, 2000U);
}

TEST(RunSummary, PrintedRatesCountFromTheFirstThatIsNotZero) {
  scope::Run run;
  run.rates = {{1, "cpuStress", 0},
               {2, "cpuStress", 7},
               {3, "cpuStress", 0},
               {4, "cpuStress", 9},
               {4, "newStress", 3}};
  const RunSummary summary = Summarise(Completed(run));
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

TEST(RunSummary, TheFirstSecondOfALateEngineBeganWhereTheOneBeforeItEnded) {
  scope::Run run;
  run.samples = {At(1, 1), At(2.5, 1), At(4, 1), At(5, 1)};
  for (const double timeS : {4.0, 5.0}) run.samples.push_back(At(timeS, 30, 0, "aic"));
  const RunSummary summary = Summarise(Completed(run));
  ASSERT_EQ(summary.engines[1].seconds.size(), 2U);
  EXPECT_DOUBLE_EQ(summary.engines[1].seconds[0].spanS, 1.5);
  EXPECT_FALSE(summary.engines[1].seconds[0].afterGap) << "it had not begun";
  EXPECT_DOUBLE_EQ(summary.engines[1].work.operationsPerS, 60 / 2.5);
  EXPECT_DOUBLE_EQ(summary.engines[0].seconds[0].spanS, 1);
  EXPECT_DOUBLE_EQ(summary.endS, 5);
}

TEST(RunSummary, AGapIsLongerThanAThreadsSecondEverIs) {
  const EngineSummary engine = OnlyEngine({At(1, 1), At(2, 10), At(3.75, 35), At(5.5625, 10), At(6, 1)});
  EXPECT_FALSE(engine.seconds[2].afterGap) << "1.75 s";
  EXPECT_TRUE(engine.seconds[3].afterGap) << "1.8125 s";
  EXPECT_DOUBLE_EQ(engine.work.operationsPerS, 45 / 2.75);
}

TEST(RunSummary, AFirstSecondIsNeverAfterAGap) {
  const EngineSummary engine = OnlyEngine({At(3, 30), At(4, 5)});
  EXPECT_FALSE(engine.seconds[0].afterGap);
  EXPECT_DOUBLE_EQ(engine.seconds[0].spanS, 3);
}

TEST(RunSummary, ASecondWithoutLengthIsNone) {
  const EngineSummary engine = OnlyEngine({At(0, 7), At(1, 10)});
  ASSERT_EQ(engine.seconds.size(), 1U);
  EXPECT_DOUBLE_EQ(engine.seconds[0].timeS, 1);
}

TEST(RunSummary, WholeSecondsAreThoseBetweenTheFirstAndTheLast) {
  const auto whole = [](const std::vector<Sample>& samples) {
    const EngineSummary engine = OnlyEngine(samples);
    return std::make_pair(engine.firstWhole, engine.endWhole);
  };
  EXPECT_EQ(whole({At(1, 5)}), std::make_pair(0UL, 1UL));
  EXPECT_EQ(whole({At(1, 5), At(2, 5)}), std::make_pair(0UL, 2UL));
  EXPECT_EQ(whole({At(1, 0), At(2, 5)}), std::make_pair(1UL, 2UL));
  EXPECT_EQ(whole({At(1, 5), At(2, 5), At(3, 5)}), std::make_pair(1UL, 2UL));
  EXPECT_EQ(whole({At(1, 0), At(2, 5), At(3, 5), At(4, 5), At(5, 5), At(6, 0)}), std::make_pair(2UL, 4UL));
  EXPECT_EQ(whole({At(1, 0), At(2, 0), At(3, 0)}), std::make_pair(0UL, 0UL));
}

TEST(RunSummary, AnIdleEngineHasNoRateAndNoLatency) {
  scope::Run run;
  run.samples = {At(1, 0), At(2, 0), At(3, 0)};
  run.samples[1].failures = 4;
  run.samples[2].failures = 3;
  run.samples[1].p50Ns = 77;  // ignored: there are no operations
  const RunSummary summary = Summarise(Completed(run));
  const scope::WorkSummary& work = summary.engines.at(0).work;
  EXPECT_DOUBLE_EQ(work.operationsPerS, 0);
  EXPECT_FALSE(work.gigabytesPerS.has_value());
  EXPECT_EQ(work.p50Ns, 0U);
  EXPECT_EQ(work.failures, 7U);
  EXPECT_DOUBLE_EQ(work.lastS, 0);
  EXPECT_DOUBLE_EQ(work.busyRate, 0);
  EXPECT_DOUBLE_EQ(summary.engines[0].belowMillisecond, 0);
  EXPECT_EQ(summary.engines[0].seconds[1].p50Ns, 0U);
  EXPECT_FALSE(summary.gigabytesPerS.has_value()) << "no engine works";
}

TEST(RunSummary, TheSumIsOfTheEnginesThatWork) {
  scope::Run run;
  run.samples = {At(1, 1), At(2, 5), At(3, 1)};
  for (const double timeS : {1.0, 2.0, 3.0}) {
    run.samples.push_back(At(timeS, 0, 0, "aic"));
    run.samples.back().bytes.reset();
    run.samples.push_back(At(timeS, 10, 0, "vpc"));
  }
  EXPECT_DOUBLE_EQ(Summarise(Completed(run)).gigabytesPerS.value_or(0), 0.015);
}

TEST(RunSummary, BytesOfASecondAreKnownIfThoseOfAllThreadsAre) {
  std::vector<Sample> samples = {At(1, 1), At(2, 5), At(2, 10, 1), At(3, 1)};
  EXPECT_DOUBLE_EQ(OnlyEngine(samples).seconds[1].gigabytesPerS.value_or(0), 0.015);
  samples[1].bytes.reset();
  EXPECT_FALSE(OnlyEngine(samples).seconds[1].bytes.has_value()) << "a later thread's are not enough";
  EXPECT_FALSE(OnlyEngine(samples).seconds[1].gigabytesPerS.has_value());
  EXPECT_FALSE(OnlyEngine(samples).work.gigabytesPerS.has_value());
  samples[1].bytes = 0;
  samples[0].bytes.reset();
  EXPECT_TRUE(OnlyEngine(samples).work.gigabytesPerS.has_value()) << "the first second counts for no rate";
}

TEST(RunSummary, OneUnknownSecondMakesTheRateOfBytesUnknown) {
  std::vector<Sample> samples = {At(1, 1), At(2, 5), At(3, 5), At(4, 5), At(5, 1)};
  samples[2].bytes.reset();
  EXPECT_FALSE(OnlyEngine(samples).work.gigabytesPerS.has_value());
  EXPECT_DOUBLE_EQ(OnlyEngine(samples).work.operationsPerS, 5);
}

TEST(RunSummary, APercentileIsTheMiddleOfItsBucket) {
  scope::Run run;
  run.samples = {At(1, 4)};
  run.samples[0].maxNs = 0;
  const auto p50 = [&run](std::uint64_t lowNs, std::uint64_t highNs) {
    run.histogram = {{"cpu", 0, lowNs, highNs, 4}};
    return Summarise(Completed(run)).engines[0].work.p50Ns;
  };
  EXPECT_EQ(p50(1000, 1011), 1005U);
  EXPECT_EQ(p50(1000, 1010), 1004U);
  EXPECT_EQ(p50(1000, 1001), 1000U);
  EXPECT_EQ(p50(1000, 1000), 1000U) << "a bucket without width";
  run.samples[0].maxNs = 1002;
  EXPECT_EQ(p50(1000, 1011), 1002U);
}

TEST(RunSummary, EachThreadHasItsOwnFigures) {
  scope::Run run;
  run.samples = {At(1, 1), At(2, 10), At(3, 1), At(1, 2, 3), At(2, 30, 3), At(3, 2, 3)};
  for (std::size_t i = 3; i != 6; ++i) run.samples[i].busyNs *= 2;
  run.histogram = {{"cpu", 0, 990, 991, 3},
                   {"cpu", 0, 1000, 1001, 9},
                   {"cpu", 3, 900, 901, 34},
                   {"aic", 3, 7, 8, 1'000'000}};
  const EngineSummary engine = Summarise(Completed(run)).engines.at(0);
  ASSERT_EQ(engine.threads.size(), 2U);
  EXPECT_EQ(engine.threads[0].thread, 0);
  EXPECT_EQ(engine.threads[1].thread, 3);
  EXPECT_EQ(engine.threads[0].work.operations, 12U);
  EXPECT_EQ(engine.threads[1].work.operations, 34U);
  EXPECT_DOUBLE_EQ(engine.threads[0].work.operationsPerS, 10);
  EXPECT_DOUBLE_EQ(engine.threads[1].work.operationsPerS, 30);
  EXPECT_EQ(engine.threads[0].work.p50Ns, 1000U);
  EXPECT_EQ(engine.threads[1].work.p50Ns, 900U);
  EXPECT_EQ(engine.work.p50Ns, 900U);
  EXPECT_DOUBLE_EQ(engine.threads[0].work.busyRate, 1000);
  EXPECT_DOUBLE_EQ(engine.threads[1].work.busyRate, 500);
  EXPECT_DOUBLE_EQ(engine.work.busyRate, 750);
}

TEST(RunSummary, TheRateOfBusyTimeIsOfTheThreadsThatWereBusy) {
  std::vector<Sample> samples = {At(1, 10), At(1, 0, 1), At(1, 30, 2)};
  samples[2].busyNs = 60'000'000;
  EXPECT_DOUBLE_EQ(OnlyEngine(samples).work.busyRate, 750);
  samples = {At(5, 1), At(5, 1, 1)};
  for (Sample& sample : samples) sample.busyNs = 4'000'000'000;
  EXPECT_DOUBLE_EQ(OnlyEngine(samples).work.busyRate, 0.25) << "operations longer than a second";
}

TEST(RunSummary, ShortOperationsAreThoseBelowAMillisecond) {
  scope::Run run;
  run.samples = {At(1, 10)};
  run.histogram = {{"cpu", 0, 999'999, 1'000'000, 1}, {"cpu", 0, 1'000'000, 1'000'001, 3}};
  EXPECT_DOUBLE_EQ(Summarise(Completed(run)).engines[0].belowMillisecond, 0.25);
  // Without a histogram, the medians of the seconds are used.
  run.histogram.clear();
  run.samples = {At(1, 70), At(2, 10)};
  run.samples[1].p50Ns = 999'999;
  EXPECT_DOUBLE_EQ(Summarise(Completed(run)).engines[0].belowMillisecond, 0.125);
  run.samples = {At(1, 1)};
  run.samples[0].p50Ns = 999'999;
  EXPECT_DOUBLE_EQ(Summarise(Completed(run)).engines[0].belowMillisecond, 1);
}

TEST(RunSummary, FiguresOfTheWholeRunAreOfAllSeconds) {
  std::vector<Sample> samples = {At(1, 5), At(2, 7), At(5, 9), At(6, 3), At(7, 0)};
  samples[0].maxNs = 9'000'000;
  for (Sample& sample : samples) sample.failures = 1;
  const scope::WorkSummary work = OnlyEngine(samples).work;
  EXPECT_EQ(work.operations, 24U);
  EXPECT_EQ(work.bytes, 24'000'000U);
  EXPECT_EQ(work.busyNs, 24'000'000U);
  EXPECT_EQ(work.failures, 5U);
  EXPECT_EQ(work.maxNs, 9'000'000U);
  EXPECT_DOUBLE_EQ(work.lastS, 6);
}

TEST(RunSummary, EnginesAndPrintedRatesAreInTheirOwnOrder) {
  scope::Run run;
  for (const char* engine : {"zzz", "vpc_copy", "aic", "venc", "vpc", "cpu", "aaa"})
    run.samples.push_back(At(1, 1, 0, engine));
  for (const char* stress :
       {"zStress", "aicStress", "kivuVencStress", "aStress", "kivuVpcStress", "cpuStress"})
    run.rates.push_back({1, stress, 2});
  const RunSummary summary = Summarise(Completed(run));
  std::vector<std::string> engines;
  for (const EngineSummary& engine : summary.engines) engines.push_back(engine.engine);
  EXPECT_THAT(engines, ElementsAre("cpu", "vpc", "venc", "aic", "vpc_copy", "aaa", "zzz"));
  std::vector<std::string> stresses;
  std::vector<std::string> loads;
  for (const scope::PrintedRates& printed : summary.printed) {
    stresses.push_back(printed.stress);
    loads.push_back(printed.engine);
  }
  EXPECT_THAT(stresses,
              ElementsAre("cpuStress", "kivuVpcStress", "kivuVencStress", "aicStress", "aStress", "zStress"));
  EXPECT_THAT(loads, ElementsAre("cpu", "vpc", "venc", "aic", "", ""));
  EXPECT_EQ(summary.PrintedOf("vpc")->stress, "kivuVpcStress");
  EXPECT_EQ(summary.PrintedOf("gpu"), nullptr);
}

TEST(RunSummary, TheLatencyOfMemoryIsOfSecondsInWhichEveryEngineWorks) {
  scope::Run run;
  // Whole from 1 to 3. One that is set up and one that does nothing do not count.
  run.samples = {At(1, 1),           At(2, 5),           At(3, 5),          At(4, 1), At(3, 9, 0, "vpc_copy"),
                 At(1, 0, 0, "aic"), At(2, 0, 0, "aic"), At(3, 0, 0, "aic")};
  const auto loaded = [&run](const std::vector<double>& endsS) {
    run.latency.clear();
    for (const double endS : endsS) run.latency.emplace_back().timeS = endS;
    std::vector<double> left;
    for (const scope::LatencySecond& second : Summarise(Completed(run)).latency) left.push_back(second.timeS);
    return left;
  };
  // The two processes may be 0.3 s apart.
  EXPECT_THAT(loaded({1 - 0.3, 1.7, 2.7, 3 + 0.3, 4.3}), ElementsAre(1.7, 2.7, 3 + 0.3));
  EXPECT_THAT(loaded({0.69, 1.69, 2.7, 3.31, 4.3}), ElementsAre(2.7));
  // Without an engine: all but the last one.
  run.samples.clear();
  run.info.durationS = 9;
  EXPECT_THAT(loaded({1, 2, 3.2}), ElementsAre(1, 2));
  EXPECT_THAT(loaded({1, 2}), ElementsAre(1));
  EXPECT_THAT(loaded({8.9}), ElementsAre(8.9)) << "a single one, if the run is as long";
  EXPECT_THAT(loaded({9.5}), ElementsAre());
  EXPECT_THAT(loaded({}), ElementsAre());
}

TEST(RunSummary, RatesThatAreAllZeroHaveTheMedianZero) {
  scope::Run run;
  run.rates = {{1, "cpuStress", 0}, {2, "cpuStress", 0}};
  EXPECT_DOUBLE_EQ(Summarise(Completed(run)).PrintedOf("cpu")->median, 0);
  EXPECT_EQ(Summarise(Completed(run)).PrintedOf("cpu")->rates.size(), 2U);
}

}  // namespace
