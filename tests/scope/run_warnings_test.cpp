// SPDX-License-Identifier: Apache-2.0
#include "run_warnings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

#include "made_run.h"

namespace {

using scope::DriftAtEnd;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::vector<std::string> WarningsOf(const scope::Run& run) {
  std::vector<std::string> texts;
  for (const scope::Warning& warning : scope::Warnings(run, scope::Summarise(Completed(run))))
    texts.push_back(warning.text);
  return texts;
}

// The first warning with a time.
scope::Warning TimedWarning(const scope::Run& run) {
  for (const scope::Warning& warning : scope::Warnings(run, scope::Summarise(Completed(run)))) {
    if (warning.timeS) return warning;
  }
  return {};
}

// The made run without the copies, which take less than a millisecond.
scope::Run QuietRun() {
  scope::Run run = made_run::Run();
  const auto isCpu = [](const auto& row) { return row.engine == "cpu"; };
  run.samples.erase(std::remove_if(run.samples.begin(), run.samples.end(), isCpu), run.samples.end());
  run.histogram.erase(std::remove_if(run.histogram.begin(), run.histogram.end(), isCpu), run.histogram.end());
  return run;
}

TEST(RunWarnings, NoneWhereNothingIsAmiss) {
  EXPECT_THAT(WarningsOf(QuietRun()), IsEmpty());
}

TEST(RunWarnings, SayWhenAndOfWhichEngine) {
  scope::Run failing = QuietRun();
  scope::Run stopping = QuietRun();
  scope::Run drifting = QuietRun();
  for (std::size_t i = 0; i != failing.samples.size(); ++i) {
    const scope::Sample& sample = failing.samples[i];
    if (sample.engine != "venc") continue;
    if (sample.timeS == 12 || sample.timeS == 20) failing.samples[i].failures = 1;
    if (sample.timeS > 9) stopping.samples[i].operations = 0;
    drifting.samples[i].operations = 100 - static_cast<std::uint64_t>(sample.timeS);
  }
  EXPECT_EQ(TimedWarning(failing).timeS, 12);
  EXPECT_EQ(TimedWarning(failing).engine, "venc");
  EXPECT_EQ(TimedWarning(stopping).timeS, 9);
  EXPECT_EQ(TimedWarning(stopping).engine, "venc");
  EXPECT_EQ(TimedWarning(drifting).timeS, 21);

  scope::Run hot = QuietRun();
  for (int second = 1; second <= 40; ++second) {
    hot.counters.push_back(
        {static_cast<double>(second), "throttle", "cpu0", "events", second < 31 ? 7.0 : 8.0});
  }
  EXPECT_EQ(TimedWarning(hot).timeS, 31);
  EXPECT_EQ(TimedWarning(hot).engine, "");
}

TEST(RunWarnings, EncodersWithDifferentEngines) {
  scope::Run run = QuietRun();
  run.info.conditions.encoderEngines = {{"25", "libx264"}, {"26", "libx264"}};
  EXPECT_THAT(WarningsOf(run), IsEmpty());
  run.info.conditions.encoderEngines = {{"25", "h264_nvenc"}, {"26", "libx264"}};
  EXPECT_THAT(WarningsOf(run),
              ElementsAre("venc: the encoder's channels have different engines: 25 h264_nvenc, "
                          "26 libx264"));
}

TEST(RunWarnings, OperationsBelowAMillisecond) {
  EXPECT_THAT(WarningsOf(made_run::Run()),
              ElementsAre(AllOf(HasSubstr("cpu: 100 % of the operations take less than a millisecond"),
                                HasSubstr("do not use its printed rate"))));
}

TEST(RunWarnings, OperationsBelowAMillisecondOfARunWithoutAHistogram) {
  scope::Run run = made_run::Run();
  run.histogram.clear();
  EXPECT_THAT(WarningsOf(run), ElementsAre(HasSubstr("cpu: 100 % of the operations take less than")));
}

TEST(RunWarnings, BuildsForDebugging) {
  scope::Run run = QuietRun();
  for (const char* build : {"Debug", "RelWithDebInfo address,undefined", "Release thread"}) {
    run.info.conditions.buildType = build;
    EXPECT_THAT(WarningsOf(run), ElementsAre(HasSubstr("built as \"" + std::string(build) + "\"")));
  }
  for (const char* build : {"", "RelWithDebInfo"}) {
    run.info.conditions.buildType = build;
    EXPECT_THAT(WarningsOf(run), IsEmpty()) << build;
  }
}

TEST(RunWarnings, ADisturbedMachine) {
  scope::Run run = QuietRun();
  run.info.conditions.loadAverage = {9, 9, 9};  // perhaps of the tool's own last run
  for (int second = 1; second <= 10; ++second) {
    const double timeS = second;
    run.counters.push_back({timeS, "load", "others", "CPUs", second == 4 || second == 7 ? 0.15 : 0.1});
    run.counters.push_back({timeS, "load", "steal", "CPUs", second == 7 ? 0.85 : 0.05});
    run.counters.push_back({timeS, "pressure", "cpu", "%", 99});
  }
  EXPECT_THAT(WarningsOf(run),
              ElementsAre("disturbed: 1 of 10 seconds, in which others took more than 5 % of "
                          "the CPUs' time, at most 25 %"));
  EXPECT_EQ(TimedWarning(run).timeS, 7);
  EXPECT_EQ(scope::Disturbance(run, 6).text,
            "disturbed: 1 of 4 seconds, in which others took more than 5 % of the CPUs' time, at most 25 %");
  EXPECT_EQ(scope::Disturbance(run, 7).text, "") << "the second that ends at 7 s is left out";
  for (scope::CounterValue& value : run.counters) {
    if (value.source == "load") value.value /= 10;
  }
  EXPECT_THAT(WarningsOf(run), IsEmpty());
}

TEST(RunWarnings, WhatTheReaderNoted) {
  scope::Run run = QuietRun();
  run.notes = {"the run is incomplete: the power went"};
  EXPECT_THAT(WarningsOf(run), ElementsAre("the run is incomplete: the power went"));
}

TEST(RunWarnings, FailuresAndAnEngineThatStopped) {
  scope::Run run = QuietRun();
  for (scope::Sample& sample : run.samples) {
    if (sample.engine != "vpc" || sample.timeS <= 30) continue;
    sample.operations = 0;
    sample.failures = sample.timeS == 31 ? 3 : 0;
  }
  EXPECT_THAT(WarningsOf(run),
              ElementsAre("vpc: 3 operations failed", "vpc: no operation after 30 s of 41 s"));
  for (scope::Sample& sample : run.samples) {
    if (sample.engine == "vpc") sample.operations = 0;
  }
  EXPECT_THAT(WarningsOf(run), ElementsAre("vpc: 3 operations failed", "vpc: not one operation succeeded"));
}

TEST(RunWarnings, AThreadThatStopped) {
  scope::Run run = QuietRun();
  std::vector<scope::Sample> second;
  for (scope::Sample sample : run.samples) {
    if (sample.engine != "vpc") continue;
    sample.thread = 1;
    if (sample.timeS > 20) sample.operations = 0;
    second.push_back(sample);
  }
  run.samples.insert(run.samples.end(), second.begin(), second.end());
  EXPECT_THAT(WarningsOf(run),
              ::testing::Contains("vpc: 1 of 2 threads stopped, the first after 20 s of 41 s"));
}

TEST(RunWarnings, AnOperationThatTakesLongIsNoStop) {
  scope::Run run = QuietRun();
  for (scope::Sample& sample : run.samples) {
    if (sample.engine != "aic") continue;
    sample.operations = static_cast<int>(sample.timeS) % 10 == 5 ? 1 : 0;  // the last one at 35 s of 41 s
    sample.maxNs = sample.operations * 10'000'000'000;
  }
  EXPECT_THAT(WarningsOf(run), IsEmpty());
}

TEST(RunWarnings, RatesThatDrift) {
  scope::Run run = QuietRun();
  for (scope::Sample& sample : run.samples) {
    if (sample.engine == "venc") sample.operations = 100 - static_cast<std::uint64_t>(sample.timeS);
  }
  EXPECT_THAT(WarningsOf(run), ElementsAre(HasSubstr("venc: the rate is still drifting at the end, by -2")));
}

TEST(RunWarnings, PrintedRatesWithoutTheMeter) {
  scope::Run run = QuietRun();
  run.samples.clear();
  run.histogram.clear();
  for (scope::Rate& rate : run.rates) {
    if (rate.stress == "aicStress") rate.fps = 1000 + rate.timeS;
  }
  EXPECT_THAT(WarningsOf(run), ElementsAre(HasSubstr("cpuStress: every printed rate is 0"),
                                           HasSubstr("aicStress: printed rates above 1000 fps")));
}

TEST(RunWarnings, WhatTheCountersShow) {
  scope::Run run = QuietRun();
  for (int second = 0; second != 30; ++second) {
    const double timeS = second;
    run.counters.push_back({timeS, "cpufreq", "cpu0", "MHz", second < 10 ? 2400.0 : 1800.0});
    run.counters.push_back({timeS, "cpufreq", "cpu1", "MHz", second < 10 ? 2400.0 : 1900.0});
    run.counters.push_back({timeS, "cpufreq", "cpu2", "MHz", second == 10 ? 2400.0 : 2350.0});
    run.counters.push_back({timeS, "devfreq", "dmc", "Hz", second < 20 ? 2133e6 : 1066e6});
    run.counters.push_back({timeS, "edac", "mc0/ce_count", "errors", second < 20 ? 4.0 : 6.0});
    run.counters.push_back({timeS, "throttle", "cpu0", "events", 7.0 + second});
    run.counters.push_back({timeS, "throttle", "cpu1", "events", 7.0});
  }
  EXPECT_THAT(
      WarningsOf(run),
      ElementsAre("cpufreq: cpu0: slowed down from 2400 to 1800 MHz during the run (and 1 more of this kind)",
                  "devfreq: dmc: the frequency changed during the run, between 1066 and 2133 MHz",
                  "edac: mc0/ce_count: 2 memory errors during the run",
                  "throttle: cpu0: throttled 29 times during the run"));
}

TEST(DriftAtEnd, IsTheChangeOfTheSecondHalf) {
  std::vector<double> rates(20, 7.0);
  for (int i = 0; i != 21; ++i) rates.push_back(90 + i);
  EXPECT_NEAR(DriftAtEnd(rates), 0.2, 1e-9);
}

TEST(DriftAtEnd, IsNoneInNoiseInAStepAndInTooFew) {
  std::vector<double> noise;
  for (int i = 0; i != 40; ++i) noise.push_back(100 + (i * 7919 % 13) - 6);
  EXPECT_DOUBLE_EQ(DriftAtEnd(noise), 0);
  std::vector<double> early(40, 100.0);
  for (int i = 0; i != 20; ++i) early[static_cast<std::size_t>(i)] = 50 + i;
  EXPECT_DOUBLE_EQ(DriftAtEnd(early), 0) << "it had settled";
  EXPECT_DOUBLE_EQ(DriftAtEnd({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}), 0);
  EXPECT_DOUBLE_EQ(DriftAtEnd({}), 0);
  std::vector<double> rising(14);
  std::iota(rising.begin(), rising.end(), 100);
  EXPECT_DOUBLE_EQ(DriftAtEnd(rising), 0) << "seven values in the second half";
  rising.insert(rising.end(), {114, 115});
  EXPECT_GT(DriftAtEnd(rising), 0.05) << "eight of them";
}

TEST(Drift, IsReportedAboveTwoPercent) {
  const auto rising = [](double share) {
    std::vector<double> rates;
    for (int i = 0; i != 40; ++i) rates.push_back(1000 + (i - 29.5) / 19 * 1000 * share);
    return scope::Drift(rates);
  };
  EXPECT_EQ(rising(0.019), "");
  EXPECT_EQ(rising(0.021), "the rate is still drifting at the end, by +2.1 % over the second half");
  EXPECT_EQ(rising(-0.021), "the rate is still drifting at the end, by -2.1 % over the second half");
}

// Comparing all values would need 10^10 pairs.
TEST(DriftAtEnd, OfALongRunIsOfPartsOfIt) {
  std::vector<double> rates;
  for (int i = 0; i != 200'000; ++i) rates.push_back(1e6 + i);
  EXPECT_NEAR(DriftAtEnd(rates), 1e5 / 1.15e6, 0.001);
}

}  // namespace
