// SPDX-License-Identifier: Apache-2.0

// Sweeps over settings of a board, with a pretended board (the script pretended_board) whose runs fail, find
// errors, hang, or take all processes down with them. Each test looks in the board's log that this happened.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "error_of.h"
#include "margin_map.h"
#include "page_json.h"
#include "run_reader.h"
#include "run_tool.h"
#include "sweep_folder.h"
#include "sweep_plan.h"
#include "temporary_folder.h"

namespace {

using nlohmann::json;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using namespace scope;

class MarginTest : public ::testing::Test {
 protected:
  MarginTest() {
    folder_.Put("board/system/proc/sys/kernel/random/boot_id", "boot-0\n");
    folder_.Put("board/system/sys/devices/system/edac/mc/mc0/ce_count", "0\n");
    EXPECT_EQ(setenv("BOARD", (folder_ / "board").c_str(), 1), 0);
    EXPECT_EQ(setenv("SWEEP", Folder().c_str(), 1), 0);
  }
  ~MarginTest() override {
    (void)unsetenv("BOARD");
    (void)unsetenv("SWEEP");
  }

  std::string Folder() const { return folder_ / "sweep"; }

  // A sweep of refresh=100, 200, ... on a board with these regions, one a line.
  std::vector<std::string> SweepOf(const std::string& region, int values,
                                   const std::vector<std::string>& more = {}) const {
    folder_.Put("board/region", region);
    std::string setting = "refresh=100";
    for (int i = 2; i <= values; ++i) setting += "," + std::to_string(i * 100);
    std::vector<std::string> arguments = {"sweep",
                                          folder_.Put("config.yaml", "logLevel: 3\nCPU: {Level: 1}\n"),
                                          "-o",
                                          Folder(),
                                          "--benchmark",
                                          PRETENDED_BOARD,
                                          "--no-meter",
                                          "--warmup",
                                          "0",
                                          "--seed",
                                          "1",
                                          "--sysfs-root",
                                          folder_ / "board/system",
                                          "--setting",
                                          setting,
                                          "--apply",
                                          PRETENDED_BOARD " set"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  std::vector<std::string> Log() const {
    std::istringstream text(folder_.Get("board/log"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
  }

  // Lines of the board's log with these words.
  std::ptrdiff_t Count(const std::string& words) const {
    const std::vector<std::string> lines = Log();
    return std::count_if(lines.begin(), lines.end(),
                         [&words](const std::string& line) { return line.find(words) != std::string::npos; });
  }

  // "1 pass, 2 fail: why": what each run has shown, in the order of the grid.
  std::vector<std::string> Results() const {
    std::vector<std::string> results;
    for (const SweepRun& run : ReadSweep(Folder()).runs) {
      const bool hung = run.state == SweepState::kHung;
      results.push_back(!HasResult(run)   ? "none"
                        : !HasFailed(run) ? "pass"
                                          : (hung ? "hang: " : "fail: ") + run.reason);
    }
    return results;
  }

  ToolResult Resume() const { return RunTool({"sweep", "--resume", Folder()}); }

  // Goes on until nothing takes the recorder down any more. Returns the last result.
  ToolResult UntilItEnds(const std::vector<std::string>& arguments, int mostReboots) const {
    ToolResult result = RunTool(arguments);
    for (int i = 0; i < mostReboots && result.status == -SIGKILL; ++i) result = Resume();
    return result;
  }

  TemporaryFolder folder_;
};

TEST_F(MarginTest, EachPointPassesFailsOrHangs) {
  const ToolResult result =
      RunTool(SweepOf("both 1 refresh=600\nhang 1 refresh=500\nwrong 1 refresh=400\nfail 1 refresh=300\n", 6,
                      {"--hang-after", "4"}));
  EXPECT_EQ(Count("both"), 1);
  EXPECT_EQ(Count("hang"), 1);
  EXPECT_EQ(Count("wrong"), 1);
  EXPECT_EQ(Count("fail"), 1);
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(
      Results(),
      ElementsAre("pass", "pass", HasSubstr("fail: the benchmark ended with status 9"),
                  "fail: 2 errors (edac 2)",
                  HasSubstr("hang: the benchmark hangs: there was neither a rate line nor an operation for "
                            "4 s"),
                  HasSubstr("fail: 2 errors (edac 2); the benchmark ended with status 9")));
  EXPECT_THAT(result.output, AllOf(HasSubstr("refresh=200    pass 1/1"), HasSubstr("refresh=500    hang 1/1"),
                                   HasSubstr("refresh towards 600: passes to 200, 1 step away; 300 fails.")));
  EXPECT_THAT(result.output,
              ContainsRegex("note: refresh=400: time to the first error: [0-9.]+ s at the least, "
                            "[0-9.]+ s in the median, of 1 run\n"));
  // Complete, so what it measured stands beside the failure.
  EXPECT_TRUE(ReadRun(Folder() + "/run-0004").info.complete);
  // Failures of a setting are results: they are not recorded again. That holds also where the recorder died
  // after it had written cell.json: only the first values are made again.
  const std::vector<std::string> results = Results();
  Sweep sweep = ReadSweep(Folder());
  for (const std::size_t place : {4U, 5U}) {
    sweep.runs[place].state = SweepState::kRunning;
    sweep.runs[place].attempt = 1;
    sweep.runs[place].reason = "";
  }
  WriteSweep(Folder(), sweep);
  const auto before = Log().size();
  EXPECT_EQ(Resume().status, 0);
  EXPECT_EQ(Results(), results);
  EXPECT_EQ(Log().size(), before + 1);
  EXPECT_EQ(Log().back(), "set refresh=100 running 0");
  EXPECT_EQ(Resume().status, 0);
  EXPECT_EQ(Log().size(), before + 1);
}

// A full disk in the middle of a run: the board did nothing wrong.
TEST_F(MarginTest, WhatTheRecorderCannotWriteIsNoResult) {
  const ToolResult result = RunTool(SweepOf("full 1 refresh=200\n", 2));
  EXPECT_EQ(Count("full"), 1);
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors,
              AllOf(HasSubstr("rates.txt: No space left on device"),
                    HasSubstr("run-0002 (refresh=200) has no result. Continue with: stress_scope sweep "
                              "--resume " +
                              Folder())));
  EXPECT_EQ(Results().back(), "none");
  EXPECT_EQ(Log().back(), "set refresh=100 running 0");
  EXPECT_EQ(json::parse(folder_.Get("sweep/attempts/run-0002/1/cell.json")).at("recorder_failed"), true);
  // As if the recorder had died before it could write that into sweep.json, too.
  Sweep sweep = ReadSweep(Folder());
  sweep.runs[1].state = SweepState::kRunning;
  sweep.runs[1].attempt = 1;
  WriteSweep(Folder(), sweep);
  folder_.Put("board/region", "");
  EXPECT_EQ(Resume().status, 0);
  EXPECT_THAT(Results(), ElementsAre("pass", "pass"));
}

TEST_F(MarginTest, WhereNothingCanBeWrittenARunHasNoResult) {
  const ToolResult result = RunTool(SweepOf("closed 1 refresh=200\n", 2));
  EXPECT_EQ(Count("closed"), 1);
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors, AllOf(HasSubstr("/attempts/run-0002/1/cell.json: "),
                                   HasSubstr("run-0002 (refresh=200) has no result")));
  EXPECT_EQ(Results().back(), "none");
  folder_.Put("board/region", "");
  std::filesystem::remove_all(Folder() + "/sweep.json.new");
  EXPECT_EQ(Resume().status, 0);
  EXPECT_THAT(Results(), ElementsAre("pass", "pass"));
  EXPECT_FALSE(std::filesystem::exists(Folder() + "/" + kKeptSweepName));
}

TEST_F(MarginTest, AMeterThatIsNotLoadedEndsTheSweep) {
  std::vector<std::string> arguments = SweepOf("", 2);
  // The pretended benchmark does not call the platform library.
  arguments.erase(std::find(arguments.begin(), arguments.end(), "--no-meter"));
  const ToolResult result = RunTool(arguments);
  EXPECT_EQ(Count("run "), 1);
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors, HasSubstr("the meter did not answer"));
  EXPECT_THAT(Results(), ElementsAre("none", "none"));
}

TEST_F(MarginTest, SettingsAreMadeBeforeEachRunAndTheFirstOnesAtTheEnd) {
  const ToolResult result = RunTool(SweepOf("", 2, {"--setting", "vref=7,8"}));
  EXPECT_EQ(result.status, 0) << result.errors;
  const std::vector<std::string> log = Log();
  ASSERT_EQ(log.size(), 9U);
  for (std::size_t i = 0; i < 8; i += 2) {
    // Nothing begins before the disk says that it runs.
    const std::string made = log[i].substr(4, log[i].find(" running 1") - 4);
    EXPECT_EQ(log[i], "set " + made + " running 1");
    EXPECT_EQ(log[i + 1], "run " + made + " pass");
  }
  EXPECT_EQ(log[8], "set refresh=100 vref=7 running 0");
}

TEST_F(MarginTest, AFailedCommandIsAFailedPoint) {
  const ToolResult result = RunTool(
      SweepOf("lost 1 refresh=400\nstuck 1 refresh=300\nrefuse 1 refresh=200\n", 4, {"--hang-after", "4"}));
  EXPECT_EQ(Count("refused"), 1);
  EXPECT_EQ(Count("lost"), 1);
  EXPECT_EQ(Count("stuck"), 1);
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(
      Results(),
      ElementsAre(
          "pass",
          "fail: cannot make the settings of the board: the command ended with status 5: " PRETENDED_BOARD
          " set refresh=200",
          HasSubstr("hang: cannot make the settings of the board: the command did not end "
                    "within 4 s"),
          // The command is there. Something in it is not.
          HasSubstr("fail: cannot make the settings of the board: the command ended with status 127: ")));
  EXPECT_THAT(result.errors, HasSubstr("no such value"));
}

// For example when the sweep is continued from another folder: that is no result.
TEST_F(MarginTest, ACommandThatIsNotThereEndsTheSweep) {
  std::vector<std::string> arguments = SweepOf("", 2);
  arguments.back() = folder_ / "set";
  const ToolResult result = RunTool(arguments);
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors, HasSubstr("cannot run the command, status 127: " + (folder_ / "set")));
  EXPECT_THAT(Results(), ElementsAre("none", "none"));
  EXPECT_THAT(Log(), IsEmpty());
  folder_.Put("set", "#!/bin/sh\nexec " PRETENDED_BOARD " set \"$@\"\n");
  std::filesystem::permissions(folder_ / "set", std::filesystem::perms::owner_all);
  EXPECT_EQ(Resume().status, 0);
  EXPECT_THAT(Results(), ElementsAre("pass", "pass"));
}

TEST_F(MarginTest, WhereTheFirstValuesAreNotMadeTheSweepFails) {
  const ToolResult result = RunTool(SweepOf("refuse 2 refresh=100\n", 1));
  EXPECT_EQ(Count("refused"), 1);
  EXPECT_EQ(result.status, 3);  // the run itself, which is the chosen point
  std::filesystem::remove_all(Folder());
  folder_.Put("board/counts",
              "refuse refresh=100 refresh=100 \n");  // the next one passes, the one after it not
  const ToolResult after = RunTool(SweepOf("refuse 2 refresh=100\n", 1));
  EXPECT_EQ(Count("refused"), 2);
  EXPECT_EQ(after.status, 1);
  EXPECT_THAT(after.errors,
              HasSubstr("the first values, refresh=100, are not made: the command ended with status 5"));
  EXPECT_THAT(Results(), ElementsAre("pass"));
  // The folder remembers it: --resume makes them, although no run is left.
  const auto restored = [this] {
    return json::parse(RunTool({"report", Folder(), "--json"}).output).at("margin").at("restored");
  };
  EXPECT_EQ(restored(), false);
  EXPECT_THAT(after.output, HasSubstr("note: the first values are not made again"));
  folder_.Put("board/region", "");
  EXPECT_EQ(Resume().status, 0);
  EXPECT_EQ(Log().back(), "set refresh=100 running 0");
  EXPECT_EQ(restored(), true);
}

TEST_F(MarginTest, WhatWasRunningWhenTheMachineDiedIsAFailedPoint) {
  const ToolResult died = RunTool(SweepOf("reboot 1 refresh=300\n", 4));
  EXPECT_EQ(died.status, -SIGKILL);
  EXPECT_EQ(Count("reboot"), 1);
  ToolResult resumed = Resume();
  EXPECT_THAT(resumed.errors,
              HasSubstr("did not come back: the machine was started again; it counts as failed"));
  EXPECT_THAT(resumed.output,
              HasSubstr("names the command that makes the settings: " PRETENDED_BOARD " set"));
  if (resumed.status == -SIGKILL) resumed = Resume();
  EXPECT_EQ(Count("reboot"), 2);
  EXPECT_EQ(resumed.status, 0) << resumed.errors;
  EXPECT_THAT(Results(), ElementsAre("pass", "pass", "fail: did not come back: the machine was started again",
                                     "fail: did not come back: the machine was started again"));
  EXPECT_EQ(Log().back(), "set refresh=100 running 0");
}

TEST_F(MarginTest, ARecorderThatWasKilledIsToldFromAMachineThatWasStartedAgain) {
  Sweep sweep;
  ASSERT_EQ(RunTool(SweepOf("", 2)).status, 0);
  sweep = ReadSweep(Folder());
  sweep.runs[1].state = SweepState::kRunning;
  WriteSweep(Folder(), sweep);
  // It was done, only sweep.json did not know.
  EXPECT_EQ(Resume().status, 0);
  EXPECT_THAT(Results(), ElementsAre("pass", "pass"));
  std::filesystem::remove_all(Folder() + "/run-0002");
  WriteSweep(Folder(), sweep);
  const std::size_t before = Log().size();
  EXPECT_EQ(Resume().status, 0);
  EXPECT_THAT(Results(), ElementsAre("pass", "fail: did not come back: the recorder was killed"));
  // It has left the settings made that it died with.
  ASSERT_EQ(Log().size(), before + 1);
  EXPECT_EQ(Log().back(), "set refresh=100 running 0");
}

TEST_F(MarginTest, RefusesAFileThatMeansHarm) {
  ASSERT_EQ(RunTool(SweepOf("", 2)).status, 0);
  const json valid = json::parse(folder_.Get("sweep/sweep.json"));
  const auto error = [&](const json& changes) {
    json changed = valid;
    changed.update(changes);
    folder_.Put("sweep/sweep.json", changed.dump());
    return ErrorOf([&] { (void)ReadSweep(Folder()); });
  };
  EXPECT_EQ(error(json::object()), "no error");
  EXPECT_THAT(error({{"tries", -1}}), HasSubstr("expected tries of 0 or more, found -1"));
  EXPECT_THAT(error({{"settings", json::object()}}), HasSubstr("expected settings with values, found none"));
  EXPECT_THAT(error({{"edge", true}, {"grid", {{"CPU", {1}}}}}),
              HasSubstr("an edge is looked for in settings alone, found levels of CPU"));
  json runs = valid.at("runs");
  runs[0]["lost"] = -1;
  EXPECT_THAT(error({{"runs", runs}}),
              HasSubstr("expected for \"lost\" a number from 0 to 1000000, found -1"));
  // 2 to the power of 64 is 0 in a word.
  json settings;
  json at;
  for (int i = 0; i < 64; ++i) {
    settings["s" + std::to_string(i)] = {"1", "2"};
    at["s" + std::to_string(i)] = "1";
  }
  EXPECT_THAT(error({{"settings", settings}, {"at", at}, {"runs", json::array()}}),
              AllOf(HasSubstr("the grid has "), HasSubstr("found 0")));
}

// The folder of an attempt may not be on the disk when the machine dies.
TEST_F(MarginTest, AnEarlierAttemptSaysNothingAboutTheOneThatDied) {
  ASSERT_EQ(RunTool(SweepOf("fail 1 refresh=200\n", 2)).status, 0);
  ASSERT_EQ(Count("fail"), 1);
  ASSERT_TRUE(std::filesystem::exists(Folder() + "/attempts/run-0002/1/cell.json"));
  Sweep sweep = ReadSweep(Folder());
  sweep.runs[1].state = SweepState::kRunning;
  sweep.runs[1].attempt = 1;
  sweep.runs[1].reason = "";
  WriteSweep(Folder(), sweep);
  EXPECT_EQ(Resume().status, 0);
  EXPECT_THAT(Results(), ElementsAre("pass", HasSubstr("fail: the benchmark ended with status 9")));
  sweep.runs[1].attempt = 2;
  WriteSweep(Folder(), sweep);
  EXPECT_EQ(Resume().status, 0);
  EXPECT_THAT(Results(), ElementsAre("pass", "fail: did not come back: the recorder was killed"));
}

TEST_F(MarginTest, WhatDiedIsTriedAgain) {
  // Every second run at 300 takes the machine down: the first one.
  const ToolResult result = UntilItEnds(SweepOf("reboot 2 refresh=300\n", 3, {"--tries", "1"}), 3);
  EXPECT_EQ(Count("reboot"), 1);
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(Results(), ElementsAre("pass", "pass", "pass"));
  EXPECT_THAT(result.output, HasSubstr("note: run-0003 (refresh=300) came to its end, but before that the "
                                       "machine or the recorder died in it once"));
  EXPECT_TRUE(std::filesystem::exists(Folder() + "/attempts/run-0003/1")) << "what was there is kept";
}

// The second run at 200 would pass.
TEST_F(MarginTest, WhatFoundErrorsAndDiedHasFailedWhateverTheTries) {
  const ToolResult result = UntilItEnds(SweepOf("dies 2 refresh=200\n", 2, {"--tries", "1"}), 3);
  EXPECT_EQ(Count("dies"), 1);
  EXPECT_EQ(Count("saved 1"), 1);
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(
      Results(),
      ElementsAre("pass", "fail: 2 errors (edac 2); did not come back: the machine was started again"));
  EXPECT_THAT(result.output, HasSubstr("refresh=200    fail 1/1"));
}

// Without settings of the board, a run that failed is none of the sweep's results. Its errors are.
TEST_F(MarginTest, ErrorsOfARunThatFailedComeBeforeItsFailure) {
  std::vector<std::string> arguments = SweepOf("both 1\n", 1);
  arguments.resize(arguments.size() - 4);
  arguments.insert(arguments.end(), {"--levels", "CPU=1"});
  const ToolResult result = RunTool(arguments);
  EXPECT_EQ(Count("both"), 1);
  EXPECT_EQ(result.status, 3) << result.errors;
  EXPECT_THAT(result.output, HasSubstr("failed: 2 errors (edac 2); the benchmark ended with status 9"));
  // They are told whatever else fails.
  std::filesystem::remove(Folder() + "/report.html");
  std::filesystem::create_directory(Folder() + "/report.html");
  const ToolResult noPage = Resume();
  EXPECT_EQ(Count("both"), 2);
  EXPECT_EQ(noPage.status, 3);
  EXPECT_THAT(noPage.errors, HasSubstr("cannot write " + Folder() + "/report.html: Is a directory"));
  std::filesystem::remove(Folder() + "/report.html");
  folder_.Put("board/region", "fail 1\n");
  EXPECT_EQ(Resume().status, 1) << "the errors were those of an earlier attempt";
  EXPECT_EQ(Count("fail"), 1);
}

TEST_F(MarginTest, TriesEnd) {
  const ToolResult result = UntilItEnds(SweepOf("reboot 1 refresh=200\n", 2, {"--tries", "2"}), 5);
  EXPECT_EQ(Count("reboot"), 3);
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(Results(),
              ElementsAre("pass", "fail: did not come back: the machine was started again, 3 times"));
}

TEST_F(MarginTest, AnInterruptedSweepMakesTheFirstValuesAndGoesOn) {
  std::vector<std::string> arguments = SweepOf("hang 1 refresh=200\n", 2);
  scope::ChildProcess child(ProgramOptions(STRESS_SCOPE, arguments));
  for (int i = 0; i < 12000 && Count("hang") == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(Count("hang"), 1);
  child.Signal(SIGINT);
  const ToolResult result = WaitFor(child);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(Log().back(), "set refresh=100 running 0");
  EXPECT_THAT(Results(), Contains("none"));
  folder_.Put("board/region", "");
  EXPECT_EQ(Resume().status, 0);
  EXPECT_THAT(Results(), ElementsAre("pass", "pass"));
}

TEST_F(MarginTest, TheEdgeIsFoundInAQuarterOfTheRunsWhateverDies) {
  // From 1100 on every second run fails, from 1300 on the board goes down.
  const ToolResult result = UntilItEnds(SweepOf("reboot 1 refresh=1300\nfail 2 refresh=1100\n", 16,
                                                {"--repeat", "4", "--edge", "--hang-after", "4"}),
                                        5);
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_GT(Count("fail"), 0);
  EXPECT_GT(Count("reboot"), 0);
  const MarginMap map = MarginMapOf(ReadSweep(Folder()), {});
  EXPECT_LE(map.runs, 16U);
  ASSERT_EQ(map.edges.size(), 1U);
  EXPECT_EQ(map.edges[0].last, 9U);
  EXPECT_THAT(
      result.output,
      HasSubstr("refresh towards 1600: passes to 1000, 9 steps away; 1100 fails. No failure in 4 runs there: "
                "the failure rate is below 0.75 per run (95 %)."));
  // Nothing is left to record.
  const auto before = Log().size();
  EXPECT_EQ(Resume().status, 0);
  EXPECT_EQ(Log().size(), before);
}

TEST_F(MarginTest, JsonAndPageHaveTheMap) {
  ASSERT_EQ(
      RunTool(SweepOf("fail 1 refresh=300 vref=8\n", 4, {"--setting", "vref=7,8,9", "--at", "refresh=200"}))
          .status,
      0);
  const json data = json::parse(RunTool({"report", Folder(), "--json"}).output);
  EXPECT_EQ(data.at("complete"), true);
  EXPECT_EQ(data.at("saturation"), nullptr);
  const json& margin = data.at("margin");
  EXPECT_EQ(margin.at("settings")[1], json::parse(R"({"name": "vref", "values": ["7", "8", "9"]})"));
  EXPECT_EQ(margin.at("chosen"), 3);
  EXPECT_EQ(margin.at("neighbours"), json::parse("[0, 4, 6]"));
  EXPECT_EQ(margin.at("points")[7].at("state"), "fail");
  EXPECT_EQ(margin.at("points")[6].at("state"), "pass");
  EXPECT_EQ(margin.at("points")[6].at("performance"), 997);
  EXPECT_EQ(margin.at("figure").at("unit"), "fps");
  EXPECT_EQ(margin.at("edges")[1].at("direction"), "up");
  EXPECT_EQ(data.at("points")[5].at("settings"), json::parse(R"({"refresh": "200", "vref": "9"})"));
  EXPECT_EQ(margin.at("edge"), false);
  EXPECT_EQ(margin.at("points")[3].at("not_judged"), json::array());
  EXPECT_EQ(DataOf(folder_.Get("sweep/report.html")).at("margin"), margin);
  const ToolResult compared =
      RunTool({"compare", Folder() + ":refresh=100,vref=7", Folder() + ":refresh=400,vref=7"});
  EXPECT_THAT(compared.output, HasSubstr("-0.30 %")) << compared.errors;
  EXPECT_THAT(RunTool({"compare", Folder() + ":refresh=100", Folder() + ":refresh=400,vref=7"}).errors,
              HasSubstr("expected a value of vref as well: it was swept"));
}

// The runs of a point that came to their end do not speak for those that failed.
TEST_F(MarginTest, AComparisonOfPointsTellsOfRunsThatFailed) {
  ASSERT_EQ(RunTool(SweepOf("fail 1 refresh=300\nfail 2 refresh=200\n", 3, {"--repeat", "2"})).status, 0);
  EXPECT_EQ(Count("fail"), 3);
  const auto compared = [this](const char* a, const char* b) {
    return RunTool({"compare", Folder() + ":refresh=" + a, Folder() + ":refresh=" + b});
  };
  const std::string why = " (the benchmark ended with status 9; its log says why)";
  const ToolResult worse = compared("100", "200");
  EXPECT_EQ(worse.status, 1) << worse.errors;
  EXPECT_THAT(worse.output, HasSubstr("B is worse than A: failed: none of A, 1 of 2 runs of B" + why));
  EXPECT_THAT(compared("200", "100").output,
              HasSubstr("note: failed: 1 of 2 runs of A" + why + ", none of B"));
  // As often on both sides: neither is worse for that.
  EXPECT_THAT(compared("200", "200").output,
              HasSubstr("note: failed: 1 of 2 runs of A" + why + ", 1 of 2 runs of B"));
  const ToolResult none = compared("100", "300");
  EXPECT_EQ(none.status, 2);
  EXPECT_THAT(none.errors, HasSubstr("no run of this point is done; 2 runs failed" + why));
}

// A run that was asked to check results, and could not check those of an engine, is not simply good.
TEST_F(MarginTest, SaysWhichEnginesWereNotJudged) {
  ASSERT_EQ(RunTool(SweepOf("", 2)).status, 0);
  const auto judge = [this](const char* run, const char* state) {
    const std::string path = std::string("sweep/") + run + "/run.json";
    json info = json::parse(folder_.Get(path));
    info.at("conditions")["verify"] = true;
    // Of the meter, which the pretended benchmark has not.
    json check = {{"engine", "cpu"}, {"state", state}};
    for (const char* const key :
         {"operations", "checked", "whole", "bytes", "all_bytes", "errors", "unlisted"})
      check[key] = 0;
    check["check_s"] = 0.0;
    info["verification"] = json::array({check});
    folder_.Put(path, info.dump());
  };
  const auto text = [this] { return RunTool({"report", Folder(), "--text"}).output; };
  judge("run-0001", "judged");
  judge("run-0002", "judged");
  EXPECT_THAT(text(), AllOf(HasSubstr("pass 1/1  "), Not(HasSubstr("pass 1/1 ?")), Not(HasSubstr("judged"))));
  judge("run-0002", "learning");
  EXPECT_THAT(
      text(),
      AllOf(HasSubstr("refresh=200    pass 1/1 ?"), HasSubstr("refresh=100 *  pass 1/1  "),
            HasSubstr("?: not all results were judged."),
            HasSubstr("passes to 200, 1 step away, the last value. No failure in 1 run there, too few "
                      "for a failure rate. Not judged there: results of cpu."),
            HasSubstr("\n  cpu: not judged: too few operations, or none with the same source, to learn what "
                      "is right; at refresh=200\n")));
  judge("run-0001", "learning");
  EXPECT_THAT(text(), HasSubstr("learn what is right; at all points that passed\n"));
  const json margin = json::parse(RunTool({"report", Folder(), "--json"}).output).at("margin");
  EXPECT_EQ(margin.at("points")[1].at("state"), "pass");
  EXPECT_EQ(margin.at("points")[1].at("text"), "pass 1/1 ?");
  EXPECT_EQ(
      margin.at("points")[1].at("not_judged"),
      json::array(
          {"cpu: not judged: too few operations, or none with the same source, to learn what is right"}));
}

// Whatever the setting, equal frames give equal streams.
TEST_F(MarginTest, NamesRunsWhoseStreamsDiffer) {
  ASSERT_EQ(RunTool(SweepOf("", 2)).status, 0);
  const auto encode = [this](const char* run, const char* hash) {
    const std::string path = std::string("sweep/") + run + "/run.json";
    json info = json::parse(folder_.Get(path));
    info["verification"] = json::array({{{"engine", "venc"}, {"state", "alone"}}});
    info["streams"] = json::array({{{"key", "1"}, {"groups", json::array({hash})}}});
    folder_.Put(path, info.dump());
  };
  const auto texts = [this] {
    // The text of a sweep compares two of its points, too.
    return std::vector{json::parse(RunTool({"report", Folder(), "--json"}).output).at("notes").dump(),
                       RunTool({"compare", Folder() + ":refresh=100", Folder() + ":refresh=200"}).output};
  };
  const std::string differ = "sweep/run-0002 differ from those of ";
  encode("run-0001", "a");
  encode("run-0002", "a");
  for (const std::string& text : texts()) EXPECT_THAT(text, AllOf(Not(HasSubstr(differ)), Not(IsEmpty())));
  encode("run-0002", "b");
  for (const std::string& text : texts()) EXPECT_THAT(text, HasSubstr(differ));
}

// The documents of the margin describe each of its keys.
TEST_F(MarginTest, FormatDescribesEveryKey) {
  std::stringstream format;
  format << std::ifstream(SCOPE_FORMAT_MARGIN).rdbuf();
  ASSERT_NE(format.str(), "");
  ASSERT_EQ(RunTool(SweepOf("fail 1 refresh=200\n", 2)).status, 0);
  const json margin = json::parse(RunTool({"report", Folder(), "--json"}).output).at("margin");
  const auto expect = [&format](const std::string& key) {
    const std::string text = format.str();
    const bool describes = text.find("`" + key + "`") != std::string::npos ||
                           text.find("`" + key + "[]`") != std::string::npos ||
                           text.find("." + key + "`") != std::string::npos;
    EXPECT_TRUE(describes) << key;
  };
  for (const auto& [key, value] : margin.items()) expect(key);
  for (const auto& [key, value] : margin.at("points")[0].items()) expect(key);
  for (const auto& [key, value] : margin.at("edges")[0].items()) expect(key);
  for (const char* const key : {"settings", "apply", "at", "edge", "tries", "boot_id", "attempt", "lost"}) {
    expect(key);
  }
}

TEST_F(MarginTest, RefusesBadInput) {
  const auto refused = [&](const std::vector<std::string>& more, const std::string& words) {
    const ToolResult result = RunTool(SweepOf("", 2, more));
    EXPECT_EQ(result.status, 2) << words;
    EXPECT_THAT(result.errors, HasSubstr(words));
    EXPECT_FALSE(std::filesystem::exists(Folder()));
  };
  refused({"--setting", "refresh=1"}, "values of refresh are given twice");
  refused({"--at", "vref=1"}, "--setting does not give \"vref\"");
  refused({"--at", "refresh=7"}, "expected one of the values of refresh, found \"7\"");
  refused({"--edge", "--levels", "CPU=1,2"}, "--edge looks for the edge of settings");
  refused({"--hang-after", "0"}, "--hang-after");
  std::vector<std::string> arguments = SweepOf("", 2);
  arguments.resize(arguments.size() - 2);
  EXPECT_THAT(RunTool(arguments).errors, HasSubstr("--setting needs --apply"));
  EXPECT_THAT(RunTool({"sweep", arguments[1], "--levels", "CPU=1", "--edge"}).errors,
              HasSubstr("give --setting as well"));
  EXPECT_THAT(RunTool({"sweep", arguments[1], "--levels", "CPU=1", "--tries", "2", "-o", Folder()}).errors,
              HasSubstr("--tries are for settings of the board"));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(MarginTest, RefusesAFileThatWouldRunSomethingElse) {
  ASSERT_EQ(RunTool(SweepOf("", 2)).status, 0);
  const json valid = json::parse(folder_.Get("sweep/sweep.json"));
  const auto error = [&](const std::string& place, const json& value) {
    json changed = valid;
    changed.at(json::json_pointer(place)) = value;
    folder_.Put("sweep/sweep.json", changed.dump());
    return ErrorOf([&] { (void)ReadSweep(Folder()); });
  };
  EXPECT_EQ(error("/apply", "x"), "no error");
  EXPECT_THAT(error("/apply", ""), HasSubstr("no command makes the settings"));
  EXPECT_THAT(error("/settings/refresh/1", "$(x)"), HasSubstr("value of refresh: expected"));
  EXPECT_THAT(error("/settings/refresh/1", "100"), HasSubstr("expected values of refresh, each once"));
  EXPECT_THAT(error("/settings", {{"a b", {"1", "2"}}}), HasSubstr("name of a setting: expected"));
  EXPECT_THAT(error("/settings/refresh", json::array()), HasSubstr("expected values of refresh, each once"));
  EXPECT_THAT(error("/runs/1/settings/refresh", "100"), HasSubstr("is not the next point of the grid"));
  EXPECT_THAT(error("/at/refresh", "7"), HasSubstr("\"at\" is not a point of the settings"));
  EXPECT_THAT(error("/tries", 4294967297), HasSubstr("tries: expected a whole number"));
}

}  // namespace
