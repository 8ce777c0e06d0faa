// SPDX-License-Identifier: Apache-2.0
#include "compare_findings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "engine_rows.h"
#include "run_error.h"
#include "stream_runs.h"

namespace {

using ::testing::IsEmpty;
using namespace scope;

scope::Run Complete() {
  scope::Run run;
  run.info.complete = true;
  return run;
}

// A run whose counter grows by `growth`.
scope::Run Counting(const char* source, const char* name, double growth) {
  scope::Run run = Complete();
  run.counters = {{1, source, name, "errors", 7}, {2, source, name, "errors", 7 + growth}};
  return run;
}

scope::Run Failing(std::uint64_t failures) {
  scope::Run run = Complete();
  for (int second = 1; second <= 3; ++second) {
    Sample sample;
    sample.timeS = second;
    sample.engine = "cpu";
    sample.operations = 10;
    sample.failures = second == 2 ? failures : 0;
    run.samples.push_back(sample);
  }
  return run;
}

std::vector<Finding> Findings(const std::vector<scope::Run>& a, const std::vector<scope::Run>& b) {
  std::vector<SummarisedRun> sides[2];
  for (const scope::Run& run : a) sides[0].push_back({&run, Summarise(Completed(run))});
  for (const scope::Run& run : b) sides[1].push_back({&run, Summarise(Completed(run))});
  return CompareTroubles(sides[0], sides[1]);
}

TEST(CompareFindings, NoneWhereNothingIsAmiss) {
  EXPECT_THAT(Findings({Failing(0)}, {Counting("edac", "mc0 ce_count", 0)}), IsEmpty());
  EXPECT_THAT(Findings({Complete()}, {Counting("thermal", "zone0", 9)}), IsEmpty());
}

EngineCheck Check(const char* engine, const char* state) {
  EngineCheck check;
  check.engine = engine;
  check.state = state;
  return check;
}

// A judged run with an error of the engine at each of `times`.
scope::Run Checked(const std::vector<double>& times) {
  scope::Run run = Complete();
  run.info.conditions.verify = true;
  run.info.config.levels = {{"vpc", 1}, {"cpu", 0}};
  run.info.verification = {Check("vpc", "judged")};
  for (const double timeS : times) {
    RunError error;
    error.timeS = timeS;
    error.source = "vpc";
    error.what = "result";
    run.errors.push_back(error);
  }
  if (!times.empty()) run.info.errors = {{"vpc", times.size()}};
  return run;
}

std::string Errors(const std::vector<scope::Run>& runs, std::size_t failedRuns = 0) {
  std::vector<SummarisedRun> side;
  for (const scope::Run& run : runs) side.push_back({&run, {}});
  return TimeToFailure(side, "B", failedRuns);
}

TEST(CompareFindings, WrongResultsComeFirst) {
  scope::Run both = Checked({3, 4});
  both.info.complete = false;
  const auto findings = Findings({Checked({})}, {both});
  ASSERT_EQ(findings.size(), 2U);
  EXPECT_EQ(findings[0].text, "vpc: wrong results in 1 of 1 run of B (2 in all), in none of A");
  EXPECT_TRUE(findings[0].worse);
}

TEST(CompareFindings, ChangesOfGuardedMemoryAreMemoryErrors) {
  scope::Run changed = Complete();
  changed.info.guard.bytes = 1;
  changed.info.errors = {{"guard", 2}};
  const auto findings = Findings({Complete()}, {changed});
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].text, "guard: memory errors in 1 of 1 run of B (2 in all), in none of A");
  EXPECT_TRUE(findings[0].worse);
}

TEST(CompareFindings, TimeToTheFirstErrorIsToldOverTheRepeats) {
  EXPECT_EQ(Errors({Checked({7, 8}), Checked({}), Checked({2.5}), Checked({4})}),
            "errors in 3 of 4 runs of B; time to the first error: 2.5 s at the least, 4.0 s in the median");
}

TEST(CompareFindings, NoErrorInSomeRunsBoundsTheFailureRate) {
  EXPECT_EQ(Errors(std::vector<scope::Run>(12, Checked({}))),
            "no error in 12 runs of B: failure rate below 0.25 per run, 95 %");
  EXPECT_EQ(Errors({Checked({})}), "no error in 1 run of B: failure rate below 1 per run, 95 %");
}

TEST(CompareFindings, RunsThatFailedLeaveTheFailureRateUnbounded) {
  EXPECT_EQ(Errors(std::vector<scope::Run>(12, Checked({})), 1), "no error in 12 runs of B (1 more failed)");
  EXPECT_EQ(Errors({Checked({}), Complete()}, 2),
            "no error in 1 run of B (1 more not fully judged, 2 more failed)");
  EXPECT_EQ(
      Errors({Checked({7})}, 3),
      "errors in 1 of 1 run of B (3 more failed); time to the first error: 7.0 s at the least, 7.0 s in "
      "the median");
}

// Its run.json is of the run's first second, and may have some of them.
TEST(CompareFindings, ErrorsOfARunThatWasCutOffAreThoseOfItsTable) {
  scope::Run run = Complete();
  run.info.complete = false;
  run.info.errors = {{"venc", 5}, {"guard", 1}};
  for (const char* const source : {"guard", "cpu", "guard", "venc"}) {
    run.errors.emplace_back();
    run.errors.back().source = source;
  }
  EXPECT_EQ(ErrorCounts(run), (SourceErrors{{"venc", 5}, {"guard", 2}, {"cpu", 1}}));
}

TEST(CompareFindings, OnlyRunsThatWereJudgedAreRunsWithoutErrors) {
  scope::Run unjudged = Checked({});
  unjudged.info.verification = {Check("vpc", "sources change")};
  EXPECT_EQ(Errors({unjudged, unjudged}), "no error in 2 runs of B, but none of them was fully judged");
  EXPECT_EQ(Errors({Complete()}), "") << "nobody asked";
  EXPECT_EQ(Errors({Checked({}), Checked({}), unjudged, Complete()}),
            "no error in 2 runs of B (2 more not fully judged): failure rate below 1 per run, 95 %");
  EXPECT_EQ(
      Errors({Checked({7}), unjudged}),
      "errors in 1 of 1 run of B (1 more not fully judged); time to the first error: 7.0 s at the least, "
      "7.0 s in the median");
  unjudged.info.errors = {{"guard", 1}};
  EXPECT_EQ(Errors({unjudged}), "errors in 1 of 1 run of B") << "whatever was judged";
}

TEST(CompareFindings, LookingForErrorsIsJudgingEachEngineOrWatchingMemory) {
  RunInfo info = Checked({}).info;
  EXPECT_TRUE(AreResultsJudged(info));
  EXPECT_TRUE(LooksForErrors(info));
  info.config.levels.emplace_back("aic", 1);
  EXPECT_FALSE(LooksForErrors(info)) << "an engine that never worked";
  info.verification.push_back(Check("aic", "learning"));
  EXPECT_FALSE(LooksForErrors(info));
  info.guard.bytes = 1;
  info.guard.walks = 1;
  EXPECT_FALSE(LooksForErrors(info)) << "the guard does not look at results, which was asked for";
  info.verification.back().state = "judged";
  EXPECT_TRUE(LooksForErrors(info));
  info.verification.back().state = kPartlyJudged;
  EXPECT_FALSE(LooksForErrors(info)) << "one thread says nothing of the others";
  info.verification.clear();
  EXPECT_FALSE(LooksForErrors(info)) << "the recorder was killed";
  info = RunInfo();
  EXPECT_FALSE(LooksForErrors(info));
  info.guard.bytes = 1;
  EXPECT_FALSE(LooksForErrors(info)) << "the guard did not come round";
  info.guard.walks = 1;
  EXPECT_TRUE(LooksForErrors(info));
  info = RunInfo();
  info.counters = {{"edac", false, "no memory controller"}, {"thermal", true, ""}};
  EXPECT_FALSE(LooksForErrors(info));
  info.counters[0].present = true;
  EXPECT_TRUE(LooksForErrors(info));
}

TEST(CompareFindings, HowManyThreadsWereJudgedIsTold) {
  RunInfo info = Checked({}).info;
  EngineCheck& check = info.verification[0];
  check = {"vpc", kPartlyJudged, 8, 4, 4, 50, 100, 0, 0, 0, 3, 2};
  EXPECT_EQ(
      CheckText(check),
      "vpc: only 2 of 3 threads judged: 50 % of the results' bytes checked, in 50 % of the operations, 4 "
      "whole results; no error in what was judged");
  EXPECT_EQ(NotJudged(info), std::vector<std::string>{
                                 "vpc: not judged: 1 of 3 threads: too few operations, none with the same "
                                 "source, or too different results, to learn what is right"});
  check.leftOut = true;
  EXPECT_THAT(CheckText(check),
              testing::EndsWith("judged; some sources left out: more different ones than the "
                                "meter tells apart"));
  EXPECT_THAT(NotJudged(info)[0],
              testing::EndsWith("what is right; more different sources than the meter tells "
                                "apart: some were left out"));
  check.judgedThreads = 3;
  EXPECT_EQ(NotJudged(info)[0],
            "vpc: not judged: more different sources than the meter tells apart: some were left out");
  check.leftOut = false;
  check.errors = 2;
  EXPECT_THAT(CheckText(check), testing::EndsWith("4 whole results; 2 errors"));
  check.state = "judged";
  EXPECT_THAT(CheckText(check), testing::StartsWith("vpc: 50 % of the results' bytes"));
  EXPECT_THAT(NotJudged(info), IsEmpty());
  EXPECT_THAT(CheckText(check), testing::Not(testing::HasSubstr("one thread")));
  for (const char* const state : {"judged", kPartlyJudged}) {
    check.state = state;
    check.judgedThreads = 1;
    check.engine = "vpc";
    EXPECT_THAT(CheckText(check),
                testing::EndsWith(
                    "; 2 errors; one thread only: what is wrong from its first operation on is not seen"));
    check.engine = "cpu";
    EXPECT_THAT(CheckText(check), testing::EndsWith("; 2 errors")) << "a copy has its source";
  }
}

// A run with these hashes of a kind of stream.
scope::Run Encoded(const char* folder, const std::vector<std::string>& groups, const char* key = "1") {
  scope::Run run = Complete();
  run.folder = folder;
  run.info.conditions.verify = true;
  run.info.conditions.encoderEngines = {{"0", "libx264"}, {"1", "libx264"}};
  run.info.verification = {Check("venc", "alone")};
  run.info.streams = {{"0", {"always"}}, {key, groups}};
  return run;
}

std::vector<std::string> Streams(const std::vector<scope::Run>& runs) {
  std::vector<const scope::Run*> all;
  for (const scope::Run& run : runs) all.push_back(&run);
  return DifferentStreams(all);
}

constexpr const char* kWhy =
    " of a channel: something was wrong in one of them, or the encoder does not always make the same streams";

TEST(StreamRuns, ARunWhoseStreamsDifferIsNamed) {
  EXPECT_THAT(Streams({Encoded("a", {"1", "2"}), Encoded("b", {"1", "2", "3"}), Encoded("c", {"", "2"})}),
              IsEmpty());
  const std::vector<std::string> one = {
      "venc: of equal frames, the streams of b differ from those of a, first in frames 17 to 48" +
      std::string(kWhy)};
  EXPECT_EQ(Streams({Encoded("a", {"1", "2", "3"}), Encoded("b", {"1", "4", "5"})}), one);
  EXPECT_EQ(Streams({Encoded("b", {"1", "4", "5"}), Encoded("a", {"1", "2", "3"}), Encoded("c", {"1", "2"})}),
            one)
      << "most agree";
  EXPECT_THAT(Streams({Encoded("a", {"1"}), Encoded("b", {"2"}, "2")}), IsEmpty())
      << "other frames or settings";
}

TEST(StreamRuns, OnlyRunsThatMustHaveTheSameStreamsAreCompared) {
  const scope::Run one = Encoded("a", {"1"});
  const scope::Run two = Encoded("b", {"2"});
  ASSERT_EQ(Streams({one, two}).size(), 1U);
  const auto without = [&](const std::function<void(RunInfo & info)>& change) {
    scope::Run other = two;
    change(other.info);
    return Streams({one, other});
  };
  for (const char* const state : {"not deterministic", "sources change", "unreadable", "unknown"}) {
    EXPECT_THAT(without([state](RunInfo& info) { info.verification[0].state = state; }), IsEmpty());
  }
  EXPECT_THAT(without([](RunInfo& info) { info.verification.clear(); }), IsEmpty());
  EXPECT_THAT(without([](RunInfo& info) { info.conditions.encoderEngines[1].second = "other"; }), IsEmpty());
  EXPECT_THAT(without([](RunInfo& info) { info.conditions.encoderEngines = {{"0", "other"}}; }), IsEmpty());
  EXPECT_THAT(without([](RunInfo& info) { info.conditions.buildType = "Debug"; }), IsEmpty());
  EXPECT_THAT(without([](RunInfo& info) { info.conditions.cpuModel = "another"; }), IsEmpty());
  EXPECT_THAT(without([](RunInfo& info) { info.conditions.libraryVersions = {{"libx264", "2"}}; }),
              IsEmpty());
  EXPECT_THAT(without([](RunInfo& info) { info.conditions.platformSettings = {{"memory", "2"}}; }),
              IsEmpty());
  EXPECT_THAT(without([](RunInfo& info) { info.tool = "another version"; }), IsEmpty());
  EXPECT_THAT(without([](RunInfo& info) { info.streams[1].groups = std::vector<std::string>(100, "1"); }),
              IsEmpty())
      << "more than there can be";
  EXPECT_EQ(without([](RunInfo& info) { info.conditions.kernel = "another"; }).size(), 1U);
}

TEST(CompareFindings, MemoryErrorsInBAloneAreWorse) {
  const auto findings = Findings({Complete(), Complete()}, {Complete(), Counting("edac", "mc0 ce_count", 3)});
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].text, "memory errors in 1 of 2 runs of B (3 in all), in none of A");
  EXPECT_TRUE(findings[0].worse);
}

TEST(CompareFindings, WhatOnlyAHasIsToldAndNotWorse) {
  const auto findings = Findings({Counting("throttle", "cpu0", 2)}, {Complete()});
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].text, "throttled for heat in 1 of 1 run of A (2 in all), in none of B");
  EXPECT_FALSE(findings[0].worse);
}

TEST(CompareFindings, WhatBothHaveIsWorseOnlyIfItIsClearlyMore) {
  const auto isWorse = [](const std::vector<std::uint64_t>& a, const std::vector<std::uint64_t>& b) {
    std::vector<scope::Run> runs[2];
    for (const std::uint64_t failures : a) runs[0].push_back(Failing(failures));
    for (const std::uint64_t failures : b) runs[1].push_back(Failing(failures));
    const auto findings = Findings(runs[0], runs[1]);
    EXPECT_EQ(findings.size(), 1U);
    return findings.at(0).worse;
  };
  EXPECT_FALSE(isWorse({5, 5}, {6, 10}));
  EXPECT_FALSE(isWorse({1, 5}, {11, 10})) << "one run of B has only twice as much";
  EXPECT_TRUE(isWorse({1, 5}, {11, 12}));
  EXPECT_FALSE(isWorse({1, 5}, {0, 100})) << "not each run of B has it";
}

TEST(CompareFindings, IncompleteRunsAreToldWithTheirReason) {
  scope::Run incomplete;
  incomplete.info.incompleteReason = "the power went";
  auto findings = Findings({Complete()}, {incomplete});
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].text, "incomplete runs in 1 of 1 run of B (the power went), in none of A");
  EXPECT_TRUE(findings[0].worse);
  findings = Findings({incomplete}, {incomplete, incomplete});
  EXPECT_EQ(findings.at(0).text,
            "incomplete runs in 1 of 1 run of A (the power went), in 2 of 2 runs of B (the power went)");
  EXPECT_FALSE(findings[0].worse);
}

}  // namespace
