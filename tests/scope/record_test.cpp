// SPDX-License-Identifier: Apache-2.0

// A recording of a program that sends what a script says, as a meter would.
#include "record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "error_of.h"
#include "guarded.h"
#include "latency_buckets.h"
#include "on_one_cpu.h"
#include "report.h"
#include "run_reader.h"
#include "temporary_folder.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

/// Keeps what is shown of every second.
struct Shown : scope::View {
  void Second(const scope::Figures& figures, double /*timeS*/, double /*runTimeS*/) override {
    for (const auto& [engine, second] : figures.Last()) seconds[engine].push_back(second);
  }

  std::map<std::string, std::vector<scope::EngineSample>> seconds;
};

std::string Bucket(std::uint64_t ns) {
  return std::to_string(scope::BucketOf(ns));
}

// The threads of the cpu differ: their medians are 1 and 3 us, and their 99th percentiles 1 us and 9 ms. The
// number of operations grows from second to second.
std::string Script(int seconds) {
  std::string script;
  for (int second = 1; second <= seconds; ++second) {
    const auto count = [second](int operations) { return std::to_string(operations + second) + " "; };
    script += "sample 0 0 " + Bucket(1'000) + " " + count(600) + "\n";
    script += "sample 0 1 " + Bucket(2'000) + " 200 " + Bucket(3'000) + " " + count(500) + Bucket(9'000'000) +
              " 9\n";
    script += "sample 2 0 " + Bucket(20'000'000) + " " + count(40) + "\n";
    script += "print cpuStress : 7.500000 fps. ispStress : 30.0 fps.\n";
    script += "second " + std::to_string(1000 * second + 20) + "\n";
  }
  return script;
}

class RecordTest : public ::testing::Test {
 protected:
  scope::RecordResult Record(const std::string& config, const std::string& script, scope::View& view,
                             scope::RecordOptions options = {}) {
    options.benchmark = SCRIPTED_METER;
    options.meter = IDLE_LIBRARY;
    options.config = folder_.Put("c.yaml", config);
    options.extra = {folder_.Put("script", script)};
    options.folder = run_;
    options.systemRoot = folder_ / "no-system";
    scope::Signals signals;
    return scope::Record(options, view, signals);
  }

  TemporaryFolder folder_;
  std::string run_ = folder_ / "run";
};

TEST_F(RecordTest, SavesMissedDeadlinesAndIsLateAboveTheShareThatMayMiss) {
  scope::RecordOptions options;
  options.deadlines = {{"cpu", 5'000}};
  options.force = true;
  for (const bool late : {false, true}) {
    options.failOver = late ? 0.02 : 0.04;
    scope::View view;
    const scope::RecordResult result =
        Record("CPU:\n  Level: 2\n", Script(1) + "deadline 0 300 9\nsecond 1030\n", view, options);
    EXPECT_EQ(result.late, late);
    EXPECT_TRUE(result.complete) << result.reason;
    const scope::RunInfo info = scope::ReadRun(run_).info;
    ASSERT_EQ(info.deadlines.size(), 1U);
    EXPECT_EQ(info.deadlines[0].engine, "cpu");
    EXPECT_EQ(info.deadlines[0].missed, 9U);
  }
  EXPECT_THAT(scope::ReportText(scope::ReadRuns({run_}), 80),
              testing::HasSubstr(
                  "\n  deadline cpu 5.00 us: 3 % of 300 operations late (9), at most 9 in a row, longest "));
}

TEST_F(RecordTest, SaysWhatOfEachEngineWasFilled) {
  scope::RecordOptions options;
  options.fill = "random";
  options.force = true;
  scope::View view;
  const std::string config = "CPU:\n  Level: 2\nVENC:\n  Level: 1\n";
  const auto text = [this] { return scope::ReportText(scope::ReadRuns({run_}), 80); };
  (void)Record(config, Script(1) + "fill 0 2 0\nfill 2 0 3\nfill 4 3 1\nsecond 1030\n", view, options);
  EXPECT_THAT(text(), AllOf(HasSubstr("\n  filled cpu: 2 buffers, 0.002 MB\n  filled venc: nothing\n"
                                      "  filled vpc_copy: 3 buffers, 0.003 MB\n"),
                            HasSubstr("  warning: venc: nothing was filled with random: not writable, or"),
                            HasSubstr("  warning: vpc_copy: 1 of 4 buffers not filled with random: not"),
                            Not(HasSubstr("cpu: nothing"))));
  EXPECT_EQ(scope::ReadRun(run_).info.conditions.fill, "random") << "what was asked for";
  EXPECT_EQ(scope::ReadRun(run_).info.filling.at(1).refused, 3U);
  (void)Record(config, Script(1), view, options);
  for (const char* const engine : {"cpu", "venc"}) {
    EXPECT_THAT(text(), HasSubstr(std::string("  warning: ") + engine +
                                  ": nothing was filled with random: no source was seen that can be"));
  }
  options.fill.clear();
  (void)Record(config, Script(1), view, options);
  EXPECT_THAT(text(), Not(HasSubstr("filled")));
}

TEST_F(RecordTest, TheLiveTableTheFolderAndTheReportTellTheSameOfASecond) {
  constexpr int kSeconds = 12;
  Shown shown;
  const scope::RecordResult result = Record("CPU:\n  Level: 2\nVENC:\n  Level: 1\n", Script(kSeconds), shown);
  EXPECT_TRUE(result.complete) << result.reason;
  const std::vector<scope::ReportedRun> reported = scope::ReadRuns({run_});
  const scope::Run& run = reported[0].run;
  EXPECT_THAT(run.notes, IsEmpty());
  const std::string page = scope::ReportPage(reported);
  const std::size_t from = page.find('>', page.find("id=\"report-data\"")) + 1;
  const auto data = nlohmann::json::parse(page.substr(from, page.find('<', from) - from));
  ASSERT_EQ(reported[0].summary.engines.size(), 2U);
  for (std::size_t i = 0; i < 2; ++i) {
    const scope::EngineSummary& engine = reported[0].summary.engines[i];
    const std::vector<scope::EngineSample>& live = shown.seconds[engine.engine];
    ASSERT_EQ(live.size(), std::size_t{kSeconds});
    ASSERT_EQ(engine.seconds.size(), live.size());
    std::vector<scope::EngineSample> saved;
    for (const scope::EngineSample& row : run.seconds) {
      if (row.engine == engine.engine) saved.push_back(row);
    }
    ASSERT_EQ(saved.size(), live.size());
    const nlohmann::json& drawn = data["runs"][0]["engines"][i]["seconds"];
    for (std::size_t at = 0; at < live.size(); ++at) {
      EXPECT_EQ(live[at].second, static_cast<int>(at) + 1);
      EXPECT_EQ(saved[at].second, live[at].second);
      EXPECT_EQ(drawn["second"][at], live[at].second);
      EXPECT_NEAR(saved[at].timeS, static_cast<double>(at) + 1.02, 0.5);
      for (const scope::Work* work : {static_cast<const scope::Work*>(&saved[at]),
                                      static_cast<const scope::Work*>(&engine.seconds[at])}) {
        EXPECT_EQ(work->operations, live[at].operations);
        EXPECT_EQ(work->p50Ns, live[at].p50Ns);
        EXPECT_EQ(work->p99Ns, live[at].p99Ns);
        EXPECT_EQ(work->maxNs, live[at].maxNs);
      }
      EXPECT_NEAR(engine.seconds[at].operationsPerS, live[at].operationsPerS, 1);
      EXPECT_NEAR(drawn["p50"][at].get<double>() * 1e3, static_cast<double>(live[at].p50Ns), 100);
      EXPECT_NEAR(drawn["p99"][at].get<double>() * 1e3, static_cast<double>(live[at].p99Ns), 100);
    }
  }
  // Of all threads together, half took 2 us or less, and 99 of 100 took 3 us or less.
  const scope::EngineSample& first = shown.seconds["cpu"][0];
  EXPECT_EQ(first.operations, 601U + 200 + 501 + 9);
  EXPECT_NEAR(static_cast<double>(first.p50Ns), 2'000, 20);
  EXPECT_NEAR(static_cast<double>(first.p99Ns), 3'000, 30);
  EXPECT_GE(first.maxNs, 9'000'000U);
  EXPECT_EQ(first.threads, 2);
}

// The memory controllers count on during the run: a file of the tree that the recorder reads grows.
TEST_F(RecordTest, MemoryErrorsOfAControllerAreErrorsOfTheRun) {
  const std::string counter = "system/sys/devices/system/edac/mc/mc0/ce_count";
  folder_.Put(counter, "7\n");
  struct Growing : scope::View {
    void Second(const scope::Figures& /*figures*/, double /*timeS*/, double /*runTimeS*/) override { grow(); }
    std::function<void()> grow;
  } view;
  view.grow = [&] { folder_.Put(counter, "10\n"); };
  scope::RecordOptions options;
  options.benchmark = SCRIPTED_METER;
  options.meter = IDLE_LIBRARY;
  options.config = folder_.Put("c.yaml", "CPU:\n  Level: 1\n");
  options.extra = {folder_.Put("script", Script(2))};
  options.folder = run_;
  options.systemRoot = folder_ / "system";
  scope::Signals signals;
  const scope::RecordResult result = scope::Record(options, view, signals);
  EXPECT_EQ(result.errors, 3U);
  const scope::Run run = scope::ReadRun(run_);
  ASSERT_EQ(run.errors.size(), 1U);
  EXPECT_EQ(run.errors[0].source, "edac");
  EXPECT_EQ(run.errors[0].note, "3 more of mc0/ce_count");
  EXPECT_EQ(run.info.errors, (std::vector<std::pair<std::string, std::uint64_t>>{{"edac", 3}}));
  // The first values are from before the benchmark's start: what is counted while it starts is of this run.
  ASSERT_FALSE(run.counters.empty());
  EXPECT_EQ(run.counters.front().source, "edac");
  EXPECT_EQ(run.counters.front().timeS, 0);
}

// A recording with 1 MiB of guarded memory, to which `harm` does something.
struct Guarded {
  scope::RecordResult result;
  scope::Run run;
};

/// Records two seconds of the scripted meter with `options`. `harm` does something in the first one, and
/// `atEnd` when the program has ended. `more` is the end of the script.
scope::RecordResult RecordHarmed(const TemporaryFolder& folder, scope::RecordOptions options,
                                 const std::function<void()>& harm,
                                 const std::function<void()>& atEnd = nullptr, const std::string& more = "") {
  struct Harming : scope::View {
    void Second(const scope::Figures& /*figures*/, double /*timeS*/, double /*runTimeS*/) override {
      if (harm) std::exchange(harm, nullptr)();
    }
    void End() override {
      if (atEnd) std::exchange(atEnd, nullptr)();
    }
    std::function<void()> harm;
    std::function<void()> atEnd;
  } view;
  view.harm = harm;
  view.atEnd = atEnd;
  options.benchmark = SCRIPTED_METER;
  options.meter = IDLE_LIBRARY;
  options.config = folder.Put("c.yaml", "CPU:\n  Level: 1\n");
  options.extra = {folder.Put("script", Script(2) + more)};
  options.folder = folder / "run";
  options.systemRoot = folder / "system";
  folder.Put("system/proc/meminfo", "MemAvailable: 4096 kB\n");
  scope::Signals signals;
  return scope::Record(options, view, signals);
}

Guarded RecordGuarded(const TemporaryFolder& folder, const std::function<void()>& harm,
                      const std::function<void()>& atEnd = nullptr) {
  scope::RecordOptions options;
  options.guard = "25%";
  options.guardRate = 5;  // the first three walks, which write nothing, take 0.6 s
  Guarded guarded{RecordHarmed(folder, options, harm, atEnd), {}};
  guarded.run = scope::ReadRun(folder / "run");
  return guarded;
}

constexpr std::uint64_t kGuardedBytes = std::uint64_t{1} << 20;

TEST_F(RecordTest, WhatTheGuardFindsIsAnErrorOfTheRun) {
  bool isFlipped = false;
  const Guarded guarded = RecordGuarded(folder_, [&isFlipped] {
    const pid_t guard = guarded::Process();
    isFlipped = guarded::Flip(guard, guarded::Address(guard, kGuardedBytes), 1'234'567);
  });
  ASSERT_TRUE(isFlipped);
  EXPECT_EQ(guarded.result.errors, 1U);
  EXPECT_TRUE(guarded.result.complete) << guarded.result.reason;
  ASSERT_EQ(guarded.run.errors.size(), 1U);
  EXPECT_EQ(guarded.run.errors[0].source, "guard");
  EXPECT_EQ(guarded.run.errors[0].offset, 1'234'567U / 64 * 8);
  const scope::RunInfo& info = guarded.run.info;
  EXPECT_EQ(info.errors, (std::vector<std::pair<std::string, std::uint64_t>>{{"guard", 1}}));
  EXPECT_EQ(info.conditions.guard, "25% at 5 MB/s");
  EXPECT_EQ(info.guard.bytes, kGuardedBytes);
  EXPECT_EQ(info.guard.errors, 1U);
  EXPECT_GE(info.guard.walks, 1U);
  const std::string text = scope::ReportText(scope::ReadRuns({run_}), 100);
  EXPECT_THAT(text, testing::HasSubstr("guard: guarded memory changed at byte 154320: expected 0x"));
  EXPECT_THAT(text, testing::HasSubstr("checked guard: 1 MiB of memory"));
}

TEST_F(RecordTest, ARunWhoseGuardDiesIsIncomplete) {
  bool isKilled = false;
  const Guarded guarded =
      RecordGuarded(folder_, [&isKilled] { isKilled = guarded::Signal(guarded::Process(), SIGKILL); });
  ASSERT_TRUE(isKilled);
  EXPECT_FALSE(guarded.result.complete);
  EXPECT_EQ(guarded.result.reason, "the guard was ended by SIGKILL: memory was not guarded from then on");
  EXPECT_EQ(guarded.run.info.incompleteReason, guarded.result.reason);
  // The kernel may have had no memory left.
  EXPECT_TRUE(guarded.result.recorderFailed);
}

// What only the guard's last walk makes them see: the guard is held until the recorder has read the counters
// at the program's end, and they count before it goes on.
TEST_F(RecordTest, WhatMemoryControllersCountDuringTheLastWalkIsAnErrorOfTheRun) {
  const std::string counter = "system/sys/devices/system/edac/mc/mc0/ue_count";
  folder_.Put(counter, "7\n");
  pid_t guard = -1;
  std::thread growth;
  bool isGrown = false;
  const Guarded guarded = RecordGuarded(
      folder_,
      [&guard] {
        guard = guarded::Process();
        ASSERT_TRUE(guarded::Signal(guard, SIGSTOP));
      },
      [&] {
        growth = std::thread([&, before = folder_.Get("run/counters.csv").size()] {
          const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
          while (!isGrown && std::chrono::steady_clock::now() < limit) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            isGrown = folder_.Get("run/counters.csv").size() > before;
          }
          folder_.Put(counter, "9\n");
          (void)guarded::Signal(guard, SIGCONT);
        });
      });
  growth.join();
  ASSERT_TRUE(isGrown);
  EXPECT_TRUE(guarded.result.complete) << guarded.result.reason;
  EXPECT_EQ(guarded.result.errors, 2U);
  ASSERT_EQ(guarded.run.errors.size(), 1U);
  EXPECT_EQ(guarded.run.errors[0].source, "edac");
  EXPECT_EQ(guarded.run.errors[0].what, "uncorrected");
  EXPECT_EQ(guarded.run.errors[0].note, "2 more of mc0/ue_count");
  EXPECT_GE(guarded.run.errors[0].timeS + 0.001, guarded.run.info.durationS) << "when the program had ended";
  EXPECT_EQ(guarded.run.info.errors, (std::vector<std::pair<std::string, std::uint64_t>>{{"edac", 2}}));
}

// The guard is stopped, so that its last walk would never end.
TEST_F(RecordTest, ASignalCutsTheLastWalkShortAndTheRunSaysSo) {
  pid_t guard = -1;
  const Guarded guarded = RecordGuarded(
      folder_,
      [&guard] {
        guard = guarded::Process();
        ASSERT_TRUE(guarded::Signal(guard, SIGSTOP));
      },
      [] { ASSERT_EQ(kill(getpid(), SIGINT), 0); });
  ASSERT_GT(guard, 0);
  EXPECT_TRUE(guarded.result.stopped);
  EXPECT_TRUE(guarded.result.complete) << guarded.result.reason;
  EXPECT_TRUE(guarded.run.info.guard.isCut);
  EXPECT_EQ(guarded.run.seconds.size(), 4U) << "of two engines";
  EXPECT_THAT(scope::ReportText(scope::ReadRuns({run_}), 100), testing::HasSubstr(", and one cut short"));
}

// The walk is at full speed, and is no load of the run. Here it does not begin before the probe has gone.
TEST_F(RecordTest, TheLatencyProbeEndsBeforeTheGuardsLastWalk) {
  scope::RecordOptions options;
  options.guard = "25%";
  options.latency = true;
  pid_t guard = -1;
  std::thread wait;
  bool isGone = false;
  const scope::RecordResult result = RecordHarmed(
      folder_, options,
      [&guard] {
        guard = guarded::Process();
        ASSERT_TRUE(guarded::Signal(guard, SIGSTOP));
      },
      [&] {
        wait = std::thread([&] {
          const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
          while (!isGone && std::chrono::steady_clock::now() < limit) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            isGone = guarded::Process("scope_latency") < 0;
          }
          (void)guarded::Signal(guard, SIGCONT);
        });
      });
  wait.join();
  EXPECT_TRUE(isGone) << "while the guard was stopped";
  EXPECT_TRUE(result.complete) << result.reason;
  const scope::Run run = scope::ReadRun(run_);
  EXPECT_FALSE(run.latency.empty());
  EXPECT_FALSE(run.info.guard.isCut);
}

TEST_F(RecordTest, ASignalWhileMemoryIsPreparedEndsTheRecordingBeforeItBegins) {
  for (const bool guarded : {true, false}) {
    scope::RecordOptions options;
    options.guard = guarded ? "25%" : "";
    options.latency = !guarded;
    // Before Record: it takes the signal as soon as it waits.
    const scope::Signals signals;
    ASSERT_EQ(kill(getpid(), SIGINT), 0);
    EXPECT_THAT(::ErrorOf([&] { (void)RecordHarmed(folder_, options, nullptr); }),
                testing::HasSubstr("; nothing was recorded"));
    EXPECT_FALSE(std::filesystem::exists(run_));
  }
}

/// A recording with a latency probe over 1 MiB, to which `harm` does something.
scope::RecordResult RecordLatency(const TemporaryFolder& folder, const std::function<void()>& harm,
                                  const std::string& more = "") {
  scope::RecordOptions options;
  options.latency = true;
  return RecordHarmed(folder, options, harm, nullptr, more);
}

TEST_F(RecordTest, WhatTheLatencyProbeMeasuredOnOneCpuIsInTheRun) {
  const OnOneCpu one;
  const scope::RecordResult result = RecordLatency(folder_, nullptr);
  EXPECT_TRUE(result.complete) << result.reason;
  const scope::Run run = scope::ReadRun(run_);
  const scope::LatencySummary& latency = run.info.latency;
  EXPECT_EQ(latency.bytes, std::uint64_t{1} << 20) << "a quarter of what is available";
  EXPECT_EQ(latency.cpu, one.Cpu());
  EXPECT_THAT(run.info.conditions.latency, AllOf(testing::StartsWith("1 MiB in pages of "),
                                                 HasSubstr(", CPU " + std::to_string(one.Cpu()))));
  ASSERT_FALSE(run.latency.empty());
  std::uint64_t bursts = 0;
  std::uint64_t accesses = 0;
  for (const scope::LatencySecond& second : run.latency) {
    bursts += second.bursts;
    accesses += second.accesses;
  }
  EXPECT_GT(bursts, 0U);
  EXPECT_EQ(bursts, latency.bursts);
  EXPECT_EQ(accesses, latency.accesses);
}

TEST_F(RecordTest, ARunWhoseLatencyProbeDiesIsIncomplete) {
  bool isKilled = false;
  const scope::RecordResult result = RecordLatency(
      folder_, [&isKilled] { isKilled = guarded::Signal(guarded::Process("scope_latency"), SIGKILL); });
  ASSERT_TRUE(isKilled);
  EXPECT_FALSE(result.complete);
  EXPECT_EQ(result.reason,
            "the latency probe was ended by SIGKILL: the latency of memory was not measured from then on");
  EXPECT_EQ(scope::ReadRun(run_).info.incompleteReason, result.reason);
}

// In mid-run, when it has measured a second. What it and all others have measured stays.
TEST_F(RecordTest, ALatencyProbeThatCrashesIsOfTheBoardAndLosesNothingElse) {
  std::atomic<bool> isCrashed{false};
  std::thread crash;
  const auto rows = [this](const std::string& file) {
    const std::string text = folder_.Get("run/" + file);
    return std::count(text.begin(), text.end(), '\n') - 1;
  };
  const scope::RecordResult result = RecordLatency(
      folder_,
      [&] {
        crash = std::thread([&] {
          const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
          while (std::chrono::steady_clock::now() < limit &&
                 (rows("latency.csv") < 1 || rows("seconds.csv") < 4 || rows("rates.csv") < 2)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
          }
          isCrashed = guarded::Signal(guarded::Process("scope_latency"), SIGABRT);
          folder_.Put("crashed", "");
        });
      },
      "await " + (folder_ / "crashed") + "\n");
  crash.join();
  ASSERT_TRUE(isCrashed);
  EXPECT_FALSE(result.complete);
  EXPECT_FALSE(result.recorderFailed) << "as if memory were bad";
  EXPECT_EQ(result.reason,
            "the latency probe was ended by SIGABRT: the latency of memory was not measured from then on");
  const scope::Run run = scope::ReadRun(run_);
  EXPECT_EQ(run.info.incompleteReason, result.reason);
  ASSERT_GE(run.latency.size(), 1U);
  std::uint64_t bursts = 0;
  for (const scope::LatencySecond& second : run.latency) bursts += second.bursts;
  EXPECT_GT(bursts, 0U);
  EXPECT_EQ(run.info.latency.bursts, bursts);
  EXPECT_EQ(run.info.latency.bytes, std::uint64_t{1} << 20);
  EXPECT_EQ(run.seconds.size(), 4U) << "of two engines";
  EXPECT_EQ(run.samples.size(), 6U);
  EXPECT_EQ(run.rates.size(), 2U);
  EXPECT_FALSE(run.histogram.empty());
  EXPECT_FALSE(run.counters.empty());
}

TEST_F(RecordTest, ARunWhoseControlDiesIsIncomplete) {
  scope::RecordOptions options;
  options.control = {{1, 100, 20'000}};
  bool hasDied = false;
  const scope::RecordResult result = RecordHarmed(folder_, options, [&hasDied] {
    const pid_t control = guarded::Process("scope_control");
    // The recorder reaps it.
    siginfo_t ending{};
    hasDied = guarded::Signal(control, SIGKILL) &&
              waitid(P_PID, static_cast<id_t>(control), &ending, WEXITED | WNOWAIT) == 0;
  });
  ASSERT_TRUE(hasDied);
  EXPECT_FALSE(result.complete);
  EXPECT_TRUE(result.recorderFailed);
  EXPECT_EQ(result.reason,
            "the control was ended by SIGKILL: nothing computed beside the benchmark from then on");
  EXPECT_EQ(scope::ReadRun(run_).info.incompleteReason, result.reason);
}

TEST_F(RecordTest, AMissingSecondLeavesOutANumber) {
  Shown shown;
  const scope::RecordResult result = Record("CPU:\n  Level: 1\n",
                                            "sample 0 0 1000 5\nsecond 1000\nsample 0 0 1000 5\nsecond 2000\n"
                                            "sample 0 0 1000 5\nsecond 5000\n",
                                            shown);
  EXPECT_TRUE(result.complete) << result.reason;
  const scope::Run run = scope::ReadRun(run_);
  ASSERT_EQ(run.seconds.size(), 3U);
  EXPECT_EQ(run.seconds[1].second, 2);
  EXPECT_EQ(run.seconds[2].second, 5);
  ASSERT_EQ(run.notes.size(), 1U);
  EXPECT_THAT(run.notes[0], ::testing::HasSubstr("no sample of cpu thread 0 between "));
}

}  // namespace
