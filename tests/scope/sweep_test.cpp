// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "compare_values.h"
#include "configuration.h"
#include "error_of.h"
#include "folder_lock.h"
#include "page_json.h"
#include "report.h"
#include "run_reader.h"
#include "run_tool.h"
#include "saturation.h"
#include "sweep_folder.h"
#include "sweep_plan.h"
#include "sweep_table.h"
#include "sweep_text.h"
#include "synthetic_run.h"
#include "temporary_folder.h"

namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::Pair;
using namespace scope;

TEST(SweepPlanTest, ReadsLevels) {
  const auto axes = ParseAxes({"CPU=0,1,2,4", "VENC=0..4", "AIC=7,0..2"});
  ASSERT_EQ(axes.size(), 3U);
  EXPECT_EQ(axes[0].section, "CPU");
  EXPECT_THAT(axes[0].levels, ElementsAre(0, 1, 2, 4));
  EXPECT_THAT(axes[1].levels, ElementsAre(0, 1, 2, 3, 4));
  EXPECT_THAT(axes[2].levels, ElementsAre(0, 1, 2, 7));
}

TEST(SweepPlanTest, RefusesLevelsThatTheBenchmarkWouldRefuse) {
  const auto error = [](std::vector<std::string> texts) { return ErrorOf([&] { (void)ParseAxes(texts); }); };
  EXPECT_THAT(error({"GPU=1"}), HasSubstr("expected CPU, VPC, VENC or AIC"));
  EXPECT_THAT(error({"cpu=1"}), HasSubstr("expected CPU, VPC, VENC or AIC"));
  EXPECT_THAT(error({"CPU"}), HasSubstr("then \"=\" and levels"));
  EXPECT_THAT(error({"CPU="}), HasSubstr("expected levels from 0 to 10, found \"\""));
  EXPECT_THAT(error({"CPU=11"}), HasSubstr("expected levels from 0 to 10, found \"11\""));
  EXPECT_THAT(error({"CPU=-1"}), HasSubstr("found \"-1\""));
  EXPECT_THAT(error({"CPU=1,,2"}), HasSubstr("found \"\""));
  EXPECT_THAT(error({"CPU=1.5"}), HasSubstr("found \"1.5\""));
  EXPECT_THAT(error({"CPU=0..11"}), HasSubstr("found \"11\""));
  EXPECT_THAT(error({"CPU=99999999999"}), HasSubstr("from 0 to 10"));
  EXPECT_THAT(error({"CPU=4..2"}), HasSubstr("the range 4..2 goes down"));
  EXPECT_THAT(error({"CPU=0..4,2"}), HasSubstr("level 2 is given twice"));
  EXPECT_THAT(error({"CPU=1", "VPC=1", "CPU=2"}), HasSubstr("levels of CPU are given twice"));
}

TEST(SweepPlanTest, RecordsEveryPointBeforeAnyRepeat) {
  const auto runs = PlanRuns(ParseAxes({"CPU=0..3", "VENC=0..2"}), 3, 7);
  ASSERT_EQ(runs.size(), 36U);
  EXPECT_EQ(runs[0].folder, "run-0001");
  EXPECT_EQ(runs[35].folder, "run-0036");
  EXPECT_THAT(runs[3].levels, ElementsAre(Pair("CPU", 0), Pair("VENC", 1)));
  std::set<int> orders;
  std::vector<const SweepRun*> inOrder(36);
  for (const SweepRun& run : runs) {
    orders.insert(run.order);
    EXPECT_EQ((run.order - 1) / 12 + 1, run.repeat);
    inOrder.at(static_cast<std::size_t>(run.order - 1)) = &run;
  }
  EXPECT_EQ(orders.size(), 36U);
  std::set<SweepLevels> first;
  for (std::size_t i = 0; i < 12; ++i) first.insert(inOrder[i]->levels);
  EXPECT_EQ(first.size(), 12U);
}

TEST(SweepPlanTest, OrderDependsOnTheSeedAlone) {
  const auto order = [](std::uint64_t seed) {
    std::vector<int> orders;
    for (const SweepRun& run : PlanRuns(ParseAxes({"CPU=0..10"}), 1, seed)) orders.push_back(run.order);
    return orders;
  };
  EXPECT_EQ(order(1), order(1));
  EXPECT_NE(order(1), order(2));
  const std::vector<int> one = order(1);
  EXPECT_FALSE(std::is_sorted(one.begin(), one.end()));
  EXPECT_THAT(
      ErrorOf([] { (void)PlanRuns(ParseAxes({"CPU=0..10", "VPC=0..10", "VENC=0..10", "AIC=0..10"}), 1, 1); }),
      HasSubstr("14641 runs, expected at most 9999"));
}

class SweepTest : public ::testing::Test {
 protected:
  std::string Config() const {
    return folder_.Put("config.yaml", "logLevel: 3\nCPU:\n  Level: 1\nVENC: {Level: 0x2}\n");
  }

  std::string Script(const std::string& body) const {
    const std::string path = folder_.Put("benchmark", "#!/bin/sh\n" + body + "\n");
    (void)chmod(path.c_str(), 0755);
    return path;
  }

  // A benchmark whose rate is 100 times its CPU level. It keeps a list of the levels.
  std::string Counting() const {
    return Script(
        "level=$(sed -n '/^CPU/{n;s/.*: //p}' \"$1\")\necho \"$level\" >>\"$0.levels\"\n"
        "echo \"cpuStress : $((level * 100)).000000 fps. kivuVencStress : 1.000000 fps. ispStress : 30.0 "
        "fps.\"");
  }

  std::vector<std::string> SweepOf(const std::string& benchmark, std::vector<std::string> more = {}) const {
    std::vector<std::string> arguments = {"sweep",       Config(),  "-o",         Folder(),
                                          "--benchmark", benchmark, "--no-meter", "--warmup",
                                          "0",           "--seed",  "1"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  std::string Folder() const { return folder_ / "sweep"; }

  std::vector<SweepState> States() const {
    std::vector<SweepState> states;
    for (const SweepRun& run : ReadSweep(Folder()).runs) states.push_back(run.state);
    return states;
  }

  // A finished sweep with the given total bandwidths in GB/s, by point and repeat.
  Sweep Recorded(const std::vector<SweepAxis>& axes,
                 const std::vector<std::vector<double>>& gigabytesPerS) const {
    Sweep sweep;
    sweep.axes = axes;
    sweep.settings.repeats = static_cast<int>(gigabytesPerS.front().size());
    sweep.runs = PlanRuns(axes, sweep.settings.repeats, 1);
    auto run = sweep.runs.begin();
    for (const auto& point : gigabytesPerS) {
      for (const double value : point) {
        SyntheticEngine cpu;
        cpu.operationsPerS = value * 500;  // of 2 MB
        WriteRun(Folder() + "/" + run->folder, {cpu});
        run->state = SweepState::kDone;
        ++run;
      }
    }
    WriteSweep(Folder(), sweep);
    return sweep;
  }

  TemporaryFolder folder_;
};

TEST_F(SweepTest, MakesTheConfigurationOfEachPoint) {
  const std::string path = folder_.Put("c.yaml",
                                       "# words\nlogMode: 0x6\nrunTimes: +50\nother: [1]\nCPU: {Level: "
                                       "3}\nAIC:\n  Level: 1\n  File: a b.onnx\n");
  const std::string made = folder_.Put("made.yaml", PointConfiguration(path, {{"CPU", 0}, {"VPC", 10}}));
  unsigned int runTimeS = 0;
  const Configuration config = ReadConfiguration(made, runTimeS);
  EXPECT_EQ(runTimeS, 50U);
  EXPECT_THAT(config.levels, ElementsAre(Pair("cpu", 0), Pair("vpc", 10), Pair("aic", 1)));
  EXPECT_THAT(config.text,
              AllOf(HasSubstr("logMode: 6\n"), Not(HasSubstr("other")),
                    HasSubstr("File: \"" + std::filesystem::absolute("a b.onnx").string() + "\"")));
  // The result is stable, so the sweep can make its points from its own copy in any folder.
  EXPECT_EQ(PointConfiguration(made, {}), folder_.Get("made.yaml"));
}

TEST_F(SweepTest, RefusesConfigurationsThatTheBenchmarkWould) {
  const auto error = [&](const std::string& text, const SweepLevels& levels) {
    return ErrorOf([&] { (void)PointConfiguration(folder_.Put("c.yaml", text), levels); });
  };
  EXPECT_THAT(error("CPU:\n  Level: 1\n", {{"AIC", 1}}), HasSubstr("with a model as \"File\""));
  EXPECT_THAT(error("AIC:\n  Level: 1\n", {{"AIC", 1}}), HasSubstr("with a model as \"File\""));
  EXPECT_THAT(error("VPC:\n  Level: 11\n", {{"CPU", 1}}), HasSubstr("from 0 to 10 in the section VPC"));
  EXPECT_THAT(error("VPC:\n", {{"CPU", 1}}), HasSubstr("in the section VPC"));
  EXPECT_THAT(error("CPU: [", {{"CPU", 1}}), HasSubstr("c.yaml:"));
  EXPECT_EQ(ErrorOf([&] { (void)PointConfiguration(folder_ / "none", {}); }),
            "cannot read " + (folder_ / "none") +
                ": No such file or directory. Give the path of a configuration file of the benchmark.");
}

TEST_F(SweepTest, RefusesASectionThatNoStressReads) {
  const std::string benchmark = Counting();
  std::vector<std::string> arguments = SweepOf(benchmark, {"--levels", "VENC=0,1"});
  arguments[1] = folder_.Put("small.yaml", "note: mine\ncpu: {Level: 1}\nVENC: {Level: 1}\n");
  const ToolResult result = RunTool(arguments);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.errors, "stress_scope: nothing reads \"cpu\" in " + arguments[1] + ": write CPU\n");
  EXPECT_FALSE(std::filesystem::exists(Folder()));
  folder_.Put("small.yaml", "note: mine\nCPU: {Level: 1}\nVENC: {Level: 1}\n");
  EXPECT_EQ(RunTool(arguments).status, 0);
}

TEST_F(SweepTest, SaysThatRunsWereDisturbed) {
  const Sweep sweep = Recorded(ParseAxes({"CPU=1,2"}), {{2}, {4}});
  folder_.Put("sweep/" + sweep.runs[1].folder + "/counters.csv",
              "time_s,source,name,unit,value\n5.000,load,steal,CPUs,2\n6.000,load,steal,CPUs,1\n");
  EXPECT_THAT(ReadSweepTable(Folder(), sweep).notes,
              ::testing::Contains(sweep.runs[1].folder +
                                  " (CPU=2): disturbed: 1 of 1 second, in which others took more than 5 % of "
                                  "the CPUs' time, at most 50 %"));
}

TEST_F(SweepTest, ManyDisturbedRunsAreCounted) {
  const Sweep sweep = Recorded(ParseAxes({"CPU=1..6"}), {{1}, {2}, {3}, {4}, {5}, {6}});
  const auto disturbedOf = [&](std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      folder_.Put("sweep/" + sweep.runs[i].folder + "/counters.csv",
                  "time_s,source,name,unit,value\n6.000,load,steal,CPUs,1\n");
    }
    std::vector<std::string> notes;
    for (const std::string& note : ReadSweepTable(Folder(), sweep).notes) {
      if (note.find("disturbed") != std::string::npos) notes.push_back(note);
    }
    return notes;
  };
  EXPECT_EQ(disturbedOf(3).size(), 3U);
  EXPECT_THAT(disturbedOf(4), ElementsAre(HasSubstr("CPU=1"), HasSubstr("CPU=2"), HasSubstr("CPU=3"),
                                          "1 more run was disturbed"));
  EXPECT_THAT(disturbedOf(6), Contains("3 more runs were disturbed"));
}

TEST_F(SweepTest, ReadsWhatItWrote) {
  Sweep sweep;
  sweep.started = "2026-11-21T04:00:00Z";
  sweep.configPath = "c.yaml";
  sweep.settings.repeats = 2;
  sweep.settings.seed = 0xffffffffffffffff;
  sweep.settings.warmupS = 2.5;
  sweep.settings.useMeter = false;
  sweep.settings.extra = {"a", "b"};
  sweep.axes = ParseAxes({"VPC=0,2", "CPU=1"});
  sweep.runs = PlanRuns(sweep.axes, 2, 3);
  sweep.runs[1].state = SweepState::kFailed;
  sweep.runs[1].reason = "\"why\"";
  std::filesystem::create_directories(Folder());
  WriteSweep(Folder(), sweep);
  const Sweep read = ReadSweep(Folder());
  EXPECT_EQ(read.settings.seed, sweep.settings.seed);
  EXPECT_DOUBLE_EQ(read.settings.warmupS, 2.5);
  EXPECT_FALSE(read.settings.useMeter);
  EXPECT_EQ(read.settings.extra, sweep.settings.extra);
  EXPECT_EQ(read.axes[0].section, "VPC");
  EXPECT_THAT(read.axes[0].levels, ElementsAre(0, 2));
  ASSERT_EQ(read.runs.size(), 4U);
  EXPECT_EQ(read.runs[1].state, SweepState::kFailed);
  EXPECT_EQ(read.runs[1].reason, "\"why\"");
  EXPECT_EQ(read.runs[3].levels, sweep.runs[3].levels);
  EXPECT_EQ(read.runs[3].order, sweep.runs[3].order);
}

TEST_F(SweepTest, RefusesForeignSweeps) {
  const auto error = [&](const std::string& text) {
    folder_.Put("sweep/sweep.json", text);
    return ErrorOf([&] { (void)ReadSweep(Folder()); });
  };
  EXPECT_THAT(ErrorOf([&] { (void)ReadSweep(Folder()); }), HasSubstr("not a sweep: cannot read sweep.json"));
  EXPECT_THAT(error("{\"format\":"), HasSubstr("sweep.json: "));
  EXPECT_THAT(error("[]"), HasSubstr("sweep.json: "));
  EXPECT_THAT(error("{\"format\": 2}"), HasSubstr("written in format 2, this program reads format 1"));
  EXPECT_THAT(error("{\"format\": 1, \"kind\": \"record\"}"), HasSubstr("not a sweep"));
  EXPECT_THAT(error("{\"format\": 1, \"kind\": \"sweep\"}"), HasSubstr("started"));
  Sweep sweep;
  sweep.axes = ParseAxes({"CPU=1"});
  sweep.runs = PlanRuns(sweep.axes, 1, 1);
  sweep.runs[0].folder = "../elsewhere";
  WriteSweep(Folder(), sweep);
  EXPECT_THAT(ErrorOf([&] { (void)ReadSweep(Folder()); }), HasSubstr("expected a folder of the sweep"));
  sweep.runs[0].folder = "run-0001";
  sweep.runs[0].levels = {{"CPU", 2}};
  WriteSweep(Folder(), sweep);
  EXPECT_THAT(ErrorOf([&] { (void)ReadSweep(Folder()); }), HasSubstr("is not the next point of the grid"));
}

TEST_F(SweepTest, RefusesASweepWhoseRunsAreNotItsGrid) {
  std::filesystem::create_directories(Folder());
  const auto error = [&](const std::function<void(Sweep&)>& change) {
    Sweep sweep;
    sweep.settings.repeats = 2;
    sweep.axes = ParseAxes({"CPU=0..2", "VPC=1,2"});
    sweep.runs = PlanRuns(sweep.axes, 2, 1);
    change(sweep);
    WriteSweep(Folder(), sweep);
    return ErrorOf([&] { (void)ReadSweep(Folder()); });
  };
  EXPECT_EQ(error([](Sweep&) {}), "no error");
  EXPECT_THAT(error([](Sweep& sweep) { sweep.runs.pop_back(); }),
              HasSubstr("the grid has 12 runs, found 11"));
  EXPECT_THAT(error([](Sweep& sweep) { sweep.runs.clear(); }), HasSubstr("the grid has 12 runs, found 0"));
  EXPECT_THAT(error([](Sweep& sweep) { std::swap(sweep.runs[0], sweep.runs[1]); }),
              HasSubstr("run-0002 is not the next point"));
  EXPECT_THAT(error([](Sweep& sweep) { sweep.runs[3].folder = "run-0001"; }),
              HasSubstr("two runs have the folder run-0001"));
  EXPECT_THAT(error([](Sweep& sweep) { sweep.runs[3].order = sweep.runs[2].order; }),
              HasSubstr("order of the run run-0004"));
  EXPECT_THAT(error([](Sweep& sweep) { sweep.runs[3].order = 13; }), HasSubstr("order of the run run-0004"));
  EXPECT_THAT(error([](Sweep& sweep) { sweep.settings.repeats = 0; }), HasSubstr("repeats of 1 or more"));
  EXPECT_THAT(error([](Sweep& sweep) { sweep.axes[0].levels = {0, 1, 11}; }),
              HasSubstr("expected levels of CPU from 0 to 10, each once"));
  EXPECT_THAT(error([](Sweep& sweep) { sweep.axes[0].levels = {0, 1, 1}; }), HasSubstr("levels of CPU"));
  EXPECT_THAT(error([](Sweep& sweep) { sweep.axes[0].levels.clear(); }), HasSubstr("levels of CPU"));
  EXPECT_THAT(error([](Sweep& sweep) { sweep.axes[0].section = "\033[2J"; }),
              HasSubstr("expected sections of engines, each once"));
  EXPECT_THAT(error([](Sweep& sweep) { sweep.axes.clear(); }), HasSubstr("the grid has no section"));
}

// As an int each of the large numbers would be 1, which is right here.
TEST_F(SweepTest, RefusesNumbersThatDoNotFit) {
  Sweep sweep;
  sweep.axes = ParseAxes({"CPU=1"});
  sweep.runs = PlanRuns(sweep.axes, 1, 1);
  std::filesystem::create_directories(Folder());
  WriteSweep(Folder(), sweep);
  EXPECT_EQ(ErrorOf([&] { (void)ReadSweep(Folder()); }), "no error");
  const auto valid = nlohmann::json::parse(folder_.Get("sweep/sweep.json"));
  const auto error = [&](const std::string& place, const nlohmann::json& value) {
    nlohmann::json changed = valid;
    changed.at(nlohmann::json::json_pointer(place)) = value;
    folder_.Put("sweep/sweep.json", changed.dump());
    return ErrorOf([&] { (void)ReadSweep(Folder()); });
  };
  EXPECT_THAT(error("/grid/CPU/0", 4294967297),
              EndsWith("sweep.json: level of CPU: expected a whole number, found 4294967297"));
  EXPECT_THAT(error("/runs/0/levels/CPU", 4294967297), HasSubstr("level of CPU: expected a whole number"));
  EXPECT_THAT(error("/runs/0/repeat", 4294967297), HasSubstr("repeat: expected a whole number"));
  EXPECT_THAT(error("/runs/0/order", 4294967297), HasSubstr("order: expected a whole number"));
  EXPECT_THAT(error("/repeats", 4294967297), HasSubstr("repeats: expected a whole number"));
  EXPECT_THAT(error("/format", 4294967297), HasSubstr("format: expected a whole number"));
  EXPECT_THAT(error("/seed", -1), HasSubstr("seed: expected a whole number, found -1"));
  EXPECT_THAT(error("/grid/CPU/0", 1.9), HasSubstr("expected a whole number, found 1.9"));
  EXPECT_THAT(error("/grid/CPU", {{"a", 1}}), HasSubstr("expected a list of levels of CPU"));
}

TEST_F(SweepTest, RecordsTheGridInItsOrder) {
  const std::string benchmark = Counting();
  const ToolResult result = RunTool(SweepOf(benchmark, {"--levels", "CPU=0..3", "--repeat", "2"}));
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(result.output, AllOf(HasSubstr("8 of 8 runs to record, in random order of seed 1"),
                                   HasSubstr("cpu printed fps")));
  const Sweep sweep = ReadSweep(Folder());
  std::vector<std::string> levels(8);
  for (const SweepRun& run : sweep.runs) {
    EXPECT_EQ(run.state, SweepState::kDone);
    levels.at(static_cast<std::size_t>(run.order - 1)) = std::to_string(run.levels[0].second);
    const scope::Run recorded = ReadRun(Folder() + "/" + run.folder);
    EXPECT_DOUBLE_EQ(recorded.rates.at(0).fps, 100 * run.levels[0].second);
    EXPECT_EQ(recorded.info.label, PointText(run.levels) + ", repeat " + std::to_string(run.repeat));
    EXPECT_THAT(recorded.info.config.levels, ElementsAre(Pair("cpu", run.levels[0].second), Pair("venc", 2)));
    EXPECT_EQ(folder_.Get("sweep/" + run.folder + "/config.yaml") + "\n", recorded.info.config.text + "\n");
  }
  std::string wanted;
  for (const std::string& level : levels) wanted += level + "\n";
  EXPECT_EQ(folder_.Get("benchmark.levels"), wanted);
  const SweepTable table = ReadSweepTable(Folder(), sweep);
  ASSERT_EQ(table.points.size(), 4U);
  EXPECT_EQ(table.points[3].runs, 2U);
  EXPECT_DOUBLE_EQ(*MedianOf(table.points[3], {"cpu", Figure::kPrinted}), 300);
}

TEST_F(SweepTest, AnInterruptedSweepKeepsItsRunsAndGoesOn) {
  // The second run never ends.
  const std::string benchmark = Script(
      "echo run >>\"$0.runs\"\necho 'cpuStress : 5.000000 fps. kivuVencStress : 1.000000 fps. ispStress : "
      "30.0 fps.'\n"
      "if [ \"$(wc -l <\"$0.runs\")\" = 2 ]; then touch \"$0.waits\"; exec sleep 100; fi");
  ChildProcess child(ProgramOptions(STRESS_SCOPE, SweepOf(benchmark, {"--levels", "CPU=0..3"})));
  while (!std::filesystem::exists(folder_ / "benchmark.waits"))
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  child.Signal(SIGINT);
  const ToolResult interrupted = WaitFor(child);
  EXPECT_EQ(interrupted.status, 1);
  EXPECT_THAT(interrupted.errors, HasSubstr("Continue with: stress_scope sweep --resume " + Folder()));
  EXPECT_THAT(interrupted.output, HasSubstr("not done: 3 of 4 runs"));
  std::vector<SweepState> states = States();
  EXPECT_EQ(std::count(states.begin(), states.end(), SweepState::kDone), 1);
  EXPECT_EQ(std::count(states.begin(), states.end(), SweepState::kInterrupted), 1);
  EXPECT_EQ(std::count(states.begin(), states.end(), SweepState::kPlanned), 2);

  const ToolResult resumed = RunTool({"sweep", "--resume", Folder()});
  EXPECT_EQ(resumed.status, 0) << resumed.errors;
  EXPECT_THAT(resumed.output, HasSubstr("3 of 4 runs to record"));
  EXPECT_EQ(folder_.Get("benchmark.runs"), "run\nrun\nrun\nrun\nrun\n");
  states = States();
  EXPECT_EQ(std::count(states.begin(), states.end(), SweepState::kDone), 4);
  // No run is left, so none is recorded.
  EXPECT_EQ(RunTool({"sweep", "--resume", Folder()}).status, 0);
  EXPECT_EQ(folder_.Get("benchmark.runs"), "run\nrun\nrun\nrun\nrun\n");
}

TEST_F(SweepTest, ARunWhoseFolderHasGoneIsRecordedAgain) {
  const std::string benchmark = Counting();
  ASSERT_EQ(RunTool(SweepOf(benchmark, {"--levels", "CPU=1,2"})).status, 0);
  std::filesystem::remove_all(Folder() + "/run-0002");
  const ToolResult resumed = RunTool({"sweep", "--resume", Folder()});
  EXPECT_EQ(resumed.status, 0) << resumed.errors;
  EXPECT_THAT(resumed.output, HasSubstr("1 of 2 runs to record"));
  EXPECT_TRUE(IsRunFolder(Folder() + "/run-0002"));
}

TEST_F(SweepTest, ARunWithADamagedFileIsRecordedAgain) {
  const std::string benchmark = Counting();
  ASSERT_EQ(RunTool(SweepOf(benchmark, {"--levels", "CPU=1,2"})).status, 0);
  folder_.Put("sweep/run-0002/run.json", "{\"format\":");
  const ToolResult resumed = RunTool({"sweep", "--resume", Folder()});
  EXPECT_EQ(resumed.status, 0) << resumed.errors;
  EXPECT_THAT(resumed.output, HasSubstr("1 of 2 runs to record"));
  EXPECT_THAT(resumed.errors,
              AllOf(HasSubstr(Folder() + "/run-0002/run.json"), HasSubstr("; the run is recorded again\n")));
  EXPECT_TRUE(ReadRun(Folder() + "/run-0002").info.complete);
}

TEST_F(SweepTest, IsReadOnlyWhenNobodyElseRecordsIt) {
  ASSERT_EQ(RunTool(SweepOf(Counting(), {"--levels", "CPU=1"})).status, 0);
  folder_.Put("sweep/sweep.json", "{");  // as another recorder may leave it for a moment
  const FolderLock lock(Folder());
  EXPECT_THAT(RunTool({"sweep", "--resume", Folder()}).errors,
              HasSubstr(Folder() + " is in use: another stress_scope records into it"));
}

TEST_F(SweepTest, ARunThatFailsIsReportedAndTheOthersAreRecorded) {
  const std::string benchmark = Script(
      "grep -q '^  Level: 3' \"$1\" && exit 9\necho 'cpuStress : 5.000000 fps. kivuVencStress : 1.000000 "
      "fps. ispStress : 30.0 fps.'");
  const ToolResult result = RunTool(SweepOf(benchmark, {"--levels", "CPU=2..4"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.output, HasSubstr("note: run-0002 (CPU=3) failed: the benchmark ended with status 9"));
  EXPECT_THAT(States(), ElementsAre(SweepState::kDone, SweepState::kFailed, SweepState::kDone));
  EXPECT_FALSE(std::filesystem::exists(Folder() + "/run-0002"));
  EXPECT_TRUE(IsRunFolder(Folder() + "/attempts/run-0002/1"));
  (void)Script("echo 'cpuStress : 5.000000 fps. kivuVencStress : 1.000000 fps. ispStress : 30.0 fps.'");
  EXPECT_EQ(RunTool({"sweep", "--resume", Folder()}).status, 0);
  EXPECT_TRUE(IsRunFolder(Folder() + "/run-0002"));
  EXPECT_TRUE(IsRunFolder(Folder() + "/attempts/run-0002/1")) << "what was measured is kept";
}

TEST_F(SweepTest, ARunThatIsDoneIsNotRecordedAgainAlthoughSweepJsonDoesNotKnow) {
  ASSERT_EQ(RunTool(SweepOf(Counting(), {"--levels", "CPU=1,2"})).status, 0);
  EXPECT_FALSE(std::filesystem::exists(Folder() + "/attempts"));
  Sweep sweep = ReadSweep(Folder());
  sweep.runs[0].state = SweepState::kPlanned;  // the recorder was killed before it wrote sweep.json
  WriteSweep(Folder(), sweep);
  EXPECT_THAT(RunTool({"sweep", "--resume", Folder()}).output, HasSubstr("0 of 2 runs to record"));
  // Earlier versions had no cell.json, and an interrupted run in the place of a finished one.
  for (const SweepRun& run : sweep.runs) std::filesystem::remove(Folder() + "/" + run.folder + "/cell.json");
  sweep.runs[0].state = SweepState::kInterrupted;
  WriteSweep(Folder(), sweep);
  const ToolResult resumed = RunTool({"sweep", "--resume", Folder()});
  EXPECT_EQ(resumed.status, 0) << resumed.errors;
  EXPECT_THAT(resumed.output, HasSubstr("1 of 2 runs to record"));
  EXPECT_THAT(States(), ElementsAre(SweepState::kDone, SweepState::kDone));
  EXPECT_TRUE(IsRunFolder(Folder() + "/attempts/run-0001/2")) << "what was there is kept";
}

TEST_F(SweepTest, TwoPointsAreComparedAtTheEnd) {
  const ToolResult result = RunTool(SweepOf(Counting(), {"--levels", "CPU=2,3", "--repeat", "4"}));
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(result.output, AllOf(HasSubstr("A: " + Folder() + ":CPU=2 (4 runs)"), HasSubstr("+50.00 %"),
                                   HasSubstr("better")));
  const ToolResult compared = RunTool({"compare", Folder() + ":CPU=3", Folder() + ":CPU=2"});
  EXPECT_EQ(compared.status, 1) << compared.errors;
  EXPECT_THAT(compared.output,
              AllOf(HasSubstr("-33.33 %"), HasSubstr("B is worse than A: cpu printed -33.33 %"),
                    HasSubstr("After the first 0 s")));  // the sweep's warm-up
}

TEST_F(SweepTest, EndsWithItsPage) {
  const ToolResult result = RunTool(SweepOf(Counting(), {"--levels", "CPU=1..3"}));
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(result.output, EndsWith("\nreport in " + Folder() + "/report.html\n"));
  const auto data = DataOf(folder_.Get("sweep/report.html"));
  EXPECT_EQ(data.at("kind"), "sweep");
  EXPECT_EQ(data.at("points").size(), 3U);
  std::filesystem::remove(Folder() + "/report.html");

  EXPECT_EQ(RunTool({"report", Folder(), "--text"}).status, 0);
  EXPECT_EQ(RunTool({"report", Folder(), "--json"}).status, 0);
  EXPECT_FALSE(std::filesystem::exists(Folder() + "/report.html"));
  const ToolResult named = RunTool({"report", Folder(), "--json", "-o", folder_ / "page.html"});
  EXPECT_EQ(DataOf(folder_.Get("page.html")).at("points"), nlohmann::json::parse(named.output).at("points"));
  EXPECT_FALSE(std::filesystem::exists(Folder() + "/report.html"));
  EXPECT_EQ(RunTool({"report", Folder(), "--quiet"}).output, "");
  EXPECT_EQ(DataOf(folder_.Get("sweep/report.html")), data);
}

TEST_F(SweepTest, AnInterruptedSweepHasAPage) {
  Sweep sweep = Recorded(ParseAxes({"CPU=1..2"}), {{5}, {8}});
  sweep.runs[1].state = SweepState::kInterrupted;
  WriteSweep(Folder(), sweep);
  EXPECT_EQ(RunTool({"report", Folder()}).status, 0);
  const auto data = DataOf(folder_.Get("sweep/report.html"));
  EXPECT_EQ(data.at("complete"), false);
  EXPECT_EQ(data.at("points").at(1).at("runs"), 0);
  EXPECT_EQ(data.at("points").at(1).at("figures"), nlohmann::json::array());
}

TEST_F(SweepTest, PointsAreNamedInFull) {
  ASSERT_EQ(RunTool(SweepOf(Counting(), {"--levels", "CPU=1,2", "--levels", "VENC=0,1"})).status, 0);
  const auto refused = [&](const std::string& point, const std::string& words) {
    const ToolResult result = RunTool({"compare", Folder() + point, Folder() + ":CPU=1,VENC=0"});
    EXPECT_EQ(result.status, 2) << point;
    EXPECT_THAT(result.errors, HasSubstr(words));
  };
  refused("", "is a sweep: name a point of it");
  refused(":CPU=1", "expected a level of VENC as well: it was swept");
  refused(":CPU=1,VENC=7", "the sweep has no such point");
  refused(":CPU=1,VPC=0,VENC=0", "VPC was not swept");
  refused(":CPU=1,VENC=0..1", "expected one level of VENC");
  refused(":CPU=1,VENC=x", "expected levels from 0 to 10");
  EXPECT_EQ(RunTool({"compare", Folder() + ":VENC=0,CPU=1", Folder() + ":CPU=1,VENC=0"}).status, 4);
}

TEST_F(SweepTest, RefusesBadInputBeforeAnythingIsMade) {
  const std::string benchmark = Counting();
  const auto refused = [&](std::vector<std::string> arguments, const std::string& words) {
    const ToolResult result = RunTool(std::move(arguments));
    EXPECT_EQ(result.status, 2) << words;
    EXPECT_THAT(result.errors, HasSubstr(words));
    EXPECT_FALSE(std::filesystem::exists(Folder())) << words;
  };
  refused({"sweep"}, "CONFIG or --resume");
  refused({"sweep", Config(), "-o", Folder()}, "nothing to sweep: give --levels");
  refused(SweepOf(benchmark, {"--levels", "CPU=11"}), "expected levels from 0 to 10, found \"11\"");
  refused(SweepOf(benchmark, {"--levels", "GPU=1"}), "expected CPU, VPC, VENC or AIC");
  refused(SweepOf(benchmark, {"--levels", "CPU=1", "--levels", "CPU=2"}), "given twice");
  refused(SweepOf(benchmark, {"--levels", "AIC=1"}), "need a section AIC with a model");
  refused(SweepOf(benchmark, {"--levels", "CPU=1", "--repeat", "0"}), "--repeat");
  refused(SweepOf(folder_ / "none", {"--levels", "CPU=1"}), "cannot run the benchmark");
  refused({"sweep", folder_ / "none.yaml", "--levels", "CPU=1", "-o", Folder()}, "cannot read");
  refused({"sweep", folder_.Put("bad.yaml", "CPU: [1"), "--levels", "CPU=1", "-o", Folder()}, "bad.yaml:");
  refused({"sweep", Config(), "--levels", "CPU=1", "--warmup", "37", "-o", Folder()},
          "a run of 40 s is too short for a warm-up of 37 s");
  refused({"sweep", Config(), "--levels", "CPU=1", "--stop-after", "8", "--grace", "60", "-o", Folder()},
          "a run of 8 s is too short for a warm-up of 5 s");
  refused({"sweep", Config(), "--resume", Folder()}, "--resume");
  refused({"sweep", "--resume", Folder()}, "not a sweep");
  refused({"sweep", Config(), "--levels", "CPU=1", "-o", "/proc/none/sweep"}, "cannot make the folder");
  folder_.Put("used/mine", "precious");
  refused({"sweep", Config(), "--levels", "CPU=1", "-o", folder_ / "used"}, "is not an empty folder");
}

TEST_F(SweepTest, DoesNotTouchASweepThatIsThere) {
  const std::string benchmark = Counting();
  ASSERT_EQ(RunTool(SweepOf(benchmark, {"--levels", "CPU=1"})).status, 0);
  const std::string before = folder_.Get("sweep/sweep.json");
  const ToolResult again = RunTool(SweepOf(benchmark, {"--levels", "CPU=1"}));
  EXPECT_EQ(again.status, 2);
  EXPECT_THAT(again.errors, HasSubstr("continue it with --resume"));
  EXPECT_EQ(folder_.Get("sweep/sweep.json"), before);
}

TEST_F(SweepTest, SaturationIsTheLowestLevelWithinFivePercent) {
  const SweepTable table =
      ReadSweepTable(Folder(), Recorded(ParseAxes({"CPU=0,1,2,4,8"}), {{0.1}, {5}, {9.4}, {9.6}, {10}}));
  const auto saturation = FindSaturation(table);
  ASSERT_TRUE(saturation.has_value());
  EXPECT_EQ(saturation->best, 4U);
  EXPECT_EQ(saturation->lowest, 3U);
  EXPECT_TRUE(saturation->reached);
  EXPECT_FALSE(saturation->indistinct.has_value());
  EXPECT_EQ(
      SaturationText(table),
      "The total bandwidth saturates at CPU=4: 9.600 GB/s, within 5 % of the best, 10.00 GB/s at CPU=8. "
      "Uncertainty not known: sweep with --repeat 4.\n");
  EXPECT_THAT(BandwidthText(table), AllOf(HasSubstr("  1  5.000  "
                                                    "████████████████████\n"),
                                          HasSubstr("██ saturated\n")));
}

TEST_F(SweepTest, BarsFitTheTerminal) {
  const SweepTable table =
      ReadSweepTable(Folder(), Recorded(ParseAxes({"CPU=0,1,2,4,8"}), {{0.1}, {5}, {9.4}, {9.6}, {10}}));
  const auto widest = [&table](std::size_t width) {
    std::size_t longest = 0;
    std::istringstream lines(BandwidthText(table, width));
    for (std::string line; std::getline(lines, line);) {
      const auto isCharacter = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80; };
      longest =
          std::max(longest, static_cast<std::size_t>(std::count_if(line.begin(), line.end(), isCharacter)));
    }
    return longest;
  };
  EXPECT_LE(widest(50), 50U);
  EXPECT_THAT(BandwidthText(table, 50), HasSubstr("  1  5.000  ██████████\n"));
  EXPECT_EQ(widest(80), widest(100)) << "they need no more";
}

TEST_F(SweepTest, NoiseThatHidesSaturationIsReported) {
  const SweepTable table = ReadSweepTable(
      Folder(),
      Recorded(ParseAxes({"CPU=1..3"}),
               {{5.0, 5.1, 5.2, 5.3, 5.4}, {8.0, 9.0, 9.1, 11.0, 12.0}, {8.5, 9.5, 10.0, 11.5, 12.5}}));
  const auto saturation = FindSaturation(table);
  ASSERT_TRUE(saturation.has_value());
  EXPECT_EQ(saturation->lowest, 2U);
  EXPECT_FALSE(saturation->reached);
  EXPECT_EQ(saturation->indistinct, 1U);
  EXPECT_THAT(SaturationText(table),
              HasSubstr("These repeats cannot distinguish the best from 9.100 GB/s at CPU=2"));
}

TEST_F(SweepTest, FewRepeatsAreNotCalledNoise) {
  const SweepTable table =
      ReadSweepTable(Folder(), Recorded(ParseAxes({"CPU=1..2"}), {{5.0, 9.0, 9.0}, {8.0, 10.0, 12.0}}));
  EXPECT_EQ(FindSaturation(table)->lowest, 1U);
  EXPECT_FALSE(FindSaturation(table)->indistinct.has_value());
  EXPECT_EQ(SaturationText(table),
            "The total bandwidth does not saturate: the best, 10.00 GB/s at CPU=2, has the most threads.\n");
}

TEST_F(SweepTest, TwoSectionsAreAMap) {
  const SweepTable table = ReadSweepTable(
      Folder(), Recorded(ParseAxes({"CPU=0,1", "VENC=0,1,2"}), {{0}, {1}, {2}, {5}, {9.9}, {10}}));
  EXPECT_EQ(BandwidthText(table),
            "Total bandwidth, GB/s, by the levels of CPU and VENC (darkest: 10.00)\n"
            "         VENC=0    VENC=1    VENC=2\n"
            "CPU=0  0.000     1.000     2.000 ░░\n"
            "CPU=1  5.000 ▒▒  9.900 ██  10.00 ██\n");
  EXPECT_EQ(PointText(table.points[FindSaturation(table)->lowest].levels), "CPU=1 VENC=1");
}

TEST_F(SweepTest, TableHasMediansOfTheRepeats) {
  Sweep sweep = Recorded(ParseAxes({"CPU=1..2"}), {{5, 6, 7}, {8, 9, 10}});
  sweep.runs[5].state = SweepState::kFailed;
  sweep.runs[5].reason = "why";
  const SweepTable table = ReadSweepTable(Folder(), sweep);
  EXPECT_EQ(TableText(table),
            "CPU  runs  cpu op/s  cpu GB/s  total GB/s\n"
            "  1     3    3000.0     6.000       6.000\n"
            "  2     2    4250.0     8.500       8.500\n");
  EXPECT_THAT(table.notes, ElementsAre("run-0006 (CPU=2) failed: why", "not done: 1 of 6 runs"));
}

// Half of the threads stop late in the run, so that the mean of the seconds is not their median.
TEST_F(SweepTest, ARunHasOneValueInSweepsComparisonsAndReports) {
  Sweep sweep = Recorded(ParseAxes({"CPU=2"}), {{5}});
  SyntheticEngine uneven;
  uneven.threads = 2;
  uneven.stopsAt = 24;
  uneven.stoppingThreads = 1;
  WriteRun(Folder() + "/run-0001", {uneven});
  const RunValues compared = ValuesOf(Summarise(ReadRun(Folder() + "/run-0001")), sweep.settings.warmupS);
  const double rate = compared.at({"cpu", Figure::kOperations});
  EXPECT_GT(rate, 600);
  EXPECT_LT(rate, 950);
  const SweepTable table = ReadSweepTable(Folder(), sweep);
  for (const auto& [key, value] : compared) EXPECT_DOUBLE_EQ(*MedianOf(table.points[0], key), value);
  const auto report = nlohmann::json::parse(ReportJson(ReadRuns({Folder() + "/run-0001"})));
  const auto& first = report.at("runs").at(0).at("after_warmup").at(0);
  EXPECT_EQ(first.at("figure"), "ops");
  EXPECT_DOUBLE_EQ(first.at("value"), rate);
}

TEST_F(SweepTest, ARunThatCannotBeReadIsNotedAndLeftOut) {
  const Sweep sweep = Recorded(ParseAxes({"CPU=1..2"}), {{5}, {8}});
  folder_.Put("sweep/run-0001/samples.csv", "nonsense\n");
  const SweepTable table = ReadSweepTable(Folder(), sweep);
  EXPECT_EQ(table.points[0].runs, 0U);
  EXPECT_EQ(table.points[1].runs, 1U);
  EXPECT_THAT(table.notes,
              ElementsAre(HasSubstr("samples.csv:1: expected the header"), "not done: 1 of 2 runs"));
}

TEST_F(SweepTest, OtherConditionsAmongTheRunsAreNoted) {
  const Sweep sweep = Recorded(ParseAxes({"CPU=1..2"}), {{5}, {8}});
  RunInfo info = SyntheticInfo();
  info.conditions.kernel = "6.6";
  WriteRun(Folder() + "/run-0002", {SyntheticEngine()}, info);
  EXPECT_THAT(ReadSweepTable(Folder(), sweep).notes, ElementsAre("the runs differ in kernel: 6.1 or 6.6"));
}

TEST_F(SweepTest, AnEngineThatStopsEarlyIsNoted) {
  const Sweep sweep = Recorded(ParseAxes({"CPU=1..2"}), {{5}, {8}});
  SyntheticEngine stopping;
  stopping.stopsAt = 20;
  WriteRun(Folder() + "/run-0002", {stopping});
  EXPECT_THAT(ReadSweepTable(Folder(), sweep).notes,
              ElementsAre("run-0002 (CPU=2): cpu: no operation after 20 s of 30 s"));
}

TEST_F(SweepTest, SweepsTheRealBenchmark) {
  const std::string config = folder_.Put("cpu.yaml", "logMode: 4\nlogLevel: 3\nCPU:\n  Level: 1\n");
  const ToolResult result =
      RunTool({"sweep", config, "--levels", "CPU=0,1", "--warmup", "1", "--stop-after", "8", "-o", Folder()});
  EXPECT_EQ(result.status, 0) << result.errors;
  const SweepTable table = ReadSweepTable(Folder(), ReadSweep(Folder()));
  ASSERT_EQ(table.points.size(), 2U);
  EXPECT_DOUBLE_EQ(*MedianOf(table.points[0], {kAllEngines, Figure::kBandwidth}), 0);
  const double operations = *MedianOf(table.points[1], {"cpu", Figure::kOperations});
  EXPECT_GT(operations, 0);
  EXPECT_NEAR(
      *MedianOf(table.points[1], {kAllEngines, Figure::kBandwidth}) / (operations * 2 * 8294400 / 1e9), 1,
      1e-9);
  EXPECT_THAT(result.output, HasSubstr("The total bandwidth does not saturate: the best"));
}

}  // namespace
