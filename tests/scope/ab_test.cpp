// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <iterator>
#include <nlohmann/json.hpp>
#include <thread>

#include "error_of.h"
#include "experiment_folder.h"
#include "experiment_plan.h"
#include "folder_lock.h"
#include "page_json.h"
#include "run_reader.h"
#include "run_tool.h"
#include "synthetic_run.h"
#include "temporary_folder.h"

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using namespace scope;

TEST(ExperimentPlanTest, RecordsEachSideOnceBeforeAnyAgain) {
  ExperimentSettings settings;
  settings.mostRuns = 21;
  settings.seed = 5;
  const auto runs = PlanExperiment(settings);
  ASSERT_EQ(runs.size(), 20U);
  int firstIsB = 0;
  for (std::size_t i = 0; i < runs.size(); i += 2) {
    EXPECT_NE(runs[i].isB, runs[i + 1].isB);
    firstIsB += runs[i].isB ? 1 : 0;
    const std::string number = i / 2 + 1 < 10 ? "00" + std::to_string(i / 2 + 1) : "010";
    EXPECT_EQ(runs[i].folder, (runs[i].isB ? "b/" : "a/") + number);
  }
  EXPECT_GT(firstIsB, 0);
  EXPECT_LT(firstIsB, 10);
  const auto order = [&settings](std::uint64_t seed) {
    settings.seed = seed;
    std::string letters;
    for (const ExperimentRun& run : PlanExperiment(settings)) letters += run.isB ? 'b' : 'a';
    return letters;
  };
  EXPECT_EQ(order(1), order(1));
  EXPECT_NE(order(1), order(2));
}

TEST(ExperimentPlanTest, LooksGrowAndShareTheConfidence) {
  EXPECT_THAT(LooksOf(32), ElementsAre(4, 6, 9, 14, 21, 32));
  EXPECT_THAT(LooksOf(5), ElementsAre(4, 5));
  EXPECT_THAT(LooksOf(4), ElementsAre(4));
  EXPECT_THAT(LooksOf(2), ElementsAre(2));
  ExperimentSettings settings;
  settings.warmupS = 3;
  settings.tolerancePercent = 7;
  settings.confidence = 0.9;
  const CompareOptions options = LookOptions(settings);
  EXPECT_EQ(options.looks, 6);
  EXPECT_TRUE(options.paired);
  EXPECT_EQ(options.skipS, 3);
  EXPECT_EQ(options.tolerancePercent, 7);
  EXPECT_EQ(options.confidence, 0.9);
}

TEST(ExperimentPlanTest, IsClearWhenMoreRunsWouldChangeNothing) {
  EXPECT_TRUE(IsClear(Answer::kWorse));
  EXPECT_TRUE(IsClear(Answer::kBetter));
  EXPECT_TRUE(IsClear(Answer::kNoDifference));
  EXPECT_FALSE(IsClear(Answer::kNotWorse));
  EXPECT_FALSE(IsClear(Answer::kCannotTell));
}

class AbTest : public ::testing::Test {
 protected:
  std::string Config() const { return folder_.Put("config.yaml", "logLevel: 3\nCPU:\n  Level: 1\n"); }

  std::string Folder() const { return folder_ / "ab"; }

  // A benchmark that prints the rate in the file "setting", changed by -3 to +3 from run to run. "log" lists
  // what was done.
  std::string Benchmark(const std::string& body = "") const {
    const std::string path =
        folder_.Put("benchmark", "#!/bin/sh\ncd " + folder_.Path() +
                                     "\nrate=$(cat setting)\necho \"run $rate\" >>log\n" + body +
                                     "\nruns=$(grep -c run log)\nrate=$((rate + runs * 3 % 7 - 3))\n"
                                     "echo \"cpuStress : $rate.000000 fps. ispStress : 30.0 fps.\"\n");
    (void)chmod(path.c_str(), 0755);
    return path;
  }

  std::string Setting(int rate) const {
    return "cd " + folder_.Path() + " && echo " + std::to_string(rate) + " >setting && echo set " +
           std::to_string(rate) + " >>log";
  }

  std::vector<std::string> Arguments(int rateOfA, int rateOfB, std::vector<std::string> more = {}) const {
    std::vector<std::string> arguments = {"ab",
                                          Config(),
                                          "-o",
                                          Folder(),
                                          "--benchmark",
                                          folder_ / "benchmark",
                                          "--no-meter",
                                          "--warmup",
                                          "0",
                                          "--seed",
                                          "1",
                                          "--a",
                                          Setting(rateOfA),
                                          "--b",
                                          Setting(rateOfB)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  // An experiment of at most six pairs, which are compared after four and after six of them. `shareOfB` is
  // the rate of B in a pair as a share of that of A.
  void PutRecorded(std::size_t pairs, const std::function<double(std::size_t)>& shareOfB) const {
    std::filesystem::remove_all(Folder());
    Experiment experiment;
    experiment.settings.commandA = "true";
    experiment.settings.commandB = "true";
    experiment.settings.mostRuns = 12;
    experiment.runs = PlanExperiment(experiment.settings);
    for (std::size_t i = 0; i < 2 * pairs; ++i) {
      ExperimentRun& run = experiment.runs[i];
      SyntheticEngine cpu;
      cpu.operationsPerS = (run.isB ? shareOfB(i / 2) : 1) * static_cast<double>(500 + i);
      WriteRun(Folder() + "/" + run.folder, {cpu});
      run.state = SweepState::kDone;
    }
    (void)folder_.Put("ab/config.yaml", "CPU:\n  Level: 1\n");
    WriteExperiment(Folder(), experiment);
  }

  TemporaryFolder folder_;
};

TEST_F(AbTest, SwitchesRecordsAndEndsWhenBIsWorse) {
  (void)Benchmark();
  const ToolResult result = RunTool(Arguments(1000, 900));
  EXPECT_EQ(result.status, 1) << result.errors;
  EXPECT_THAT(result.output,
              AllOf(HasSubstr("at most 64 runs, in random order of seed 1"),
                    HasSubstr("B: " + Setting(900) + " (4 runs)"),
                    HasSubstr("\nB is worse than A: cpu printed -9.71 % (-9.75 to -9.68).\n")));
  const Experiment experiment = ReadExperiment(Folder());
  EXPECT_EQ(experiment.settings.seed, 1U);
  EXPECT_EQ(experiment.settings.commandB, Setting(900));
  // The log: each run after the command that makes its setting, and no command that changes nothing.
  std::string wanted;
  bool isB = false;
  for (std::size_t i = 0; i < 8; ++i) {
    const ExperimentRun& run = experiment.runs[i];
    EXPECT_EQ(run.state, SweepState::kDone);
    EXPECT_EQ(ReadRun(Folder() + "/" + run.folder).info.label, run.isB ? "B" : "A");
    const std::string rate = run.isB ? "900\n" : "1000\n";
    if (i == 0 || run.isB != isB) wanted += "set " + rate;
    wanted += "run " + rate;
    isB = run.isB;
  }
  EXPECT_EQ(folder_.Get("log"), wanted);
  EXPECT_EQ(experiment.runs[8].state, SweepState::kPlanned);

  EXPECT_THAT(result.output, EndsWith("\nreport in " + Folder() + "/report.html\n"));
  const auto page = DataOf(folder_.Get("ab/report.html"));
  EXPECT_EQ(page.at("answer"), "worse");
  EXPECT_EQ(page.at("a").at("name"), Setting(1000));
  EXPECT_EQ(page.at("report").at("runs").size(), 8U);
  // The looks share the confidence on this page, too.
  const ToolResult report = RunTool({"report", Folder(), "-o", folder_ / "page.html"});
  EXPECT_EQ(report.status, 0) << report.errors;
  EXPECT_THAT(report.output, HasSubstr("\nB is worse than A: cpu printed -9.71 % (-9.75 to -9.68).\n"));
  EXPECT_EQ(DataOf(folder_.Get("page.html")), page);
  EXPECT_EQ(RunTool({"compare", Folder() + "/a", Folder() + "/b", "--skip", "0"}).status, 1);
}

TEST_F(AbTest, ReportNeedsARunOfEachSide) {
  (void)Benchmark();
  ASSERT_EQ(RunTool(Arguments(1000, 900)).status, 1);
  Experiment experiment = ReadExperiment(Folder());
  for (ExperimentRun& run : experiment.runs) {
    if (run.isB) run.state = SweepState::kPlanned;
  }
  WriteExperiment(Folder(), experiment);
  const ToolResult result = RunTool({"report", Folder()});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors,
              HasSubstr("ab: no run of B is recorded. Continue with: stress_scope ab --resume"));
  const ToolResult both = RunTool({"report", Folder() + "/a/001", Folder()});
  EXPECT_EQ(both.status, 2);
  EXPECT_THAT(both.errors, HasSubstr("ab is an experiment, and a report shows one of these or several runs"));
}

TEST_F(AbTest, EndsWhenBIsBetterOrDoesNotDiffer) {
  (void)Benchmark();
  EXPECT_EQ(RunTool(Arguments(900, 1000)).status, 0);
  std::filesystem::remove_all(Folder());
  const ToolResult same = RunTool(Arguments(1000, 1000));
  EXPECT_EQ(same.status, 0) << same.errors;
  EXPECT_THAT(same.output, HasSubstr("B and A do not differ by more than 2 %.\n"));
}

TEST_F(AbTest, EndsWithoutAnAnswerAfterTheMostRuns) {
  (void)Benchmark("rate=$((rate + $(grep -c run log) * 37 % 100))");
  const ToolResult unclear = RunTool(Arguments(300, 300, {"--max-runs", "12"}));
  EXPECT_EQ(unclear.status, 4) << unclear.output;
  EXPECT_THAT(unclear.output,
              AllOf(HasSubstr("run 12 of at most 12"), HasSubstr("after 4 runs of each: not clear yet"),
                    HasSubstr("Cannot tell: with 6 runs of A and 6 of B")));
  // All is recorded, so this shows the answer again.
  const std::string log = folder_.Get("log");
  const ToolResult again = RunTool({"ab", "--resume", Folder(), "--allow-unclear"});
  EXPECT_EQ(again.status, 0) << again.errors;
  EXPECT_THAT(again.output, HasSubstr("Cannot tell: with 6 runs of A and 6 of B"));
  EXPECT_EQ(folder_.Get("log"), log);
}

TEST_F(AbTest, ACommandThatFailsEndsTheExperimentWhichCanBeContinued) {
  (void)Benchmark();
  const std::string flag = folder_ / "allowed";
  std::vector<std::string> arguments = Arguments(1000, 900);
  arguments.back() = "test -e " + flag + " || { echo no permission; exit 3; }; " + Setting(900);
  const ToolResult failed = RunTool(arguments);
  EXPECT_EQ(failed.status, 2);
  EXPECT_THAT(failed.errors,
              AllOf(HasSubstr("no permission\n"), HasSubstr("the command ended with status 3: test -e"),
                    HasSubstr("Continue with: stress_scope ab --resume " + Folder())));
  folder_.Put("allowed", "");
  const ToolResult result = RunTool({"ab", "--resume", Folder()});
  EXPECT_EQ(result.status, 1) << result.errors;
  const std::string log = folder_.Get("log");
  std::size_t runs = 0;
  for (std::size_t at = log.find("run "); at != std::string::npos; at = log.find("run ", at + 1)) ++runs;
  EXPECT_EQ(runs, 8U) << "no run is recorded twice: " << log;
}

TEST_F(AbTest, ARunThatFailsOnlyInBMakesItWorse) {
  (void)Benchmark("test \"$rate\" = 900 && exit 9");
  const ToolResult result = RunTool(Arguments(1000, 900));
  const Experiment experiment = ReadExperiment(Folder());
  ASSERT_FALSE(experiment.runs[0].isB) << "choose a seed that begins with A";
  EXPECT_EQ(result.status, 1) << result.errors;
  EXPECT_THAT(result.output,
              HasSubstr("B is worse than A: cpu printed: B does not have it; incomplete runs in 1 of 1 "
                        "run of B (the benchmark ended with status 9"));
}

TEST_F(AbTest, ARunThatFailsInBIsJudgedBesideTheAOfItsPair) {
  (void)Benchmark("test \"$rate\" = 900 && exit 9");
  std::vector<std::string> arguments = Arguments(1000, 900);
  *std::next(std::find(arguments.begin(), arguments.end(), "--seed")) = "3";
  const ToolResult result = RunTool(arguments);
  const Experiment experiment = ReadExperiment(Folder());
  ASSERT_TRUE(experiment.runs[0].isB) << "choose a seed that begins with B";
  EXPECT_EQ(result.status, 1) << result.errors;
  EXPECT_THAT(result.output,
              HasSubstr("incomplete runs in 1 of 1 run of B (the benchmark ended with status 9"));
  EXPECT_EQ(experiment.runs[0].state, SweepState::kFailed);
  EXPECT_EQ(experiment.runs[1].state, SweepState::kDone);
  EXPECT_EQ(experiment.runs[2].state, SweepState::kPlanned);
}

TEST_F(AbTest, WhatItCannotDoIsNoRegression) {
  // No interpreter, no program: it cannot be started.
  (void)chmod(folder_.Put("benchmark", "nothing").c_str(), 0755);
  const ToolResult result = RunTool(Arguments(1000, 900));
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors, AllOf(HasSubstr("Exec format error"), HasSubstr("stress_scope ab --resume")));
  // Nor is a folder that was removed, in which relative paths mean nothing.
  const ToolResult lost = RunProgram(
      "/bin/sh", {"-c",
                  "mkdir \"$1\" && cd \"$1\" && rmdir \"$1\" && exec \"$0\" ab \"$2\" --benchmark here "
                  "--a true --b true",
                  STRESS_SCOPE, folder_ / "gone", Config()});
  EXPECT_EQ(lost.status, 2);
  EXPECT_THAT(lost.errors, HasSubstr("stress_scope: cannot finish the experiment: "));
}

TEST_F(AbTest, RefusesASectionThatNoStressReads) {
  (void)Benchmark();
  std::vector<std::string> arguments = Arguments(1000, 900);
  arguments[1] = folder_.Put("small.yaml", "cpu: {Level: 1}\nVPC: {Level: 1}\n");
  const ToolResult result = RunTool(arguments);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.errors, "stress_scope: nothing reads \"cpu\" in " + arguments[1] + ": write CPU\n");
  EXPECT_FALSE(std::filesystem::exists(Folder()));
}

TEST_F(AbTest, ARunThatFailsInAIsNoAnswer) {
  (void)Benchmark("test \"$rate\" = 1000 && exit 9");
  const ToolResult result = RunTool(Arguments(1000, 900));
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors,
              AllOf(HasSubstr("is not complete: the benchmark ended with status 9"), HasSubstr("--resume")));
}

TEST_F(AbTest, ASignalEndsItsCommandAndItCanBeContinued) {
  (void)Benchmark();
  std::vector<std::string> arguments = Arguments(1000, 900);
  for (std::string* command : {&arguments.back(), &arguments[arguments.size() - 3]}) {
    *command = "test -e " + (folder_ / "allowed") + " || { touch " + (folder_ / "waiting") +
               "; exec sleep 100; }; " + *command;
  }
  ChildProcess child(ProgramOptions(STRESS_SCOPE, arguments));
  for (int i = 0; i < 6000 && !std::filesystem::exists(folder_ / "waiting"); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ASSERT_TRUE(std::filesystem::exists(folder_ / "waiting"));
  ASSERT_EQ(kill(child.Id(), SIGINT), 0);
  const ToolResult result = WaitFor(child);
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors, HasSubstr("interrupted; what was recorded is kept."));
  // The command waits no longer.
  folder_.Put("allowed", "");
  const ToolResult resumed = RunTool({"ab", "--resume", Folder()});
  EXPECT_EQ(resumed.status, 1) << resumed.errors;
  EXPECT_THAT(resumed.output, HasSubstr("B is worse than A: cpu printed -9.71 %"));
}

// Four pairs show that B is worse, two later ones hide it. A look at all of them was not planned.
TEST_F(AbTest, AContinuedExperimentLooksAtWhatWasRecordedUntilThen) {
  PutRecorded(6, [](std::size_t pair) { return pair < 4 ? 0.5 : 2; });
  const ToolResult result = RunTool({"ab", "--resume", Folder()});
  EXPECT_EQ(result.status, 1) << result.errors;
  EXPECT_THAT(result.output, AllOf(HasSubstr("A: true (4 runs)\nB: true (4 runs)\n"),
                                   HasSubstr("B is worse than A: cpu ops -")));
  const auto page = DataOf(folder_.Get("ab/report.html"));
  for (const char* side : {"a", "b"}) EXPECT_EQ(page.at(side).at("runs").size(), 4U) << side;
  EXPECT_EQ(page.at("report").at("runs").size(), 8U);
  const ToolResult report = RunTool({"report", Folder(), "-o", folder_ / "page.html"});
  EXPECT_EQ(report.status, 0) << report.errors;
  EXPECT_EQ(DataOf(folder_.Get("page.html")), page) << "the same look";
}

TEST_F(AbTest, AReportBetweenTwoLooksShowsTheEarlierOne) {
  const auto unclear = [](std::size_t pair) { return pair % 2 == 0 ? 0.5 : 2; };
  const auto sidesOf = [](std::size_t pairs) {
    return "A: true (" + std::to_string(pairs) + " runs)\nB: true (" + std::to_string(pairs) + " runs)\n";
  };
  PutRecorded(5, unclear);
  EXPECT_THAT(RunTool({"report", Folder(), "--text"}).output, HasSubstr(sidesOf(4)));
  PutRecorded(6, unclear);
  EXPECT_THAT(RunTool({"report", Folder(), "--text"}).output, HasSubstr(sidesOf(6)));
  PutRecorded(3, unclear);
  EXPECT_THAT(RunTool({"report", Folder(), "--text"}).output, HasSubstr(sidesOf(3))) << "before the first";
}

TEST_F(AbTest, ARunWithADamagedFileIsRecordedAgain) {
  (void)Benchmark();
  ASSERT_EQ(RunTool(Arguments(1000, 900)).status, 1);
  folder_.Put("ab/a/002/run.json", "{");
  const ToolResult resumed = RunTool({"ab", "--resume", Folder()});
  EXPECT_EQ(resumed.status, 1) << resumed.errors;
  EXPECT_THAT(resumed.errors,
              AllOf(HasSubstr(Folder() + "/a/002/run.json"), HasSubstr("; the run is recorded again\n")));
  EXPECT_TRUE(ReadRun(Folder() + "/a/002").info.complete);
}

TEST_F(AbTest, IsReadOnlyWhenNobodyElseRecordsIt) {
  (void)folder_.Put("ab/experiment.json", "{");  // as another recorder may leave it for a moment
  const FolderLock lock(Folder());
  EXPECT_THAT(RunTool({"ab", "--resume", Folder()}).errors,
              HasSubstr(Folder() + " is in use: another stress_scope records into it"));
}

TEST_F(AbTest, OutputOfACommandIsShownUnlessQuiet) {
  (void)Benchmark();
  std::vector<std::string> arguments = Arguments(1000, 900);
  arguments.back() += "; printf 'over\\033[2J\\n'; echo errors >&2";
  const ToolResult shown = RunTool(arguments);
  EXPECT_EQ(shown.status, 1);
  EXPECT_THAT(shown.errors, HasSubstr("over\\x1b[2J\nerrors\n"));
  std::filesystem::remove_all(Folder());
  arguments.emplace_back("--quiet");
  const ToolResult quiet = RunTool(arguments);
  EXPECT_EQ(quiet.status, 1);
  EXPECT_EQ(quiet.output + quiet.errors, "");
}

TEST_F(AbTest, ACommandDoesNotReadTheTerminal) {
  (void)Benchmark();
  std::vector<std::string> arguments = Arguments(1000, 900);
  arguments.back() = "cat; " + Setting(900);
  EXPECT_EQ(RunTool(arguments).status, 1);
}

TEST_F(AbTest, RefusesBadInputBeforeAnythingRuns) {
  const std::string benchmark = Benchmark();
  const auto refused = [&](const std::vector<std::string>& arguments, const std::string& words) {
    const ToolResult result = RunTool(arguments);
    EXPECT_EQ(result.status, 2) << words;
    EXPECT_THAT(result.errors, HasSubstr(words));
    EXPECT_FALSE(std::filesystem::exists(Folder())) << words;
  };
  const std::vector<std::string> plain = {"ab",          Config(),  "-o",        Folder(),
                                          "--benchmark", benchmark, "--no-meter"};
  const auto with = [&plain](std::vector<std::string> more) {
    more.insert(more.begin(), plain.begin(), plain.end());
    return more;
  };
  refused(with({"--a", "true"}), "say both --a and --b");
  refused(with({"--a", "true", "--b", "true", "--max-runs", "3"}), "--max-runs");
  refused(with({"--a", "true", "--b", "true", "--stop-after", "6"}),
          "a run of 6 s is too short for a warm-up of 5 s");
  refused(with({"--a", "true", "--b", "true", "--tolerance", "-1"}), "--tolerance");
  refused({"ab"}, "CONFIG or --resume");
  refused({"ab", "--resume", folder_ / "none"}, "not an experiment: cannot read experiment.json");
  // Without commands and without a terminal.
  const ToolResult blind = RunProgram(
      "/bin/sh",
      {"-c", "exec \"$0\" ab \"$1\" -o \"$2\" --no-meter </dev/null", STRESS_SCOPE, Config(), Folder()});
  EXPECT_EQ(blind.status, 2);
  EXPECT_THAT(blind.errors, HasSubstr("there is no terminal to ask for the settings"));
  (void)folder_.Put("ab/run.json", "{}");
  EXPECT_THAT(RunTool(Arguments(1, 1)).errors, HasSubstr("exists and is not an empty folder"));
}

TEST_F(AbTest, RefusesForeignExperiments) {
  const auto error = [&](const std::string& text) {
    folder_.Put("ab/experiment.json", text);
    return ErrorOf([&] { (void)ReadExperiment(Folder()); });
  };
  EXPECT_THAT(error("{"), HasSubstr("experiment.json: "));
  EXPECT_THAT(error("{\"format\": 2}"), HasSubstr("written in format 2, this program reads format 1"));
  EXPECT_THAT(error("{\"format\": 1, \"kind\": \"sweep\"}"), HasSubstr("not an experiment"));
  Experiment experiment;
  experiment.runs = PlanExperiment(experiment.settings);
  WriteExperiment(Folder(), experiment);
  auto json = nlohmann::json::parse(folder_.Get("ab/experiment.json"));
  EXPECT_EQ(error(json.dump()), "no error");
  // As an int it would be the same number.
  json["max_runs"] = 4294967296 + experiment.settings.mostRuns;
  EXPECT_THAT(error(json.dump()), HasSubstr("max_runs: expected a whole number, found "));
  for (const char* folder : {"../a/001", "a/../../x", "b/001", "a/", "/tmp"}) {
    experiment.runs[0].isB = false;
    experiment.runs[0].folder = folder;
    WriteExperiment(Folder(), experiment);
    EXPECT_THAT(error(folder_.Get("ab/experiment.json")), HasSubstr("expected the run a/001, found"))
        << folder;
  }
}

TEST_F(AbTest, RefusesExperimentsThatNoCommandMakes) {
  std::filesystem::create_directories(Folder());
  const auto error = [&](const std::function<void(Experiment&)>& change) {
    Experiment experiment;
    experiment.settings.mostRuns = 8;
    experiment.runs = PlanExperiment(experiment.settings);
    change(experiment);
    WriteExperiment(Folder(), experiment);
    const ToolResult result = RunTool({"ab", "--resume", Folder()});
    EXPECT_EQ(result.status, 2) << result.errors;
    return result.errors;
  };
  EXPECT_THAT(error([](Experiment& experiment) { experiment.settings.confidence = 1; }),
              HasSubstr("experiment.json: confidence: expected a number from 0.5 to 0.999, found 1\n"));
  EXPECT_THAT(error([](Experiment& experiment) { experiment.settings.confidence = 0; }),
              HasSubstr("confidence: expected"));
  EXPECT_THAT(error([](Experiment& experiment) { experiment.settings.tolerancePercent = -1; }),
              HasSubstr("tolerance_percent: expected a number from 0 to 100, found -1"));
  EXPECT_THAT(error([](Experiment& experiment) { experiment.settings.warmupS = 1e9; }),
              HasSubstr("warmup_s: expected"));
  EXPECT_THAT(error([](Experiment& experiment) { experiment.settings.mostRuns = 3; }),
              HasSubstr("max_runs: expected a number from 4 to 1998, found 3"));
  EXPECT_THAT(error([](Experiment& experiment) { experiment.settings.mostRuns = 10; }),
              HasSubstr("expected 10 runs, found 8"));
  EXPECT_THAT(error([](Experiment& experiment) { experiment.runs[3] = experiment.runs[2]; }),
              HasSubstr("expected the run "));
  EXPECT_THAT(error([](Experiment& experiment) { std::swap(experiment.runs[0], experiment.runs[2]); }),
              HasSubstr("expected the run "));
}

TEST_F(AbTest, TheFileKeepsEverything) {
  Experiment experiment;
  experiment.started = "2026-11-22T05:00:00Z";
  experiment.configPath = "c.yaml";
  experiment.settings.commandA = "echo \"a\"";
  experiment.settings.commandB = "b";
  experiment.settings.mostRuns = 6;
  experiment.settings.tolerancePercent = 3.5;
  experiment.settings.confidence = 0.9;
  experiment.settings.warmupS = 1.5;
  experiment.settings.seed = 0xffffffffffffffff;
  experiment.settings.useMeter = false;
  experiment.runs = PlanExperiment(experiment.settings);
  experiment.runs[1].state = SweepState::kFailed;
  experiment.runs[1].reason = "why";
  std::filesystem::create_directories(Folder());
  WriteExperiment(Folder(), experiment);
  const Experiment read = ReadExperiment(Folder());
  EXPECT_EQ(read.started, experiment.started);
  EXPECT_EQ(read.configPath, experiment.configPath);
  EXPECT_EQ(read.settings.commandA, experiment.settings.commandA);
  EXPECT_EQ(read.settings.commandB, experiment.settings.commandB);
  EXPECT_EQ(read.settings.mostRuns, 6);
  EXPECT_EQ(read.settings.tolerancePercent, 3.5);
  EXPECT_EQ(read.settings.confidence, 0.9);
  EXPECT_EQ(read.settings.warmupS, 1.5);
  EXPECT_EQ(read.settings.seed, experiment.settings.seed);
  EXPECT_FALSE(read.settings.useMeter);
  ASSERT_EQ(read.runs.size(), 6U);
  EXPECT_EQ(read.runs[1].state, SweepState::kFailed);
  EXPECT_EQ(read.runs[1].reason, "why");
  EXPECT_EQ(read.runs[5].folder, experiment.runs[5].folder);
  EXPECT_EQ(read.runs[5].isB, experiment.runs[5].isB);
}

}  // namespace
