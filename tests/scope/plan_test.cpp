// SPDX-License-Identifier: Apache-2.0

// plan, cell and collect: runs that are planned in one place and recorded in others, by runners that are
// interrupted, killed, or two at once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "cell_file.h"
#include "cell_folder.h"
#include "cell_plan.h"
#include "collection.h"
#include "collection_text.h"
#include "error_of.h"
#include "made_run.h"
#include "plan_file.h"
#include "run_error.h"
#include "run_reader.h"
#include "run_tables.h"
#include "run_tool.h"
#include "series_json.h"
#include "sweep_plan.h"
#include "system_files.h"
#include "temporary_folder.h"
#include "text_format.h"

namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;
using namespace scope;
namespace fs = std::filesystem;

TEST(CellPlanTest, EachBoardRecordsEachPointBeforeAnyRepeat) {
  const PlanGrid grid{
      {"b1", "b2"}, ParseAxes({"CPU=0..2"}), {{"refresh", {"3900", "7800"}}, {"mode", {"fast"}}}};
  const std::vector<PlanCell> cells = PlanCells(grid, 3, 7);
  ASSERT_EQ(cells.size(), 36U);
  EXPECT_EQ(cells[0].folder, "cell-0001");
  EXPECT_EQ(cells[35].folder, "cell-0036");
  for (std::size_t repeat = 0; repeat < 3; ++repeat) {
    std::set<std::string> labels;
    for (std::size_t i = 0; i < 12; ++i) {
      EXPECT_EQ(cells[repeat * 12 + i].repeat, static_cast<int>(repeat) + 1);
      labels.insert(CellLabel(cells[repeat * 12 + i]));
    }
    EXPECT_EQ(labels.size(), 12U);
    EXPECT_EQ(labels.count("b2: CPU=2, refresh=3900, mode=fast, repeat " + std::to_string(repeat + 1)), 1U);
  }
  const auto labelsOf = [&grid](std::uint64_t seed) {
    std::vector<std::string> labels;
    for (const PlanCell& cell : PlanCells(grid, 3, seed)) labels.push_back(CellLabel(cell));
    return labels;
  };
  EXPECT_EQ(labelsOf(7), labelsOf(7));
  EXPECT_NE(labelsOf(7), labelsOf(8));
}

TEST(CellPlanTest, WithoutBoardsAndLevelsACellIsTheConfigurationOnAnyBoard) {
  const std::vector<PlanCell> cells = PlanCells({}, 2, 1);
  ASSERT_EQ(cells.size(), 2U);
  EXPECT_EQ(CellLabel(cells[1]), "repeat 2");
  EXPECT_EQ(cells[1].board, "");
}

TEST(CellPlanTest, RefusesNamesThatAShellOrAFolderWouldNotTake) {
  const auto boards = [](const std::string& text) { return ErrorOf([&] { (void)ParseBoards({text}); }); };
  EXPECT_EQ(boards("b1,b2"), "no error");
  EXPECT_THAT(boards("b1,b1"), HasSubstr("the board b1 is given twice"));
  for (const char* const name : {"", "b1,", "-b", "b 1", "b;1", "../b", "b\n"})
    EXPECT_THAT(boards(name), HasSubstr("name of a board: expected 1 to 64 letters, digits")) << name;
  EXPECT_THAT(boards(std::string(65, 'b')), HasSubstr("expected 1 to 64"));
  EXPECT_EQ(boards(std::string(64, 'b')), "no error");
  const auto settings = [](std::vector<std::string> texts) {
    return ErrorOf([&] { (void)ParseSettings(texts); });
  };
  EXPECT_EQ(settings({"refresh=3900,7800", "file=/sys/x:1"}), "no error");
  EXPECT_THAT(settings({"refresh"}), HasSubstr("as in refresh=3900,7800"));
  EXPECT_THAT(settings({"refresh=1", "refresh=2"}), HasSubstr("values of refresh are given twice"));
  EXPECT_THAT(settings({"refresh=1,1"}), HasSubstr("refresh=1 is given twice"));
  EXPECT_THAT(settings({"refresh="}), HasSubstr("value of refresh: expected 1 to 64"));
  EXPECT_THAT(settings({"refresh=$(date)"}), HasSubstr("value of refresh: expected"));
  EXPECT_THAT(settings({"a b=1"}), HasSubstr("name of a setting: expected"));
}

TEST(CellPlanTest, RefusesMoreCellsThanAPlanHolds) {
  PlanGrid grid;
  for (int i = 0; i < 10'000; ++i) grid.boards.push_back("b" + std::to_string(i));
  grid.axes = ParseAxes({"CPU=0..10", "VPC=0..10", "VENC=0..10", "AIC=0..10"});
  EXPECT_THAT(ErrorOf([&] { (void)PlanCells(grid, 1000, 1); }), HasSubstr("more than 500000 cells"));
}

TEST(CollectionTest, NumbersToRunAreRanges) {
  const auto numbers = [](const std::string& states) {
    std::vector<CellStatus> cells;
    for (const char state : states)
      cells.push_back({state == 'd' ? CellState::kDone : CellState::kFailed, "", "", ""});
    return NumbersToRun(cells);
  };
  EXPECT_EQ(numbers("dddd"), "");
  EXPECT_EQ(numbers("ffff"), "1-4");
  EXPECT_EQ(numbers("fddffdf"), "1,4-5,7");
  EXPECT_EQ(numbers(""), "");
}

TEST(CollectionTest, NumbersToRunByBoardMayLeaveOutWhatFailed) {
  Plan plan;
  std::vector<CellStatus> cells;
  const auto add = [&](const std::string& board, CellState state) {
    plan.cells.push_back({CellFolder(plan.cells.size() + 1), board, {}, {}, 1});
    cells.push_back({state, "", "", ""});
  };
  for (const CellState state : {CellState::kDone, CellState::kFailed, CellState::kMissing})
    for (const char* const board : {"b2", "b1", ""}) add(board, state);
  add("b1", CellState::kInterrupted);
  add("b1", CellState::kUnfinished);
  add("b1", CellState::kDamaged);
  EXPECT_EQ(NumbersToRunByBoard(plan, cells, false), "- 6,9\nb1 5,8,10-12\nb2 4,7\n");
  EXPECT_EQ(NumbersToRunByBoard(plan, cells, true), "- 9\nb1 8,10-11\nb2 7\n");
  EXPECT_EQ(NumbersToRunByBoard(plan, std::vector<CellStatus>(12, {CellState::kDone, "", "", ""}), false),
            "");
}

TEST(CollectionTest, LongListsAreCutAndSaySo) {
  Plan plan;
  std::vector<CellStatus> cells;
  for (int i = 0; i < 100; ++i) {
    plan.cells.push_back({CellFolder(plan.cells.size() + 1), "board" + std::to_string(i), {}, {}, 1});
    cells.push_back({i < 50 ? CellState::kDone : CellState::kFailed, "why", "attempts/x/1", ""});
  }
  const std::string text = CollectionText("night", plan, cells, {});
  EXPECT_THAT(text, AllOf(HasSubstr("50 boards complete and not listed\n"),
                          HasSubstr("30 more boards not complete\n"), Not(HasSubstr("\nboard49 ")),
                          HasSubstr("\nboard50 "), HasSubstr("30 more cells not done; --json lists all\n"),
                          HasSubstr("(all)      100    50      50"), HasSubstr("\nto run: 51-100\n")));
}

TEST(CollectionTest, AMissingCellHasTheLastLineOfItsLog) {
  const TemporaryFolder folder;
  const auto reasonOf = [&folder](std::size_t number) {
    return StatusOf(folder.Path(), "plan", {CellFolder(number), "", {}, {}, 1}, number);
  };
  EXPECT_EQ(reasonOf(1).reason, "");
  folder.Put("logs/cell-0001.log", "job 1 begins\nstress_scope: cannot read the model\n\n");
  EXPECT_EQ(reasonOf(1).reason, "stress_scope: cannot read the model");
  EXPECT_EQ(reasonOf(1).folder, "logs/cell-0001.log");
  EXPECT_EQ(reasonOf(1).state, CellState::kMissing);
  folder.Put("logs/cell-0002.log", std::string(10'000, 'x') + "y");
  EXPECT_EQ(reasonOf(2).reason, std::string(4095, 'x') + "y");
  ASSERT_EQ(mkfifo((folder / "logs/cell-0003.log").c_str(), 0666), 0);
  EXPECT_EQ(reasonOf(3).reason, "");
}

// A run that ended with its recorder: only its files say what it has found.
TEST(CollectionTest, WhatAnAttemptHasFoundIsToldOnce) {
  const TemporaryFolder folder;
  Plan plan;
  plan.cells = {{CellFolder(1), "", {}, {}, 1}};
  const SourceErrors two = {{"edac", 2}};
  const auto write = [&](const std::string& name, bool hasErrors) {
    scope::Run run = made_run::Run();
    run.info.complete = false;
    scope::RunError error;
    error.source = kMemoryController;
    error.what = "corrected";
    error.note = "2 more";
    made_run::Write(run, folder / name);
    const std::vector<scope::RunError> errors = {error};
    if (hasErrors)
      folder.Put(name + "/errors.csv", TableHeader<scope::RunError>() + "\n" + TableText(errors));
  };
  const auto status = [&] { return StatusOf(folder.Path(), plan.id, plan.cells[0], 1); };
  write("attempts/cell-0001/1", true);
  EXPECT_EQ(status().state, CellState::kUnfinished);
  EXPECT_EQ(status().errors, two);
  EXPECT_EQ(status().earlierErrors, SourceErrors());
  write("attempts/cell-0001/2", false);
  EXPECT_EQ(status().errors, SourceErrors());
  EXPECT_EQ(status().earlierErrors, two);
  EXPECT_THAT(CollectionText("night", plan, {status()}, {}),
              AllOf(HasSubstr("\n1 cell with 2 errors (edac 2)\n"),
                    HasSubstr("; an earlier attempt found 2 errors (edac 2); see attempts/cell-0001/2\n")));
  folder.Put("attempts/cell-0001/1/run.json", "{");
  EXPECT_EQ(status().earlierErrors, two) << "the table still has them";
  // An attempt that has no run repeats what the run before it has found.
  CellRecord record;
  record.number = 1;
  record.state = CellState::kInterrupted;
  record.errors = two;
  folder.Put("attempts/cell-0001/3/cell.json", CellText(record));
  EXPECT_EQ(status().state, CellState::kInterrupted);
  EXPECT_EQ(status().errors, SourceErrors());
  EXPECT_EQ(status().earlierErrors, two);
  // The cell is done at last.
  record.state = CellState::kDone;
  record.files = {{"run.json", 3}};
  folder.Put("cell-0001/run.json", "{}\n");
  folder.Put("cell-0001/cell.json", CellText(record));
  EXPECT_EQ(status().state, CellState::kDone);
  EXPECT_EQ(status().errors, two);
  EXPECT_EQ(status().earlierErrors, two);
  folder.Put("cell-0001/cell.json", "{");
  EXPECT_EQ(status().state, CellState::kDamaged);
  EXPECT_EQ(status().earlierErrors, two);
}

// Earlier versions did not keep errors: that is not the same as none.
TEST(CollectionTest, WhatIsNotKnownIsNotNone) {
  const TemporaryFolder folder;
  CellRecord record;
  record.number = 1;
  record.state = CellState::kDone;
  record.files = {{"run.json", 3}};
  nlohmann::json json = nlohmann::json::parse(CellText(record));
  EXPECT_EQ(json.erase("errors") + json.erase("looked_for_errors"), 2U);
  folder.Put("cell-0001/cell.json", json.dump());
  folder.Put("cell-0001/run.json", "{}\n");
  const CellRecord read = ReadCell(folder / "cell-0001").value();
  EXPECT_FALSE(read.errors);
  EXPECT_FALSE(read.looksForErrors);
  Plan plan;
  plan.cells = {{CellFolder(1), "", {}, {}, 1}};
  const std::vector<CellStatus> cells = Collect(folder.Path(), plan);
  EXPECT_THAT(CollectionText("night", plan, cells, {}),
              HasSubstr("\nof 1 cell it is not known whether errors were found\n"));
  json = nlohmann::json::parse(CollectionJson("night", plan, cells));
  EXPECT_TRUE(json.at("cells").at(0).at("errors").is_null());
  EXPECT_EQ(json.at("cells_with_errors"), 0);
}

TEST(CollectionTest, WhatCannotBeReadIsNotNone) {
  const TemporaryFolder folder;
  folder.Put("attempts/cell-0001/1/errors.csv", "no such table\n");
  Plan plan;
  plan.cells = {{CellFolder(1), "", {}, {}, 1}};
  EXPECT_FALSE(Collect(folder.Path(), plan).at(0).errors);
  folder.Put("attempts/cell-0001/1/errors.csv", "");
  EXPECT_EQ(Collect(folder.Path(), plan).at(0).errors, SourceErrors());
}

// They are not lost among cells that have failed.
TEST(CollectionTest, CellsWithErrorsComeFirst) {
  Plan plan;
  std::vector<CellStatus> cells;
  for (int i = 0; i < 60; ++i) {
    plan.cells.push_back({CellFolder(plan.cells.size() + 1), "", {}, {}, 1});
    cells.push_back({i < 30 ? CellState::kFailed : CellState::kDone, "", "x", ""});
    if (i >= 35) cells.back().errors = SourceErrors{{"cpu", 1}};
  }
  const std::string text = CollectionText("night", plan, cells, {});
  EXPECT_THAT(text,
              AllOf(HasSubstr("\n25 cells with 25 errors (cpu 25)\n"),
                    HasSubstr("\ncell 55 (repeat 1) done, with 1 error (cpu 1); see x\n5 more cells with "
                              "errors; --json lists all\ncell 1 (repeat 1) failed; see x\n"),
                    HasSubstr("\n10 more cells not done; --json lists all\n")));
}

class PlanTest : public ::testing::Test {
 protected:
  std::string Config() const {
    return folder_.Put("config.yaml", "logLevel: 3\nCPU:\n  Level: 1\nVENC: {Level: 0x2}\n");
  }

  std::string Script(const std::string& body) const {
    const std::string path = folder_.Put("benchmark", "#!/bin/sh\n" + body + "\n");
    (void)chmod(path.c_str(), 0755);
    return path;
  }

  // A benchmark whose rate is 100 times its CPU level. It keeps a list of its runs.
  std::string Counting(const std::string& more = "") const {
    return Script(
        "level=$(sed -n '/^CPU/{n;s/.*: //p}' \"$1\")\necho \"$level\" >>\"$0.runs\"\n"
        "echo \"cpuStress : $((level * 100)).000000 fps. kivuVencStress : 1.000000 fps. ispStress : 30.0 "
        "fps.\"\n" +
        more);
  }

  ToolResult MakePlan(std::vector<std::string> more) const {
    std::vector<std::string> arguments = {"plan",     Config(), "-o",     PlanPath(), "--no-meter",
                                          "--warmup", "0",      "--seed", "1"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return RunTool(arguments);
  }

  // A plan of CPU=1 and CPU=2 on any board.
  void MakeSmallPlan() const { ASSERT_EQ(MakePlan({"--levels", "CPU=1,2"}).status, 0); }

  std::vector<std::string> CellOf(int number, std::vector<std::string> more = {}) const {
    std::vector<std::string> arguments = {"cell",   PlanPath(),    std::to_string(number), "-o",
                                          Folder(), "--benchmark", folder_ / "benchmark"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  ToolResult RunCell(int number, std::vector<std::string> more = {}) const {
    return RunTool(CellOf(number, std::move(more)));
  }

  // Starts the cell and waits until its benchmark, a script, has touched "$0.waits".
  std::unique_ptr<ChildProcess> StartCell(int number) const {
    auto child = std::make_unique<ChildProcess>(ProgramOptions(STRESS_SCOPE, CellOf(number)));
    while (!fs::exists(folder_ / "benchmark.waits"))
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    fs::remove(folder_ / "benchmark.waits");
    return child;
  }

  // A benchmark that prints and then waits, until there is a file "$0.go".
  std::string Waiting() const {
    return Counting("test -e \"$0.go\" || { touch \"$0.waits\"; exec sleep 100; }");
  }

  nlohmann::json Collected() const {
    return nlohmann::json::parse(RunTool({"collect", Folder(), "--json"}).output);
  }

  std::string StateOf(std::size_t number) const {
    return Collected().at("cells").at(number - 1).at("state").get<std::string>();
  }

  std::string ReasonOf(std::size_t number) const {
    return Collected().at("cells").at(number - 1).at("reason").get<std::string>();
  }

  std::string PlanPath() const { return folder_ / "plan.json"; }
  std::string Folder() const { return folder_ / "night"; }
  // How often the script that counts was run.
  std::ptrdiff_t RunCount() const {
    const std::string runs = folder_.Get("benchmark.runs");
    return std::count(runs.begin(), runs.end(), '\n');
  }

  TemporaryFolder folder_;
};

TEST_F(PlanTest, RecordsEachCellOnItsBoard) {
  Counting();
  const ToolResult made = MakePlan({"--boards", "b1,b2", "--levels", "CPU=1,2"});
  EXPECT_EQ(made.status, 0) << made.errors;
  EXPECT_THAT(made.output,
              AllOf(StartsWith("plan " + PlanPath() + ": 4 cells for 2 boards, in random order of seed 1\n"),
                    HasSubstr("A cell takes about 42 s, each board 84 s\n")));
  fs::remove(folder_ / "config.yaml");  // the plan has all of it
  const Plan plan = ReadPlan(PlanPath());
  ASSERT_EQ(plan.cells.size(), 4U);
  for (int number = 1; number <= 4; ++number) {
    const PlanCell& cell = plan.cells[static_cast<std::size_t>(number - 1)];
    const ToolResult result = RunCell(number, {"--board", cell.board});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.output, EndsWith("\ndone, saved in " + Folder() + Format("/cell-%04d\n", number)));
    const scope::Run run = ReadRun(Folder() + "/" + cell.folder);
    EXPECT_TRUE(run.info.complete);
    EXPECT_EQ(run.info.label, CellLabel(cell));
    EXPECT_EQ(run.info.config.path, Folder() + "/" + cell.folder + "/config.yaml");
    EXPECT_EQ(run.info.config.text, folder_.Get("night/" + cell.folder + "/config.yaml"));
    EXPECT_DOUBLE_EQ(run.rates.at(0).fps, 100 * cell.levels.at(0).second);
    const CellRecord record = ReadCell(Folder() + "/" + cell.folder).value();
    EXPECT_EQ(record.board, cell.board);
    EXPECT_EQ(record.machine, run.info.conditions.hostnameHash);
    ASSERT_EQ(record.figures.size(), 2U);
    EXPECT_EQ(record.figures[0].figure, "printed");
    EXPECT_DOUBLE_EQ(record.figures[0].value, run.rates.at(0).fps);
  }
  EXPECT_THAT(ListFolder(Folder() + "/attempts"), IsEmpty());
  EXPECT_EQ(folder_.Get("night/plan.json"), folder_.Get("plan.json"));
  const ToolResult collected = RunTool({"collect", Folder()});
  EXPECT_EQ(collected.status, 0) << collected.errors;
  EXPECT_THAT(collected.output, AllOf(HasSubstr(": 4 of 4 cells done"), Not(HasSubstr("to run"))));
}

TEST_F(PlanTest, ACellThatIsDoneIsNotRunAgain) {
  Counting();
  MakeSmallPlan();
  ASSERT_EQ(RunCell(1).status, 0);
  const std::string before = folder_.Get("night/cell-0001/run.json");
  const ToolResult again = RunCell(1);
  EXPECT_EQ(again.status, 0) << again.errors;
  EXPECT_THAT(again.output, EndsWith("already done, in " + Folder() + "/cell-0001\n"));
  EXPECT_EQ(folder_.Get("night/cell-0001/run.json"), before);
  EXPECT_THAT(ListFolder(Folder() + "/attempts"), IsEmpty());
  EXPECT_EQ(RunCount(), 1);
  // Not even the benchmark is needed.
  fs::remove(folder_ / "benchmark");
  EXPECT_EQ(RunCell(1).status, 0);
  EXPECT_EQ(nlohmann::json::parse(RunCell(1, {"--json"}).output),
            nlohmann::json::parse(folder_.Get("night/cell-0001/cell.json")));
  EXPECT_THAT(RunCell(1, {"--quiet"}).output, IsEmpty());
  EXPECT_EQ(RunTool({"collect", Folder()}).status, 3);
}

TEST_F(PlanTest, ACellWhoseRecorderWasKilledIsRunAgainAndNothingIsLost) {
  Waiting();
  MakeSmallPlan();
  {
    const auto child = StartCell(1);
    while (folder_.Get("night/attempts/cell-0001/1/rates.txt").empty())
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(kill(child->Id(), SIGKILL), 0);
    EXPECT_EQ(WaitFor(*child).status, -SIGKILL);
  }
  EXPECT_FALSE(fs::exists(Folder() + "/cell-0001"));
  const nlohmann::json cell = Collected().at("cells").at(0);
  EXPECT_EQ(cell.at("state"), "unfinished");
  EXPECT_EQ(cell.at("reason"), "it is being recorded, or its recorder was killed");
  EXPECT_EQ(cell.at("folder"), "attempts/cell-0001/1");
  folder_.Put("benchmark.go", "");
  const ToolResult again = RunCell(1);
  EXPECT_EQ(again.status, 0) << again.errors;
  EXPECT_EQ(StateOf(1), "done");
  EXPECT_EQ(ReadRun(Folder() + "/cell-0001").rates.size(), 2U);
  EXPECT_EQ(ReadRun(Folder() + "/attempts/cell-0001/1").rates.size(), 2U);
}

TEST_F(PlanTest, ACellThatIsInterruptedIsRunAgain) {
  Waiting();
  MakeSmallPlan();
  for (const int signal : {SIGINT, SIGTERM}) {
    const auto child = StartCell(1);
    ASSERT_EQ(kill(child->Id(), signal), 0);
    const ToolResult result = WaitFor(*child);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, HasSubstr("interrupted, saved in " + Folder() + "/attempts/cell-0001/"));
    EXPECT_THAT(result.errors, HasSubstr("run it again with the same command"));
    EXPECT_EQ(StateOf(1), "interrupted");
  }
  EXPECT_EQ(RunTool({"collect", Folder()}).status, 3);
  folder_.Put("benchmark.go", "");
  EXPECT_EQ(RunCell(1).status, 0);
  EXPECT_EQ(StateOf(1), "done");
  EXPECT_TRUE(IsRunFolder(Folder() + "/attempts/cell-0001/2"));
}

TEST_F(PlanTest, ACellThatFailsIsReportedKeptAndRunAgain) {
  Counting("exit 9");
  MakeSmallPlan();
  const ToolResult failed = RunCell(2);
  EXPECT_EQ(failed.status, 1);
  EXPECT_THAT(failed.output, EndsWith("failed, saved in " + Folder() + "/attempts/cell-0002/1\n"));
  const ToolResult collected = RunTool({"collect", Folder()});
  EXPECT_EQ(collected.status, 1);
  EXPECT_THAT(collected.output, AllOf(HasSubstr("failed: the benchmark ended with status 9"),
                                      HasSubstr("see attempts/cell-0002/1\n"), HasSubstr("to run: 1-2\n")));
  EXPECT_TRUE(ReadCell(Folder() + "/attempts/cell-0002/1")->figures.empty());
  Counting();
  EXPECT_EQ(RunCell(2).status, 0);
  EXPECT_EQ(StateOf(2), "done");
  EXPECT_FALSE(ReadRun(Folder() + "/attempts/cell-0002/1").rates.empty());
}

// The memory controllers of a made system count during the run.
TEST_F(PlanTest, ACellWithMemoryErrorsIsDoneAndSaysSo) {
  const std::string counter = "system/sys/devices/system/edac/mc/mc0/ce_count";
  const auto counts = [&](const std::string& more) {
    folder_.Put(counter, "5\n");
    Counting("echo 7 >'" + (folder_ / counter) + "'\n" + more);
  };
  MakeSmallPlan();
  const std::vector<std::string> system = {"--sysfs-root", folder_ / "system"};
  counts("exit 9");
  const ToolResult failed = RunCell(1, system);
  EXPECT_EQ(folder_.Get(counter), "7\n");
  EXPECT_EQ(failed.status, 1) << "it is not done";
  EXPECT_THAT(failed.errors, HasSubstr("cell 1 failed, with 2 errors (edac 2): the benchmark ended with"));
  EXPECT_THAT(RunTool({"collect", Folder()}).output, HasSubstr(" failed, with 2 errors (edac 2): "));
  EXPECT_EQ(ReadCell(Folder() + "/attempts/cell-0001/1")->looksForErrors, true);
  counts("");
  const ToolResult done = RunCell(1, system);
  EXPECT_EQ(done.status, 3) << done.errors;
  EXPECT_THAT(done.output, EndsWith("\ndone, saved in " + Folder() + "/cell-0001\n"));
  EXPECT_THAT(done.errors,
              EndsWith("stress_scope: cell 1 done, with 2 errors (edac 2), in " + Folder() + "/cell-0001\n"));
  EXPECT_EQ(RunCount(), 2);
  const ToolResult again = RunCell(1, {"--sysfs-root", folder_ / "system", "--json"});
  EXPECT_EQ(again.status, 3) << "it still has them";
  EXPECT_EQ(nlohmann::json::parse(again.output).at("errors"), nlohmann::json({{"edac", 2}}));
  EXPECT_EQ(nlohmann::json::parse(again.output).at("looked_for_errors"), true);
  EXPECT_THAT(again.errors, HasSubstr("cell 1 has an earlier attempt with 2 errors (edac 2)\n"));
  EXPECT_EQ(RunCount(), 2) << "it was run again";
  EXPECT_EQ(RunCell(2).status, 0);
  const ToolResult collected = RunTool({"collect", Folder()});
  EXPECT_EQ(collected.status, 0);
  EXPECT_THAT(collected.output, AllOf(HasSubstr(": 2 of 2 cells done"), Not(HasSubstr("to run")),
                                      HasSubstr("\n1 cell with 4 errors (edac 4)\n"),
                                      HasSubstr(" done, with 2 errors (edac 2); an earlier attempt found 2 "
                                                "errors (edac 2); see cell-0001\n")));
  EXPECT_EQ(Collected().at("cells_with_errors"), 1);
  EXPECT_EQ(Collected().at("cells").at(0).at("errors"), nlohmann::json({{"edac", 2}}));
  EXPECT_EQ(Collected().at("cells").at(0).at("earlier_errors"), nlohmann::json({{"edac", 2}}));
  EXPECT_EQ(Collected().at("cells").at(1).at("errors"), nlohmann::json::object());
}

// The checks of the plan are those of the run. A script does not answer the meter, so the first cell fails.
TEST_F(PlanTest, ThePlanSaysWhatEachCellChecks) {
  Script(
      "env >\"$0.env\"\n"
      "echo 'cpuStress : 5.0 fps. kivuVencStress : 1.0 fps. ispStress : 30.0 fps.'");
  const std::vector<std::string> plan = {"plan", Config(), "-o", PlanPath(), "--warmup", "0"};
  const auto make = [&](std::vector<std::string> more) {
    more.insert(more.begin(), plan.begin(), plan.end());
    fs::remove(PlanPath());
    fs::remove_all(Folder());
    const ToolResult made = RunTool(more);
    EXPECT_EQ(made.status, 0) << made.errors;
    (void)RunCell(1);
    return "\n" + folder_.Get("benchmark.env");
  };
  EXPECT_THAT(make({"--fill", "worst", "--verify", "--duty", "50"}),
              AllOf(HasSubstr("\nSTRESS_SCOPE_FILL=worst\n"), HasSubstr("\nSTRESS_SCOPE_VERIFY=1\n"),
                    HasSubstr("\nSTRESS_SCOPE_DUTY=50\n")));
  EXPECT_THAT(make({"--no-meter", "--guard", "1M", "--guard-rate", "50"}), Not(HasSubstr("STRESS_SCOPE_")));
  EXPECT_EQ(ReadRunInfo(Folder() + "/cell-0001").conditions.guard, "1M at 50 MB/s");
  EXPECT_EQ(ReadCell(Folder() + "/cell-0001")->looksForErrors, true);
  EXPECT_THAT(make({"--no-meter"}), Not(HasSubstr("STRESS_SCOPE_")));
  for (const char* const key : {"verify", "guard", "fill", "duty_percent"})
    EXPECT_THAT(folder_.Get("plan.json"), Not(HasSubstr(key))) << "as plans were before";
}

// It would record the cell without them, and nobody would know.
TEST_F(PlanTest, AProgramThatKnowsNoChecksRefusesAPlanThatHasSome) {
  constexpr SeriesKind kReadByThat = {kPlanName, "plan", "a plan", 1};
  const auto read = [&] { return ParseSeriesJson(folder_.Get("plan.json"), PlanPath(), kReadByThat); };
  MakeSmallPlan();
  EXPECT_EQ(read().at("cells").size(), 2U);
  fs::remove(PlanPath());
  ASSERT_EQ(MakePlan({"--guard", "1M"}).status, 0);
  EXPECT_EQ(ErrorOf([&] { (void)read(); }),
            PlanPath() + ": written in format 2, this program reads format 1");
  EXPECT_EQ(ReadPlan(PlanPath()).settings.guard, "1M");
}

TEST_F(PlanTest, AFullDiskIsNoFailureOfTheBoardAndTheNextRunnerRecordsTheCell) {
  Script(
      "ln -s /dev/full \"$(dirname \"$1\")/rates.txt\"\necho 'cpuStress : 5.0 fps. ispStress : 30.0 fps.'");
  MakeSmallPlan();
  const ToolResult full = RunCell(1);
  EXPECT_EQ(full.status, 1);
  EXPECT_THAT(full.errors, HasSubstr("rates.txt: No space left on device"));
  EXPECT_EQ(nlohmann::json::parse(std::ifstream(Folder() + "/attempts/cell-0001/1/cell.json")).at("state"),
            "failed");
  EXPECT_EQ(StateOf(1), "interrupted");
  Counting();
  EXPECT_EQ(RunCell(1).status, 0);
  EXPECT_EQ(StateOf(1), "done");
}

TEST_F(PlanTest, ACellThatCannotBeSavedToItsEndIsNotDone) {
  // cell.json is the last file of a cell.
  Counting("mkdir \"$(dirname \"$1\")/cell.json\"");
  MakeSmallPlan();
  const ToolResult result = RunCell(1);
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors, HasSubstr("cannot write " + Folder() + "/attempts/cell-0001/1/cell.json"));
  EXPECT_FALSE(fs::exists(Folder() + "/cell-0001"));
  EXPECT_EQ(StateOf(1), "unfinished");
}

TEST_F(PlanTest, ACellThatOnlyHadToBeMovedIsNotRunAgain) {
  Counting();
  MakeSmallPlan();
  ASSERT_EQ(RunCell(1).status, 0);
  fs::create_directories(Folder() + "/attempts/cell-0001");
  fs::rename(Folder() + "/cell-0001", Folder() + "/attempts/cell-0001/1");
  EXPECT_EQ(StateOf(1), "unfinished");
  EXPECT_THAT(RunCell(1).output, HasSubstr("already done"));
  EXPECT_EQ(RunCount(), 1);
  EXPECT_EQ(StateOf(1), "done");
}

TEST_F(PlanTest, ADamagedCellIsRunAgainAndKept) {
  Counting();
  MakeSmallPlan();
  ASSERT_EQ(RunCell(1).status, 0);
  // Of the size that cell.json gives.
  const std::string damaged(folder_.Get("night/cell-0001/run.json").size(), '{');
  folder_.Put("night/cell-0001/run.json", damaged);
  const ToolResult again = RunCell(1);
  EXPECT_EQ(again.status, 0) << again.errors;
  EXPECT_THAT(again.errors, HasSubstr("cell-0001/run.json: "));
  EXPECT_THAT(again.errors, EndsWith("; the run is recorded again\n"));
  EXPECT_EQ(folder_.Get("night/attempts/cell-0001/2/run.json"), damaged);
  folder_.Put("night/cell-0001/cell.json", "{\"format\":");
  EXPECT_EQ(StateOf(1), "damaged");
  EXPECT_EQ(RunTool({"collect", Folder()}).status, 1);
  EXPECT_EQ(RunCell(1).status, 0);
  EXPECT_EQ(StateOf(1), "done");
}

TEST_F(PlanTest, ACellThatWasCopiedInPartIsDamaged) {
  Counting();
  MakeSmallPlan();
  ASSERT_EQ(RunCell(1).status, 0);
  const std::size_t bytes = folder_.Get("night/cell-0001/rates.txt").size();
  fs::resize_file(Folder() + "/cell-0001/rates.txt", 3);
  EXPECT_EQ(ReasonOf(1), "rates.txt has 3 bytes, expected " + std::to_string(bytes));
  fs::remove(Folder() + "/cell-0001/rates.txt");
  EXPECT_EQ(ReasonOf(1), "rates.txt is missing");
  fs::remove(Folder() + "/cell-0001/cell.json");
  EXPECT_EQ(ReasonOf(1), "cell.json is missing");
  fs::create_directories(Folder() + "/cell-0002");
  EXPECT_EQ(StateOf(2), "damaged");
  EXPECT_EQ(ReasonOf(2), "cell.json is missing");
  EXPECT_EQ(RunCell(1).status, 0);
  EXPECT_EQ(RunCell(2).status, 0);
  EXPECT_EQ(RunTool({"collect", Folder()}).status, 0);
  folder_.Put("night/cell-0001/report.html", "added later");
  EXPECT_EQ(StateOf(1), "done");
}

TEST_F(PlanTest, AnAttemptOfAnotherCellDoesNotBecomeTheCell) {
  Counting();
  MakeSmallPlan();
  ASSERT_EQ(RunCell(1).status, 0);
  fs::create_directories(Folder() + "/attempts/cell-0002");
  fs::rename(Folder() + "/cell-0001", Folder() + "/attempts/cell-0002/1");
  EXPECT_THAT(RunCell(2).output, EndsWith("\ndone, saved in " + Folder() + "/cell-0002\n"));
  EXPECT_EQ(RunCount(), 2);
}

// The lock does not hold between machines. Here the benchmark does what another machine would.
TEST_F(PlanTest, TheFirstCompleteRunOfTwoMachinesStays) {
  Counting();
  MakeSmallPlan();
  ASSERT_EQ(RunCell(1).status, 0);
  fs::rename(Folder() + "/cell-0001", folder_ / "other");
  const std::string other = folder_.Get("other/cell.json");
  Counting("mv '" + (folder_ / "other") + "' '" + Folder() + "/cell-0001'");
  const ToolResult result = RunCell(1);
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(result.output, EndsWith("already done, in " + Folder() + "/cell-0001\n"));
  EXPECT_EQ(folder_.Get("night/cell-0001/cell.json"), other);
  EXPECT_TRUE(ReadRun(Folder() + "/attempts/cell-0001/1").info.complete) << "what was measured is kept";
}

TEST_F(PlanTest, NoTwoAttemptsHaveTheSameFolder) {
  fs::create_directories(Folder() + "/attempts/cell-0001");
  std::vector<std::vector<std::string>> made(4);
  std::vector<std::thread> threads;
  for (std::vector<std::string>& own : made) {
    threads.emplace_back([this, &own] {
      for (int i = 0; i < 50; ++i) own.push_back(MakeAttempt(Folder(), "cell-0001"));
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<std::string> all;
  for (const std::vector<std::string>& own : made) all.insert(own.begin(), own.end());
  EXPECT_EQ(all.size(), 200U);
}

TEST_F(PlanTest, ABenchmarkThatCannotBeStartedIsNoFailureOfTheBoard) {
  Script("");
  folder_.Put("benchmark", "no program");
  MakeSmallPlan();
  const ToolResult result = RunCell(1);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("cell 1 failed: cannot start "));
  EXPECT_EQ(StateOf(1), "interrupted") << "no fault of the board";
  EXPECT_THAT(ReasonOf(1), HasSubstr("cannot start "));
}

TEST_F(PlanTest, CellsOfAnotherPlanAreNotTakenForDone) {
  Counting();
  MakeSmallPlan();
  ASSERT_EQ(RunCell(1).status, 0);
  fs::rename(Folder() + "/cell-0001", Folder() + "/cell-0002");
  EXPECT_THAT(Collected().at("cells").at(1).at("reason"), "cell.json is of cell 1");
  fs::remove(PlanPath());
  ASSERT_EQ(MakePlan({"--levels", "CPU=2,3"}).status, 0);
  const ToolResult other = RunCell(2);
  EXPECT_EQ(other.status, 2);
  EXPECT_THAT(other.errors,
              HasSubstr(Folder() + " has the cells of another plan, " + Folder() + "/plan.json"));
  const nlohmann::json collected =
      nlohmann::json::parse(RunTool({"collect", Folder(), "--plan", PlanPath(), "--json"}).output);
  EXPECT_THAT(collected.at("cells").at(1).at("reason"), "cell.json is of another plan");
}

TEST_F(PlanTest, ASecondRunnerOfACellIsToldWhoHasIt) {
  Waiting();
  MakeSmallPlan();
  const auto first = StartCell(1);
  const ToolResult second = RunCell(1);
  EXPECT_EQ(second.status, 2);
  EXPECT_THAT(second.errors, AllOf(HasSubstr("attempts/cell-0001 is in use: another stress_scope"),
                                   HasSubstr("process " + std::to_string(first->Id()))));
  EXPECT_EQ(RunCount(), 1);
  // Whoever waits, waits for its end, and has the cell then.
  const auto third =
      std::make_unique<ChildProcess>(ProgramOptions(STRESS_SCOPE, CellOf(1, {"--wait", "0.3"})));
  EXPECT_THAT(WaitFor(*third).errors, HasSubstr("is in use"));
  const auto fourth =
      std::make_unique<ChildProcess>(ProgramOptions(STRESS_SCOPE, CellOf(1, {"--wait", "60"})));
  // Another cell of the plan is free.
  folder_.Put("benchmark.go", "");
  EXPECT_EQ(RunCell(2).status, 0);
  first->Signal(SIGINT);
  (void)WaitFor(*first);
  EXPECT_EQ(WaitFor(*fourth).status, 0);
  EXPECT_EQ(RunCell(1).status, 0) << "the lock stays";
}

TEST_F(PlanTest, ManyRunnersAtOnceRunEachCellOnce) {
  Counting("sleep 0.2");
  ASSERT_EQ(MakePlan({"--levels", "CPU=1..4"}).status, 0);
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int i = 0; i < 8; ++i)
    children.push_back(std::make_unique<ChildProcess>(ProgramOptions(STRESS_SCOPE, CellOf(i % 4 + 1))));
  int done = 0;
  for (const auto& child : children) {
    const ToolResult result = WaitFor(*child);
    if (result.status == 0) ++done;
    if (result.status != 0) EXPECT_THAT(result.errors, HasSubstr("is in use"));
  }
  EXPECT_GE(done, 4);
  EXPECT_EQ(RunCount(), 4);
  EXPECT_EQ(RunTool({"collect", Folder()}).status, 0);
}

TEST_F(PlanTest, RefusesACellOfAnotherBoard) {
  Counting();
  ASSERT_EQ(MakePlan({"--boards", "b1"}).status, 0);
  const auto refused = [&](std::vector<std::string> more, const std::string& words) {
    const ToolResult result = RunCell(1, std::move(more));
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.errors, HasSubstr(words));
    EXPECT_FALSE(fs::exists(Folder()));
  };
  refused({"--board", "b2"}, "cell 1 is for the board b1, and this is b2");
  refused({}, "cell 1 is for the board b1: say --board b1 if this is it");
  refused({"--board", "b 1"}, "--board: expected 1 to 64");
  EXPECT_EQ(RunCell(1, {"--board", "b1"}).status, 0);
}

TEST_F(PlanTest, RefusesANumberThatThePlanDoesNotHave) {
  Counting();
  MakeSmallPlan();
  EXPECT_THAT(RunCell(3).errors, HasSubstr("there is no cell 3 in " + PlanPath() + ": its cells are 1 to 2"));
  for (const std::string number : {"0", "-1", "x", "1.5", "99999999999999999999"}) {
    const ToolResult result = RunTool({"cell", PlanPath(), number, "-o", Folder()});
    EXPECT_EQ(result.status, 2) << number;
    EXPECT_FALSE(fs::exists(Folder()));
  }
}

TEST_F(PlanTest, RefusesADamagedPlan) {
  Counting();
  MakeSmallPlan();
  const std::string good = folder_.Get("plan.json");
  const auto error = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    text.replace(at, from.size(), to);
    folder_.Put("plan.json", text);
    const ToolResult result = RunCell(1);
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.errors, StartsWith("stress_scope: " + PlanPath() + ": "));
    EXPECT_FALSE(fs::exists(Folder()));
    return result.errors;
  };
  EXPECT_THAT(error("\"format\": 1", "\"format\": 3"),
              HasSubstr("written in format 3, this program reads formats 1 to 2"));
  EXPECT_THAT(error("\"format\": 1", "\"format\": 0"), HasSubstr("written in format 0, this program"));
  EXPECT_THAT(error("\"plan\"", "\"sweep\""), HasSubstr("not a plan"));
  EXPECT_THAT(error("\"made\"", "\"mode\""), HasSubstr("made"));
  EXPECT_THAT(error("]\n}", ""), HasSubstr("parse error"));
  EXPECT_THAT(error("\"warmup_s\": 0.0", "\"warmup_s\": -1"),
              HasSubstr("warmup_s: expected a number from 0"));
  EXPECT_THAT(error("\"grace_s\": 15.0", "\"grace_s\": 0"), HasSubstr("grace_s: expected a number from 1"));
  EXPECT_THAT(error("\"board\":\"\"", "\"board\":\"../x\""), HasSubstr("cell 1: board: expected 1 to 64"));
  EXPECT_THAT(error("\"CPU\"", "\"GPU\""), HasSubstr("cell 1: expected sections of engines"));
  EXPECT_THAT(error("\"CPU\":", "\"CPU\":1"), HasSubstr("cell 1: expected a level of CPU from 0 to 10"));
  EXPECT_THAT(error("\"settings\":{}", "\"settings\":{\"a b\":\"1\"}"),
              HasSubstr("cell 1: name of a setting"));
  EXPECT_THAT(error("\"settings\":{}", "\"settings\":{\"a\":\"$(reboot)\"}"),
              HasSubstr("cell 1: a: expected"));
  EXPECT_THAT(error("\"repeat\":1", "\"repeat\":2"), HasSubstr("cell 1: expected a repeat from 1 to 1"));
  const auto check = [&](const std::string& key) {
    return error("  \"cells\": [", "  " + key + ",\n  \"cells\": [");
  };
  EXPECT_THAT(check(R"("guard": "1M")"), HasSubstr(": a plan of format 1 has no checks: make it again"));
  EXPECT_THAT(check(R"("fill": "grey")"), HasSubstr(": fill: expected one of zeros, ones, "));
  EXPECT_THAT(check(R"("verify": 1)"), HasSubstr(": verify: expected true or false, found 1"));
  EXPECT_THAT(check(R"("verify": true)"),
              HasSubstr(": use_meter: fill, verify and duty_percent need the meter"));
  EXPECT_THAT(check(R"("guard": "much")"), HasSubstr(": guard: expected a size as 512M or 2G, or a share"));
  EXPECT_THAT(check(R"("guard": 5)"), HasSubstr(": guard: expected a text, found 5"));
  EXPECT_THAT(check(R"("guard_rate": 0)"),
              HasSubstr(": guard_rate: expected a number from 1 to 1e+06, found 0"));
  EXPECT_THAT(check(R"("guard_rate": "1")"), HasSubstr(": guard_rate: expected a number, found \"1\""));
  EXPECT_THAT(check(R"("duty_percent": 0)"), HasSubstr(": duty_percent: expected a number from 1 to 100"));
  for (const std::string number : {"4294967297", "1.9", "-4294967295", "true", "18446744073709551615"}) {
    const std::string words = "expected a whole number, found " + number.substr(0, 3);
    EXPECT_THAT(error("\"repeat\":1", "\"repeat\":" + number), HasSubstr("cell 1: repeat: " + words));
    EXPECT_THAT(error("\"CPU\":", "\"CPU\":" + number + ",\"VPC\":"), HasSubstr("cell 1: CPU: " + words));
    EXPECT_THAT(error("\"repeats\": 1", "\"repeats\": " + number), HasSubstr("repeats: " + words));
  }
  folder_.Put("plan.json", good.substr(0, good.find("\"cells\"")) + "\"cells\": []}");
  EXPECT_THAT(RunCell(1).errors, HasSubstr("expected a list of cells"));
  fs::remove(PlanPath());
  EXPECT_THAT(RunCell(1).errors, HasSubstr("cannot read the plan " + PlanPath() + ": No such file"));
  EXPECT_THAT(RunTool({"collect", folder_.Path()}).errors, HasSubstr("Make one with stress_scope plan"));
}

TEST_F(PlanTest, AConfigurationInThePlanThatCannotBeUsedLeavesNoAttempt) {
  Counting();
  MakeSmallPlan();
  std::string text = folder_.Get("plan.json");
  text.replace(text.find("Level: 2"), 8, "Level: [");
  folder_.Put("plan.json", text);
  const ToolResult result = RunCell(1);
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors, HasSubstr("the configuration of the plan cannot be used here: "));
  EXPECT_FALSE(fs::exists(Folder() + "/attempts/cell-0001/1"));
}

TEST_F(PlanTest, FollowsNoLinks) {
  Counting();
  MakeSmallPlan();
  ASSERT_EQ(RunCell(1).status, 0);
  fs::create_directories(folder_ / "elsewhere");
  for (const std::string name : {"attempts", "cell-0002", "attempts/cell-0002", "plan.json"}) {
    const std::string path = Folder() + "/" + name;
    const bool was = fs::exists(path);
    if (was) fs::rename(path, folder_ / "moved");
    fs::create_directory_symlink(folder_ / "elsewhere", path);
    const ToolResult result = RunCell(2);
    EXPECT_EQ(result.status, 2) << name;
    EXPECT_THAT(result.errors, HasSubstr(path + " is a link"));
    fs::remove(path);
    if (was) fs::rename(folder_ / "moved", path);
  }
  EXPECT_TRUE(fs::is_empty(folder_ / "elsewhere"));
  EXPECT_EQ(RunCell(2).status, 0);
}

TEST_F(PlanTest, NamesTheModelThatEachBoardNeeds) {
  Counting();
  folder_.Put("config.yaml", "CPU: {Level: 1}\nAIC:\n  Level: 0\n  File: net.onnx\n");
  const auto plan = [&](std::vector<std::string> levels) {
    std::vector<std::string> arguments = {"plan", folder_ / "config.yaml", "-o", PlanPath(), "--no-meter"};
    arguments.insert(arguments.end(), levels.begin(), levels.end());
    fs::remove(PlanPath());
    return RunTool(arguments).output;
  };
  const std::string file = fs::absolute("net.onnx").string();
  EXPECT_THAT(plan({}), Not(HasSubstr("AIC reads")));
  EXPECT_THAT(plan({"--levels", "AIC=0,1"}),
              HasSubstr("AIC reads " + file + ": the plan does not contain it"));
  const std::vector<PlanCell> cells = ReadPlan(PlanPath()).cells;
  const int loaded = cells[0].levels[0].second == 1 ? 1 : 2;
  EXPECT_THAT(RunCell(loaded).errors,
              HasSubstr("cannot read the model of AIC, " + file + ": No such file or directory"));
  EXPECT_EQ(RunCell(3 - loaded).status, 0) << "level 0 reads no model";
  EXPECT_EQ(StateOf(static_cast<std::size_t>(loaded)), "missing");
  Script("echo 'cpuStress : 5.0 fps. aicStress : 1.0 fps. ispStress : 30.0 fps.'");
  const ToolResult given = RunCell(loaded, {"--model", folder_.Put("own.onnx", "")});
  EXPECT_EQ(given.status, 0) << given.errors;
  EXPECT_THAT(folder_.Get("night/" + CellFolder(static_cast<std::size_t>(loaded)) + "/config.yaml"),
              HasSubstr("File: \"" + (folder_ / "own.onnx") + "\""));
}

TEST_F(PlanTest, ACommandMakesTheSettingsOfTheBoard) {
  Counting();
  ASSERT_EQ(MakePlan({"--setting", "refresh=3900,7800", "--setting", "mode=a"}).status, 0);
  const ToolResult none = RunCell(1);
  EXPECT_EQ(none.status, 2);
  EXPECT_THAT(none.errors, HasSubstr("give the command that makes them with --apply"));
  EXPECT_FALSE(fs::exists(Folder()));
  const std::string refresh = ReadPlan(PlanPath()).cells[0].settings[0].second;
  const ToolResult fails = RunCell(1, {"--apply", "echo cannot; false"});
  EXPECT_EQ(fails.status, 1);
  EXPECT_THAT(fails.errors,
              HasSubstr("cannot make the settings of the board: the command ended with status 1"));
  EXPECT_EQ(StateOf(1), "failed");
  EXPECT_EQ(RunCount(), 0);
  const ToolResult made = RunCell(1, {"--apply", "echo made with"});
  EXPECT_EQ(made.status, 0) << made.errors;
  EXPECT_THAT(made.errors, HasSubstr("made with refresh=" + refresh + " mode=a\n"));
  EXPECT_EQ(ReadCell(Folder() + "/cell-0001")->cell.settings[0].second, refresh);
}

TEST_F(PlanTest, RefusesBadInputAndMakesNoPlan) {
  const auto refused = [&](std::vector<std::string> more, const std::string& words) {
    const ToolResult result = MakePlan(std::move(more));
    EXPECT_EQ(result.status, 2) << words;
    EXPECT_THAT(result.errors, HasSubstr(words));
    EXPECT_FALSE(fs::exists(PlanPath())) << words;
  };
  refused({"--levels", "CPU=11"}, "expected levels from 0 to 10");
  refused({"--levels", "AIC=1"}, "need a section AIC with a model");
  refused({"--boards", "a,a"}, "the board a is given twice");
  refused({"--setting", "x"}, "as in refresh=3900,7800");
  refused({"--stop-after", "2"}, "too short for a warm-up of 0 s");
  refused({"--repeat", "0"}, "--repeat");
  refused({"--verify"}, "--verify");
  refused({"--guard", "much"}, "guard: expected a size as 512M or 2G");
  refused({"--guard-rate", "5"}, "--guard");
  MakeSmallPlan();
  const std::string before = folder_.Get("plan.json");
  EXPECT_THAT(MakePlan({}).errors, HasSubstr(PlanPath() + " exists: choose another file"));
  EXPECT_EQ(folder_.Get("plan.json"), before);
}

TEST_F(PlanTest, JsonOfAPlanIsItsFile) {
  const ToolResult result = MakePlan({"--json"});
  EXPECT_EQ(result.output, folder_.Get("plan.json"));
}

// Their files have them as they are.
TEST_F(PlanTest, JsonHasNoControlCharacters) {
  const std::string raw = "red\xc2\x9bmore\x7f";
  const auto shows = [&raw](const std::string& output, const std::string& file) {
    EXPECT_THAT(file, HasSubstr(raw));
    EXPECT_THAT(output, AllOf(HasSubstr("red\\u009bmore\\u007f"), Not(HasSubstr(raw))));
    EXPECT_EQ(nlohmann::json::parse(output), nlohmann::json::parse(file));
  };
  const std::string config = folder_.Put(raw, "CPU:\n  Level: 1\n");
  const ToolResult plan =
      RunTool({"plan", config, "-o", PlanPath(), "--no-meter", "--warmup", "0", "--json"});
  shows(plan.output, folder_.Get("plan.json"));
  Counting();
  ASSERT_EQ(RunCell(1).status, 0);
  std::string cell = folder_.Get("night/cell-0001/cell.json");
  const std::string reason = "\"reason\": \"";
  ASSERT_NE(cell.find(reason), std::string::npos);
  cell.insert(cell.find(reason) + reason.size(), raw);
  folder_.Put("night/cell-0001/cell.json", cell);
  shows(RunCell(1, {"--json"}).output, cell);
}

}  // namespace
