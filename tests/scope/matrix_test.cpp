// SPDX-License-Identifier: Apache-2.0

// Who disturbs whom: the plan, the figures, the control, the search for the worst mix, and the command.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>
#include <thread>
#include <tuple>

#include "control.h"
#include "engines.h"
#include "error_of.h"
#include "latency_buckets.h"
#include "latency_texts.h"
#include "made_curve.h"
#include "made_run.h"
#include "margin_search.h"
#include "matrix_folder.h"
#include "matrix_plan.h"
#include "matrix_table.h"
#include "matrix_text.h"
#include "normal_values.h"
#include "on_one_cpu.h"
#include "page_json.h"
#include "run_reader.h"
#include "run_tool.h"
#include "sweep_plan.h"
#include "synthetic_run.h"
#include "system_files.h"
#include "temporary_folder.h"

namespace {

using ::testing::AllOf;
using ::testing::DoubleEq;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;
using namespace scope;

Matrix Planned(const std::vector<std::string>& levels, const std::vector<std::string>& victims,
               int repeats = 2) {
  Matrix matrix;
  matrix.axes = ParseAxes(levels);
  matrix.victims = ParseVictims(victims);
  matrix.settings.repeats = repeats;
  matrix.settings.seed = 7;
  matrix.settings.warmupS = 0;
  return matrix;
}

TEST(MatrixPlanTest, ReadsVictims) {
  const std::vector<MatrixVictim> victims = ParseVictims({"VPC", "CPU=3", "latency"});
  ASSERT_THAT(victims, SizeIs(3));
  EXPECT_EQ(VictimText(victims[0]), "VPC=1");
  EXPECT_EQ(VictimText(victims[1]), "CPU=3");
  EXPECT_EQ(VictimText(victims[2]), "latency");
  const auto error = [](const std::vector<std::string>& texts) {
    return ErrorOf([&] { (void)ParseVictims(texts); });
  };
  EXPECT_THAT(error({"GPU"}), HasSubstr("expected CPU, VPC, VENC or AIC"));
  EXPECT_THAT(error({"VPC=0"}), HasSubstr("a level from 1 to 10"));
  EXPECT_THAT(error({"VPC=1,CPU=1"}), HasSubstr("expected one section"));
  EXPECT_THAT(error({"VPC=1..2"}), HasSubstr("expected one level"));
  EXPECT_THAT(error({"latency=1"}), HasSubstr("expected CPU, VPC, VENC or AIC"));
  EXPECT_THAT(error({"VPC", "VPC=2"}), HasSubstr("the victim VPC is given twice"));
}

TEST(MatrixPlanTest, EachSectionThatWorksAndHasAnAggressorIsAVictim) {
  EXPECT_THAT(UsualVictims(ParseAxes({"CPU=0,1"}), {"CPU", "VPC", "AIC"}),
              ElementsAre("VPC", "AIC", "latency"));
  EXPECT_THAT(UsualVictims(ParseAxes({"CPU=0,1", "VPC=0,2"}), {"CPU", "VPC"}),
              ElementsAre("CPU", "VPC", "latency"));
}

TEST(MatrixPlanTest, MixesLeaveOutTheVictimAndNothing) {
  const auto axes = ParseAxes({"CPU=0,2", "VPC=0..3", "VENC=0,1"});
  EXPECT_THAT(MixesFor(axes, "VPC"), ElementsAre(SweepLevels{{"VENC", 1}}, SweepLevels{{"CPU", 2}},
                                                 SweepLevels{{"CPU", 2}, {"VENC", 1}}));
  EXPECT_THAT(MixesFor(axes, kLatencyVictim), SizeIs(15));
  EXPECT_THAT(ErrorOf([&] { (void)PlanMatrix(Planned({"VPC=0..3"}, {"VPC"})); }),
              HasSubstr("nothing disturbs VPC"));
  EXPECT_THAT(ErrorOf([&] {
                (void)PlanMatrix(Planned({"CPU=0..10", "VPC=0..10", "VENC=0..10", "AIC=0..10"}, {"CPU"}, 9));
              }),
              HasSubstr("more than 9999 runs"));
}

// A search takes a fifth of them.
TEST(MatrixPlanTest, ASearchMayHaveMoreMixesThanAMatrix) {
  const auto search = [](int repeats) {
    RequireSearch(Planned({"CPU=0..10", "VPC=0..10", "VENC=0..10", "AIC=0..10"}, {"CPU"}, repeats));
  };
  search(9);
  EXPECT_THAT(ErrorOf([&] { search(40); }),
              AllOf(HasSubstr("the search may take 10761 runs"), HasSubstr("give fewer levels or repeats")));
  EXPECT_THAT(ErrorOf([] { RequireSearch(Planned({"VPC=0..3"}, {"VPC"})); }),
              HasSubstr("nothing disturbs VPC"));
}

TEST(MatrixPlanTest, RecordsAggressorsFirstAndThenEachRoundInRandomOrder) {
  const Matrix matrix = Planned({"CPU=0,2", "VENC=0,1"}, {"VPC", "CPU", "latency"}, 3);
  const std::vector<MatrixRun> runs = PlanMatrix(matrix);
  // Three mixes of both engines; VPC and latency have three each, CPU has one.
  const std::size_t round = 3 + 2 * (3 + 1 + 3);
  ASSERT_THAT(runs, SizeIs(3 + 3 * round));
  std::vector<std::string> orders;
  for (std::size_t i = 0; i < runs.size(); ++i) {
    EXPECT_EQ(runs[i].folder, MatrixRunFolder(i));
    EXPECT_EQ(runs[i].part == MatrixPart::kLoad, i < 3) << "controls need the aggressors' own runs";
    if (i < 3) continue;
    EXPECT_EQ(static_cast<std::size_t>(runs[i].repeat), (i - 3) / round + 1);
    const std::string what =
        runs[i].victim + std::to_string(static_cast<int>(runs[i].part)) + PointText(runs[i].mix) + ";";
    if ((i - 3) % round == 0) orders.emplace_back();
    orders.back() += what;
  }
  EXPECT_EQ(std::set<std::string>(orders.begin(), orders.end()).size(), 3U) << "each round has its own order";
  std::set<std::string> inFirst;
  for (std::size_t i = 3; i < 3 + round; ++i)
    inFirst.insert(runs[i].victim + std::to_string(static_cast<int>(runs[i].part)) + PointText(runs[i].mix));
  EXPECT_THAT(inFirst, SizeIs(round));
}

TEST(MatrixPlanTest, AControlHasTheVictimAlone) {
  const Matrix matrix = Planned({"CPU=0,2"}, {"VPC=3", "latency"});
  MatrixRun run;
  run.victim = "VPC";
  run.mix = {{"CPU", 2}};
  const std::vector<std::string> sections = {"CPU", "AIC"};
  run.part = MatrixPart::kWith;
  EXPECT_THAT(LevelsOf(matrix, run, sections), ElementsAre(Pair("CPU", 2), Pair("AIC", 0), Pair("VPC", 3)));
  run.part = MatrixPart::kControl;
  EXPECT_THAT(LevelsOf(matrix, run, sections), ElementsAre(Pair("CPU", 0), Pair("AIC", 0), Pair("VPC", 3)));
  run.part = MatrixPart::kLoad;
  run.victim = "";
  EXPECT_THAT(LevelsOf(matrix, run, sections), ElementsAre(Pair("CPU", 2), Pair("AIC", 0)));
  run.part = MatrixPart::kAlone;
  run.victim = kLatencyVictim;
  run.mix = {};
  EXPECT_THAT(LevelsOf(matrix, run, sections), ElementsAre(Pair("CPU", 0), Pair("AIC", 0)));
}

TEST(MatrixTableTest, SlowdownIsOfTheSameWork) {
  // Half the rate, or twice the latency: the same work takes twice as long.
  EXPECT_NEAR(SlowdownOf({100}, {50}, false)->value, 100, 1e-9);
  EXPECT_NEAR(SlowdownOf({100}, {200}, true)->value, 100, 1e-9);
  EXPECT_FALSE(SlowdownOf({100}, {50}, false)->low) << "one run a side has no interval";
  const auto slowdown = SlowdownOf({99, 101, 100}, {49, 51, 50}, false);
  EXPECT_NEAR(slowdown->value, 100, 0.1);
  EXPECT_LT(*slowdown->low, 98);
  EXPECT_GT(*slowdown->high, 102);
  EXPECT_FALSE(SlowdownOf({}, {50}, false));
  EXPECT_FALSE(SlowdownOf({100, 100}, {50, 0}, false)) << "one that did nothing";
}

// FORMAT-MATRIX.md describes each key.
void ExpectDescribed(const nlohmann::json& part) {
  const std::string format = ReadText(SCOPE_FORMAT_MATRIX).value_or("");
  for (const auto& [key, value] : part.items()) {
    const bool isDescribed =
        format.find("`" + key) != std::string::npos || format.find("." + key + "`") != std::string::npos;
    EXPECT_TRUE(isDescribed) << key;
  }
}

class MatrixTest : public ::testing::Test {
 protected:
  std::string Folder() const { return folder_ / "matrix"; }

  // A run with `rate` op/s of the VPC, `copies` of the CPU by 2 threads, and these CPUs of benchmark and
  // helpers.
  void Put(const std::string& name, double rate, double copies, double benchmarkCpus,
           double helpersCpus) const {
    std::vector<SyntheticEngine> engines;
    SyntheticEngine vpc{"vpc", "kivuVpcStress", 1, rate};
    vpc.p99Ns = static_cast<std::uint64_t>(1e9 / rate);
    if (rate > 0) engines.push_back(vpc);
    SyntheticEngine cpu;
    cpu.threads = 2;
    cpu.operationsPerS = copies;
    cpu.p50Ns = 1'000'000;
    if (copies > 0) engines.push_back(cpu);
    WriteRun(Folder() + "/" + name, engines);
    std::vector<CounterValue> values;
    for (int second = 1; second <= 29; ++second) {
      values.push_back({second + 0.1, "processor", "benchmark", "CPUs", benchmarkCpus});
      values.push_back({second + 0.1, "processor", "helpers", "CPUs", helpersCpus});
    }
    AddCounters(name, values);
  }

  void AddCounters(const std::string& name, const std::vector<CounterValue>& values) const {
    std::string text = "time_s,source,name,unit,value\n";
    for (const CounterValue& value : values) {
      text += std::to_string(value.timeS) + "," + value.source + "," + value.name + "," + value.unit + "," +
              std::to_string(value.value) + "\n";
    }
    (void)folder_.Put("matrix/" + name + "/counters.csv", text);
  }

  TemporaryFolder folder_;
};

TEST_F(MatrixTest, SeparatesProcessorTimeFromMemory) {
  Matrix matrix = Planned({"CPU=0,2"}, {"VPC"}, 2);
  matrix.runs = PlanMatrix(matrix);
  for (MatrixRun& run : matrix.runs) {
    run.state = SweepState::kDone;
    const double off = run.repeat == 1 ? -1 : 1;
    if (run.part == MatrixPart::kLoad) Put(run.folder, 0, 400, 1.2, 0);
    if (run.part == MatrixPart::kAlone) Put(run.folder, 200 + off, 0, 1, 0);
    if (run.part == MatrixPart::kControl) Put(run.folder, 160 + off, 0, 1, 1.19);
    if (run.part == MatrixPart::kWith) Put(run.folder, 100 + off, 300, 2, 0);
  }
  const MatrixTable table = ReadMatrixTable(Folder(), matrix);
  EXPECT_THAT(table.notes, ElementsAre(HasSubstr("that by CPU too large"))) << "it has no CPU of its own";
  matrix.ownCpus = {1};
  EXPECT_THAT(ReadMatrixTable(Folder(), matrix).notes, IsEmpty());
  ASSERT_THAT(table.cells, SizeIs(1));
  const MatrixCell& cell = table.cells[0];
  EXPECT_NEAR(cell.byMemory->value, 60, 0.5);
  EXPECT_NEAR(cell.byCpu->value, 25, 0.5);
  EXPECT_NEAR(cell.total->value, 100, 0.5);
  EXPECT_NEAR(cell.memoryShare->percent, std::log(1.6) / std::log(2) * 100, 1);
  EXPECT_LT(cell.memoryShare->low, 68);
  EXPECT_GT(cell.memoryShare->high, 68);
  EXPECT_LT(*cell.byMemory->low, cell.byMemory->value);
  EXPECT_NEAR(*cell.aggressorCpus, 1.2, 1e-6);
  EXPECT_THAT(cell.control.cpus, Each(::testing::DoubleNear(1.19, 1e-6)));
  EXPECT_THAT(MatrixText(matrix, table),
              AllOf(HasSubstr("VPC=1   CPU=2"), HasSubstr("+60.0 % ["), HasSubstr("1.20 / 1.19")));
  const auto json = nlohmann::json::parse(MatrixJson(Folder(), matrix, table, true));
  EXPECT_EQ(json["cells"][0]["aggressors"]["CPU"], 2);
  EXPECT_EQ(json["cells"][0]["unit"], "op/s");
  EXPECT_EQ(json["cells"][0]["with"]["runs"], 2);
  EXPECT_EQ(json["cells"][0]["with"]["bursts"], nullptr) << "of the latency of memory alone";
  EXPECT_NEAR(json["cells"][0]["by_cpu"]["percent"].get<double>(), 25, 0.5);

  // Each of two threads makes 400 operations a second. Both take 1.2 CPUs.
  const std::vector<ControlThreads> control = ControlOf(Folder() + "/" + matrix.runs[0].folder, 0);
  ASSERT_THAT(control, SizeIs(1));
  EXPECT_EQ(control[0].threads, 2);
  EXPECT_NEAR(control[0].computeUs, 1500, 1);
  EXPECT_NEAR(control[0].periodUs, 2500, 1);
  EXPECT_EQ(ControlText(control), "2 x (1500 us of 2500 us)");
}

TEST_F(MatrixTest, TheLatencyOfMemoryIsAVictim) {
  Matrix matrix = Planned({"CPU=0,2"}, {"latency"}, 2);
  matrix.settings.warmupS = 1;
  matrix.ownCpus = {1};
  matrix.runs = PlanMatrix(matrix);
  for (MatrixRun& run : matrix.runs) {
    run.state = SweepState::kDone;
    const double ns = run.part == MatrixPart::kAlone ? 100 : run.part == MatrixPart::kControl ? 110 : 220;
    scope::Run recorded = made_curve::Run({5, ns + run.repeat});
    if (run.part == MatrixPart::kControl && run.repeat == 2)
      recorded.info.conditions.latency = "64 MiB in pages of 4 KiB, CPU 1";
    recorded.info.latency.growth.back().p50Ns = static_cast<std::uint64_t>(ns);
    if (run.part == MatrixPart::kLoad) recorded.info.latency = {};
    recorded.info.latency.cpu = run.part == MatrixPart::kWith ? -1 : 1;
    recorded.info.latency.cpuNote = run.part == MatrixPart::kWith ? "it is taken" : "";
    made_run::Write(recorded, Folder() + "/" + run.folder);
  }
  const MatrixTable table = ReadMatrixTable(Folder(), matrix);
  ASSERT_THAT(table.cells, SizeIs(1));
  EXPECT_THAT(table.cells[0].alone.main, ElementsAre(DoubleEq(101), DoubleEq(102))) << "ns";
  EXPECT_THAT(table.cells[0].with.p99Us, ElementsAre(0.442, 0.444));
  EXPECT_EQ(table.cells[0].with.bursts, 48U) << "of both runs without the warm-up and the last second";
  EXPECT_EQ(table.cells[0].with.interrupted, 2U);
  const auto data = nlohmann::json::parse(MatrixJson(Folder(), matrix, table, true));
  EXPECT_EQ(data["growth"], nlohmann::json::parse(
                                R"([{"bytes": 1048576, "p50_ns": 9}, {"bytes": 268435456, "p50_ns": 110}])"))
      << "of 100, 110 and 220, each twice";
  for (const auto& part : data["growth"]) ExpectDescribed(part);
  const auto& json = data["cells"][0];
  EXPECT_EQ(json["control"]["runs"], 2);
  EXPECT_EQ(json["control"]["bursts"], 48);
  EXPECT_EQ(json["control"]["interrupted"], 2);
  EXPECT_NEAR(json["control"]["p99"]["us"].get<double>(), 0.223, 1e-4);
  EXPECT_LT(json["control"]["p99"]["low"].get<double>(), 0.222);
  EXPECT_GT(json["control"]["p99"]["high"].get<double>(), 0.224);
  EXPECT_NEAR(table.cells[0].byMemory->value, 98.7, 0.1);
  EXPECT_EQ(table.latency, "256 MiB in pages of 2 MiB, CPU 1");
  EXPECT_THAT(table.notes, ElementsAre(HasSubstr("its latency is that of 64 MiB in pages of 4 KiB, CPU 1"),
                                       "latency of 2 runs: the probe had no CPU of its own: it is taken"));
  EXPECT_THAT(MatrixText(matrix, table),
              AllOf(HasSubstr("over parts of this memory: 1 MiB 9 ns, 256 MiB 110 ns.\n"),
                    HasSubstr("The latency of memory grows most beside CPU=2: by +98.7 %"),
                    HasSubstr("  p99 alone  "),
                    ::testing::ContainsRegex(" 223 ns \\[21[0-9] ns, 23[0-9] ns\\]  443 ns \\[4")));
}

// With one CPU and no real-time priority, a load may leave the probe no whole burst.
TEST_F(MatrixTest, SaysThatNoBurstWasUndisturbed) {
  Matrix matrix = Planned({"CPU=0,2"}, {"latency"}, 1);
  matrix.runs = PlanMatrix(matrix);
  for (MatrixRun& run : matrix.runs) {
    run.state = SweepState::kDone;
    scope::Run recorded = made_curve::Run({5, 100});
    if (run.part == MatrixPart::kWith || run.part == MatrixPart::kControl) {
      for (LatencySecond& second : recorded.latency) second.accesses = 0;
      recorded.info.latency.bursts = recorded.info.latency.interrupted = 40;
      recorded.info.latency.realTimeNote = "it is not allowed";
    }
    made_run::Write(recorded, Folder() + "/" + run.folder);
  }
  const MatrixTable table = ReadMatrixTable(Folder(), matrix);
  const auto none = HasSubstr("CPU=2): no undisturbed burst of the latency probe after the warm-up");
  EXPECT_THAT(table.notes, ElementsAre(none, none,
                                       "latency of 2 runs: 40 of 40 bursts interrupted: the load, other "
                                       "programs or the host took the probe's CPU; it had no real-time "
                                       "priority: it is not allowed"));
  EXPECT_THAT(MatrixText(matrix, table), HasSubstr("Whether the latency of memory grows is not known"));
  matrix.worst = true;
  EXPECT_THAT(MatrixText(matrix, table),
              HasSubstr("It found CPU=2, whose control measured nothing: see the notes."));
  matrix.runs.clear();
  EXPECT_THAT(MatrixText(matrix, table), HasSubstr("No mix that it tried has figures: see the notes."));
  EXPECT_THAT(MatrixText(matrix, MatrixTable()), HasSubstr("It has not ended."));
}

// What takes the probe's CPU does not slow memory for that.
TEST_F(MatrixTest, ASearchDoesNotRankRunsWithoutALatency) {
  Matrix matrix = Planned({"CPU=0..2"}, {"latency"}, 1);
  matrix.worst = true;
  const SweepLevels slow = {{"CPU", 1}};
  const SweepLevels blind = {{"CPU", 2}};
  for (const auto& [part, mix, ns] : {std::tuple(MatrixPart::kAlone, SweepLevels(), 100),
                                      {MatrixPart::kWith, slow, 150},
                                      {MatrixPart::kWith, blind, 0},
                                      {MatrixPart::kControl, slow, 100}}) {
    MatrixRun run;
    run.folder = MatrixRunFolder(matrix.runs.size());
    run.part = part;
    run.victim = kLatencyVictim;
    run.mix = mix;
    run.state = SweepState::kDone;
    scope::Run recorded = made_curve::Run({5, static_cast<double>(ns)});
    for (LatencySecond& second : recorded.latency) second.accesses = ns == 0 ? 0 : second.accesses;
    made_run::Write(recorded, Folder() + "/" + run.folder);
    matrix.runs.push_back(run);
  }
  const std::vector<Slowness> slowness = ReadSlowness(Folder(), matrix);
  EXPECT_THAT(slowness, ElementsAre(IsEmpty(), ElementsAre(150.0), ElementsAre(std::nullopt)));
  EXPECT_THAT(FoundWorst(matrix, slowness), ElementsAre(slow));
  const MatrixTable table = ReadMatrixTable(Folder(), matrix);
  EXPECT_THAT(table.notes, ::testing::Contains(::testing::StartsWith(
                               "runs without a latency beside CPU=2: the probe had no undisturbed burst")));
  EXPECT_THAT(MatrixText(matrix, table),
              AllOf(HasSubstr("The worst mix for latency is CPU=1: slower by +50.0 % in all"),
                    HasSubstr("The other mixes that it tried have no figures: see the notes.")));
  // An engine that does nothing is as slow as can be.
  matrix.victims = ParseVictims({"VPC"});
  matrix.runs.erase(matrix.runs.begin() + 3);
  Put(matrix.runs[1].folder, 100, 50, 1, 0);
  Put(matrix.runs[2].folder, 0, 50, 1, 0);
  EXPECT_THAT(FoundWorst(matrix, ReadSlowness(Folder(), matrix)), ElementsAre(blind, slow));
}

// The seconds in which aggressors begin and end are no seconds under load.
TEST_F(MatrixTest, TheLatencyIsThatUnderLoad) {
  Matrix matrix = Planned({"CPU=0,2"}, {"latency"}, 1);
  matrix.runs = PlanMatrix(matrix);
  for (MatrixRun& run : matrix.runs) {
    const bool isAlone = run.part == MatrixPart::kAlone;
    if (run.part != MatrixPart::kWith && !isAlone) continue;
    run.state = SweepState::kDone;
    scope::Run made = made_run::Run();
    made_run::AddLatency(made);
    made.info.conditions.kernel = isAlone ? "one" : "another";
    // The aggressors work from second 29 to 34.
    const auto isIdle = [&](const Sample& sample) {
      return isAlone || sample.timeS < 29 || sample.timeS > 34;
    };
    made.samples.erase(std::remove_if(made.samples.begin(), made.samples.end(), isIdle), made.samples.end());
    for (LatencySecond& second : made.latency) {
      if (second.accesses != 0)
        second.p50Ns = !isAlone && second.second >= 30 && second.second <= 33 ? 150 : 100;
    }
    made_run::Write(made, Folder() + "/" + run.folder);
  }
  const MatrixTable table = ReadMatrixTable(Folder(), matrix);
  ASSERT_THAT(table.cells, SizeIs(1)) << ::testing::PrintToString(table.notes);
  EXPECT_THAT(table.cells[0].alone.main, ElementsAre(100));
  EXPECT_THAT(table.cells[0].with.main, ElementsAre(150)) << "most seconds have no load";
  EXPECT_THAT(table.notes, ::testing::Contains(HasSubstr("the runs differ in kernel")));
}

TEST_F(MatrixTest, SaysWhatIsMissing) {
  Matrix matrix = Planned({"CPU=0,2"}, {"VPC"}, 1);
  matrix.runs = PlanMatrix(matrix);
  matrix.runs[1].state = SweepState::kFailed;
  matrix.runs[1].reason = "it broke";
  matrix.runs[2].state = SweepState::kDone;
  const MatrixTable table = ReadMatrixTable(Folder(), matrix);
  EXPECT_THAT(table.notes, ::testing::Contains(HasSubstr("failed: it broke")));
  EXPECT_THAT(table.notes, ::testing::Contains(HasSubstr("run-0003: there is no such folder")));
  EXPECT_THAT(ErrorOf([&] { (void)ControlOf(Folder() + "/run-0001", 0); }),
              HasSubstr("there is no such folder"));
  Put("idle", 100, 0, 0.1, 0);
  EXPECT_THAT(ErrorOf([&] { (void)ControlOf(Folder() + "/idle", 100); }),
              HasSubstr("how much processor time"));
}

// --- the control's process ---

double CpuSecondsOf(pid_t process) {
  clockid_t clock{};
  timespec time{};
  if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0) return -1;
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

TEST(ControlTest, TakesProcessorTimeAndPauses) {
  const auto begin = std::chrono::steady_clock::now();
  Control control({{2, 2000, 10'000}}, {});
  // Two threads take 2 ms in every 10 ms: 24 ms are six periods of both. They begin at once and half a period
  // later, and without pauses two processors do that in 12 ms.
  const auto end = begin + std::chrono::seconds(60);
  while (CpuSecondsOf(control.Id()) < 0.024 && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_GE(CpuSecondsOf(control.Id()), 0.024) << "it goes on after a pause";
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(40));
  EXPECT_EQ(control.Fault(), "");
  (void)kill(control.Id(), SIGKILL);
  while (control.Fault().empty() && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(control.Fault(), "the control was ended by SIGKILL");
  EXPECT_EQ(control.Descriptor(), -1);
}

TEST(ControlTest, NeedsACpuThatIsNotTheVictims) {
  EXPECT_THAT(ErrorOf([] { Control({{1, 1, 1}}, AllowedCpus()); }),
              HasSubstr("cannot compute beside the benchmark"));
}

// --- the search for the worst mix ---

/// A platform whose engines contend in a way that the search does not know: some disturb more with each
/// level, some soon disturb no more, some slow each other down so that less load disturbs more; pairs disturb
/// more or less than their sum.
class HiddenContention {
 public:
  HiddenContention(const std::vector<std::size_t>& counts, std::uint64_t seed) : values_(seed) {
    const std::size_t engines = counts.size();
    std::vector<double> weights;
    std::vector<std::size_t> kinds;
    std::vector<double> bends;
    for (std::size_t i = 0; i < engines; ++i) {
      weights.push_back(0.05 + 0.6 * values_.Uniform());
      kinds.push_back(static_cast<std::size_t>(3 * values_.Uniform()));
      bends.push_back(0.3 + 0.7 * values_.Uniform());
    }
    std::vector<double> pairs;
    for (std::size_t i = 0; i < engines * engines; ++i) pairs.push_back(0.8 * (values_.Uniform() - 0.5));
    const double most = 0.5 + values_.Uniform();
    const MarginGrid grid{counts, 0};
    for (std::size_t mix = 0; mix < PointCount(grid); ++mix) {
      std::vector<double> loads;
      double sum = 0;
      for (std::size_t i = 0; i < engines; ++i) {
        const double level =
            static_cast<double>(ValuesOfPoint(grid, mix)[i]) / static_cast<double>(counts[i] - 1);
        const double falling = level < bends[i] ? level / bends[i] : 1 - 0.8 * (level - bends[i]);
        const double bent = level * (1 + bends[i]) / (level + bends[i]);
        loads.push_back(kinds[i] == 0 ? level : kinds[i] == 1 ? bent : falling);
        sum += weights[i] * loads[i];
      }
      for (std::size_t i = 0; i < engines; ++i) {
        for (std::size_t j = 0; j < i; ++j) sum += pairs[i * engines + j] * loads[i] * loads[j];
      }
      slowdowns_.push_back(most * std::tanh(std::max(0.0, sum) / most));
    }
  }

  double Slowdown(std::size_t mix) const { return slowdowns_[mix]; }
  double Worst() const { return *std::max_element(slowdowns_.begin(), slowdowns_.end()); }
  std::size_t Mixes() const { return slowdowns_.size(); }

  /// As a run measures it: runs of one mix differ by `scatter`.
  double Measure(std::size_t mix, double scatter) {
    return (1 + slowdowns_[mix]) * std::exp(scatter * values_.Normal());
  }

 private:
  NormalValues values_;
  std::vector<double> slowdowns_;
};

/// How a search ended on one platform.
struct FoundMix {
  double slowdown = 0;
  std::size_t runs = 0;  ///< of the victim with aggressors
};

// As the command does it, to its end.
FoundMix LookForWorst(HiddenContention& platform, double scatter) {
  Matrix matrix = Planned({"CPU=0..3", "VENC=0..4", "AIC=0..3"}, {"VPC"}, 3);
  matrix.worst = true;
  std::vector<Slowness> tried(platform.Mixes());
  FoundMix found;
  std::map<SweepLevels, std::size_t> numbers;
  for (const SweepLevels& mix : MixesFor(matrix.axes, "VPC")) numbers[mix] = *MixNumber(matrix, mix);
  std::map<std::pair<MatrixPart, SweepLevels>, int> counts;
  while (auto next = NextOfWorst(matrix, tried)) {
    next->state = SweepState::kDone;
    EXPECT_LE((++counts[{next->part, next->mix}]), matrix.settings.repeats);
    if (next->part == MatrixPart::kWith) {
      const std::size_t mix = numbers.at(next->mix);
      EXPECT_NE(mix, 0U) << "no aggressor";
      tried[mix].push_back(platform.Measure(mix, scatter));
      ++found.runs;
    }
    matrix.runs.push_back(*std::move(next));
  }
  const SweepLevels worst = FoundWorst(matrix, tried).front();
  found.slowdown = platform.Slowdown(numbers.at(worst));
  // Its parts are told apart, and those of no other mix.
  for (const auto& [what, count] : counts) {
    if (what.first != MatrixPart::kLoad && what.first != MatrixPart::kControl) continue;
    EXPECT_EQ(what.second, worst);
  }
  EXPECT_EQ((counts[{MatrixPart::kControl, worst}]), 3);
  EXPECT_EQ((counts[{MatrixPart::kWith, worst}]), 3);
  return found;
}

double SlowdownByAllRuns(HiddenContention& platform, const WorstGrid& grid, double scatter) {
  std::vector<Slowness> all(platform.Mixes());
  for (std::size_t mix = 1; mix < all.size(); ++mix) {
    for (std::size_t i = 0; i < grid.repeats; ++i) all[mix].push_back(platform.Measure(mix, scatter));
  }
  return platform.Slowdown(WorstMixes(grid, all).front());
}

// Runs that differ by 10 % hide which of the worst mixes is the worst, also from who records all of them.
TEST(WorstSearchTest, FindsTheWorstMixWithAFifthOfTheRuns) {
  const WorstGrid grid{{4, 5, 4}, true, 3};
  EXPECT_EQ(ExhaustiveRuns(grid), 79U * 3);
  struct Case {
    double scatter;
    double nearness;
    int platforms;
    int least;
  };
  for (const Case& each : {Case{0.02, 0.95, 40, 38}, Case{0.1, 0.85, 20, 15}}) {
    int found = 0;
    int foundByAll = 0;
    for (int seed = 0; seed < each.platforms; ++seed) {
      HiddenContention platform({4, 5, 4}, static_cast<std::uint64_t>(seed));
      const FoundMix one = LookForWorst(platform, each.scatter);
      // What is recorded of the mix that it found comes on top of a fifth.
      EXPECT_LE(one.runs, ExhaustiveRuns(grid) / 5 + grid.repeats - 1);
      if (one.slowdown >= each.nearness * platform.Worst()) ++found;
      if (SlowdownByAllRuns(platform, grid, each.scatter) >= each.nearness * platform.Worst()) ++foundByAll;
    }
    std::printf("runs differ by %g %%: within %g %% of the worst: the search %d of %d, all runs %d\n",
                each.scatter * 100, (1 - each.nearness) * 100, found, each.platforms, foundByAll);
    EXPECT_GE(found, each.least) << each.scatter << "; recording everything finds " << foundByAll;
  }
}

// Runs of one mix say how much runs differ; then a mix that was slow once is no longer the worst.
TEST(WorstSearchTest, JudgesByTheScatterOfTheRuns) {
  const WorstGrid grid{{3}, true, 3};
  EXPECT_NEAR(ScatterOfRuns({{}, {1}, {2}}), 0.02, 1e-12) << "nothing is known";
  EXPECT_EQ(WorstMixes(grid, {{}, {1.25}, {1.2, 1.2, 1.2}}).front(), 1U);
  const std::vector<Slowness> scattered = {{}, {1.25}, {1.0, 1.2, 1.44}};
  EXPECT_NEAR(ScatterOfRuns(scattered), 0.1065, 0.0005);
  EXPECT_EQ(WorstMixes(grid, scattered).front(), 2U);
}

TEST(WorstSearchTest, RunsThatMeasuredNothingRankNoMix) {
  const WorstGrid grid{{3}, true, 3};
  const std::vector<Slowness> tried = {{}, {1.25, std::nullopt}, {1.2, std::nullopt, 1.2}};
  EXPECT_NEAR(ScatterOfRuns(tried), ScatterOfRuns({{}, {1.25}, {1.2, 1.2}}), 1e-12);
  EXPECT_THAT(WorstMixes(grid, tried), ElementsAre(1U, 2U));
  EXPECT_THAT(WorstMixes(grid, {{}, {std::nullopt, std::nullopt}, {1}}), ElementsAre(2U));
  EXPECT_EQ(NextMix(grid, {{}, {}, {std::nullopt}}, 6), 1U);
  EXPECT_FALSE(NextMix(grid, {{}, {std::nullopt}, {std::nullopt}}, 6)) << "each is tried once";
  EXPECT_EQ(NextMix(grid, {{}, {1}, {std::nullopt}}, 6), 1U);
  EXPECT_FALSE(NextMix(grid, {{}, {1, std::nullopt, 1}, {std::nullopt}}, 6)) << "no mix has more runs";
}

// The copies take the probe's CPU at their highest level, and the encoder slows memory.
TEST(WorstSearchTest, WhatTakesTheProbesCpuIsNotTheWorst) {
  Matrix matrix = Planned({"CPU=0..5", "VENC=0..5"}, {"latency"}, 3);
  matrix.worst = true;
  std::vector<Slowness> tried(36);
  std::map<SweepLevels, int> blind;
  while (auto next = NextOfWorst(matrix, tried)) {
    ASSERT_LT(matrix.runs.size(), 100U);
    next->state = SweepState::kDone;
    if (next->part == MatrixPart::kWith) {
      const std::size_t mix = *MixNumber(matrix, next->mix);
      const std::size_t copies = mix / 6;
      const std::size_t frames = mix % 6;
      if (copies == 5) {
        ++blind[next->mix];
        tried[mix].push_back(std::nullopt);
      } else {
        tried[mix].push_back(100.0 + 2 * static_cast<double>(copies) + 10 * static_cast<double>(frames));
      }
    }
    matrix.runs.push_back(*std::move(next));
  }
  EXPECT_THAT(blind, Not(IsEmpty()));
  EXPECT_THAT(blind, Each(Pair(::testing::_, 1))) << "it is not tried again";
  EXPECT_EQ(FoundWorst(matrix, tried).front(), (SweepLevels{{"CPU", 4}, {"VENC", 5}}));
  EXPECT_EQ(matrix.runs.back().part, MatrixPart::kControl);
  EXPECT_EQ(matrix.runs.back().mix, (SweepLevels{{"CPU", 4}, {"VENC", 5}}));
}

// What is recorded of the mix that was found must not make the search look at another one.
TEST(WorstSearchTest, ItsBudgetDecidesWhichMixIsTheWorst) {
  Matrix matrix = Planned({"CPU=0..9"}, {"VPC"}, 5);
  matrix.worst = true;
  std::vector<Slowness> tried(10);
  std::size_t with = 0;
  std::set<SweepLevels> behind;
  const std::size_t budget = WorstBudget(WorstGridOf(matrix));
  while (auto next = NextOfWorst(matrix, tried)) {
    ASSERT_LT(matrix.runs.size(), 100U);
    next->state = SweepState::kDone;
    if (with >= budget) behind.insert(next->mix);
    if (next->part == MatrixPart::kWith) {
      const std::size_t mix = *MixNumber(matrix, next->mix);
      // Behind the budget, each mix that is recorded again turns out to be no slower than any other.
      tried[mix].push_back(++with > budget ? 0.5 : 1 + 0.1 * static_cast<double>(mix));
    }
    matrix.runs.push_back(*std::move(next));
  }
  EXPECT_GT(with, budget);
  EXPECT_THAT(behind, ElementsAre(SweepLevels{{"CPU", 9}})) << "its load, more of it, and its control";
  EXPECT_EQ(FoundWorst(matrix, tried).front(), (SweepLevels{{"CPU", 9}}));
  EXPECT_THAT(FoundWorst(matrix, tried), SizeIs(::testing::Gt(1)));
}

TEST(WorstSearchTest, GoesOnFromResultsAlone) {
  const WorstGrid grid{{3, 3}, true, 2};
  std::vector<Slowness> tried(9);
  EXPECT_THAT(WorstMixes(grid, tried), IsEmpty());
  EXPECT_EQ(NextMix(grid, tried, 10), 8U) << "all aggressors at their highest level come first";
  tried[8] = {2};
  EXPECT_EQ(NextMix(grid, tried, 10), NextMix(grid, tried, 10));
  EXPECT_THAT(WorstMixes(grid, tried), ElementsAre(8U));
  EXPECT_FALSE(NextMix(grid, tried, 1)) << "the budget is used up";
  // Everything is known: nothing is left, whatever the budget.
  for (std::size_t mix = 1; mix < 9; ++mix) tried[mix] = {1, 1};
  EXPECT_FALSE(NextMix(grid, tried, 1000));
  EXPECT_LE(WorstBudget(grid), ExhaustiveRuns(grid));
}

TEST(WorstSearchTest, TellsWhatOfTheWorstMixIsMemory) {
  Matrix matrix = Planned({"CPU=0..2", "VENC=0..2"}, {"VPC"}, 2);
  matrix.worst = true;
  std::vector<Slowness> slowness(9);
  std::map<MatrixPart, int> parts;
  std::vector<MatrixPart> order;
  while (const auto next = NextOfWorst(matrix, slowness)) {
    ASSERT_LT(matrix.runs.size(), 50U);
    matrix.runs.push_back(*next);
    matrix.runs.back().state = SweepState::kDone;
    EXPECT_EQ(next->folder, MatrixRunFolder(matrix.runs.size() - 1));
    ++parts[next->part];
    order.push_back(next->part);
    // The encoder alone disturbs, at level 1 most.
    const bool isWorst = next->mix == SweepLevels{{"VENC", 1}};
    if (next->part == MatrixPart::kWith) slowness[*MixNumber(matrix, next->mix)].push_back(isWorst ? 3 : 1);
  }
  EXPECT_EQ(FoundWorst(matrix, slowness).front(), (SweepLevels{{"VENC", 1}}));
  EXPECT_EQ(parts[MatrixPart::kAlone], 2);
  EXPECT_EQ(parts[MatrixPart::kLoad], 1);
  EXPECT_EQ(parts[MatrixPart::kControl], 2);
  EXPECT_EQ(matrix.runs.back().mix, (SweepLevels{{"VENC", 1}}));
  EXPECT_TRUE(IsComplete(matrix, slowness));
  matrix.runs.back().state = SweepState::kFailed;
  EXPECT_EQ(NextOfWorst(matrix, slowness)->folder, matrix.runs.back().folder) << "what failed is needed";
}

// --- the command ---

class MatrixProgramTest : public ::testing::Test {
 protected:
  // A benchmark whose VPC does 100 op/s, a fifth less beside the CPU's copies. It lists what it ran.
  // Aggressors alone take a second in earnest: so long it takes to see their processor time.
  std::string Benchmark(const std::string& atItsStart = "") const {
    const std::string bucket = std::to_string(BucketOf(1'000'000));
    const std::string path = folder_.Put(
        "benchmark",
        "#!/bin/sh\ncpu=$(sed -n '/^CPU/{n;s/.*: //p}' \"$1\")\nvpc=$(sed -n '/^VPC/{n;s/.*: //p}' \"$1\")\n"
        "echo \"cpu $cpu vpc $vpc pin $STRESS_SCOPE_PIN\" >>\"$0.ran\"\n" +
            atItsStart +
            "\nfor second in 1 2 3 4 5 6; do\n"
            "  [ \"$vpc\" = 0 ] || echo \"sample 1 0 " +
            bucket +
            " $((100 - 20 * cpu))\"\n"
            "  for thread in 0 1; do\n"
            "    [ \"$thread\" -ge \"$cpu\" ] || echo \"sample 0 $thread " +
            bucket +
            " 50\"\n  done\n"
            "  echo \"print cpuStress : 1.000000 fps. ispStress : 30.0 fps.\"\n"
            "  echo \"second $((second * 1000))\"\ndone >\"$0.script\"\n"
            "[ \"$vpc$cpu\" = 00 ] || [ \"$vpc\" != 0 ] || sleep 1.2\nexec " SCRIPTED_METER
            " \"$1\" \"$0.script\"\n");
    (void)chmod(path.c_str(), 0755);
    return path;
  }

  std::vector<std::string> Arguments(const std::string& benchmark,
                                     const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments = {
        "matrix",      folder_.Put("config.yaml", "CPU: {Level: 2}\nVPC: {Level: 1}\n"),
        "-o",          Folder(),
        "--benchmark", benchmark,
        "--warmup",    "0",
        "--seed",      "1"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  std::string Folder() const { return folder_ / "who"; }

  std::size_t Ran() const {
    const std::string text = folder_.Get("benchmark.ran");
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  }

  TemporaryFolder folder_;
};

TEST_F(MatrixProgramTest, GoesOnAfterAnInterruptionAndShowsWhatDisturbs) {
  // The third run interrupts the recorder.
  const std::string benchmark = Benchmark("[ $(wc -l <\"$0.ran\") != 3 ] || kill -INT $PPID");
  const std::vector<std::string> arguments =
      Arguments(benchmark, {"--levels", "CPU=0,1", "--victim", "VPC", "--repeat", "2"});
  const ToolResult first = RunTool(arguments);
  EXPECT_EQ(first.status, 1) << first.errors;
  EXPECT_THAT(first.errors, HasSubstr("Continue with: stress_scope matrix --resume " + Folder()));
  EXPECT_EQ(Ran(), 3U);
  const Matrix interrupted = ReadMatrix(Folder());
  ASSERT_THAT(interrupted.runs, SizeIs(7));
  EXPECT_EQ(interrupted.runs[1].state, SweepState::kDone);
  EXPECT_EQ(interrupted.runs[2].state, SweepState::kInterrupted);
  EXPECT_THAT(RunTool(arguments).errors, HasSubstr("contains a matrix: continue it with --resume"));

  const ToolResult second = RunTool({"matrix", "--resume", Folder()});
  EXPECT_EQ(second.status, 0) << second.errors;
  EXPECT_EQ(Ran(), 8U) << "what was recorded is not recorded again";
  EXPECT_THAT(second.output,
              AllOf(HasSubstr("names the program to run: " + benchmark), HasSubstr("VPC=1   CPU=1"),
                    HasSubstr("+25.0 % [+25.0, +25.0]  +0.0 % [")));
  for (const MatrixRun& run : ReadMatrix(Folder()).runs) {
    const Conditions conditions = ReadRun(Folder() + "/" + run.folder).info.conditions;
    EXPECT_EQ(conditions.control.empty(), run.part != MatrixPart::kControl) << run.folder;
    const bool isVictim = conditions.ownCpus.rfind("vpc: ", 0) == 0;
    EXPECT_EQ(isVictim, run.part != MatrixPart::kLoad && AllowedCpus().size() > 1) << conditions.ownCpus;
  }
  const auto json = nlohmann::json::parse(RunTool({"matrix", "--resume", Folder(), "--json"}).output);
  EXPECT_EQ(Ran(), 8U);
  EXPECT_EQ(json["complete"], true);
  EXPECT_NEAR(json["cells"][0]["by_memory"]["percent"].get<double>(), 25, 1e-6);
  EXPECT_NEAR(json["cells"][0]["memory_share"]["percent"].get<double>(), 100, 1e-6);

  for (const auto& part : {json, json["cells"][0], json["cells"][0]["with"]}) ExpectDescribed(part);

  // The page, and the report that writes it again.
  EXPECT_THAT(second.output, HasSubstr("\nreport in " + Folder() + "/report.html\n"));
  EXPECT_EQ(DataOf(folder_.Get("who/report.html")), json);
  std::filesystem::remove(Folder() + "/report.html");
  const ToolResult report = RunTool({"report", Folder()});
  EXPECT_EQ(report.status, 0) << report.errors;
  EXPECT_EQ(report.output, second.output.substr(second.output.size() - report.output.size()));
  EXPECT_EQ(DataOf(folder_.Get("who/report.html")), json);
  EXPECT_EQ(nlohmann::json::parse(RunTool({"report", Folder(), "--json"}).output), json);
  const ToolResult mixed = RunTool({"report", Folder(), Folder() + "/run-0002"});
  EXPECT_EQ(mixed.status, 2);
  EXPECT_THAT(mixed.errors, HasSubstr(Folder() + " is a matrix, and a report shows one of these"));

  // A folder from elsewhere.
  std::string text = folder_.Get("who/matrix.json");
  const auto refuses = [&](const std::string& from, const std::string& to, const std::string& why) {
    std::string changed = text;
    ASSERT_NE(changed.find(from), std::string::npos) << from;
    changed.replace(changed.find(from), from.size(), to);
    (void)folder_.Put("who/matrix.json", changed);
    const ToolResult result = RunTool({"matrix", "--resume", Folder()});
    EXPECT_EQ(result.status, 2) << to;
    EXPECT_THAT(result.errors, HasSubstr(why));
  };
  refuses("run-0001", "../../x", "expected the run run-0001, found");
  refuses("\"part\": \"load\"", "\"part\": \"x\"", "unknown part");
  refuses("\"VPC\": 1", "\"VPC\": 0", "expected victims with levels from 1");
  refuses("\"victim\": \"VPC\"", "\"victim\": \"CPU\"", "none of this matrix");
  refuses("\"CPU\": 1", "\"CPU\": 11", "none of this matrix");
  refuses("\"repeats\": 2", "\"repeats\": 0", "repeats of 1 or more");
  refuses("\"own_cpus\": ", "\"own_cpus\": \"x\", \"x\": ", "expected a list of CPUs");
  refuses("\"format\": 1", "\"format\": 7", "written in format 7");
}

TEST_F(MatrixProgramTest, MeasuresTheLatencyOfMemoryOnACpuOfItsOwn) {
  const ToolResult result = RunTool(Arguments(
      Benchmark(), {"--levels", "CPU=0,1", "--victim", "latency", "--latency-size", "1M", "--repeat", "1"}));
  EXPECT_EQ(result.status, 0) << result.errors;
  const int last = AllowedCpus().back();
  const bool isOwn = AllowedCpus().size() > 1;
  const std::string name = std::to_string(last);
  const Matrix matrix = ReadMatrix(Folder());
  EXPECT_EQ(matrix.ownCpus, isOwn ? std::vector<int>{last} : std::vector<int>());
  if (isOwn) EXPECT_THAT(result.output, HasSubstr("The victim has CPU " + name + " to itself"));
  ASSERT_THAT(matrix.runs, SizeIs(4));
  std::vector<scope::Run> runs;
  for (const MatrixRun& run : matrix.runs) {
    runs.push_back(ReadRun(Folder() + "/" + run.folder));
    const RunInfo& info = runs.back().info;
    const bool isLoad = run.part == MatrixPart::kLoad;
    EXPECT_EQ(info.conditions.ownCpus, isOwn ? ": " + name : "") << "of no engine";
    EXPECT_EQ(info.conditions.control.empty(), run.part != MatrixPart::kControl) << run.folder;
    EXPECT_EQ(info.latency.bytes, isLoad ? 0U : 1U << 20) << run.folder;
    if (isLoad) continue;
    EXPECT_EQ(info.latency.cpu, last) << run.folder;
    EXPECT_GT(info.latency.bursts, 0U) << run.folder;
    EXPECT_THAT(info.conditions.latency,
                AllOf(::testing::StartsWith("1 MiB in pages of "), HasSubstr(", CPU " + name)));
  }
  // No engine's threads may work there.
  std::istringstream ran(folder_.Get("benchmark.ran"));
  std::size_t lines = 0;
  for (std::string line; std::getline(ran, line); ++lines)
    EXPECT_THAT(line, ::testing::EndsWith(isOwn ? " vpc 0 pin =" + name : " vpc 0 pin "));
  EXPECT_EQ(lines, 4U);
  const auto json = nlohmann::json::parse(RunTool({"matrix", "--resume", Folder(), "--json"}).output);
  EXPECT_THAT(json["latency"].get<std::string>(), ::testing::StartsWith("1 MiB in pages of "));
  EXPECT_EQ(json["growth"].size(), MedianGrowth(runs).size());
}

TEST_F(MatrixProgramTest, LooksForTheWorstMixAndGoesOnAfterAFailure) {
  // The second run fails.
  const std::string benchmark = Benchmark("[ $(wc -l <\"$0.ran\") != 2 ] || exit 7");
  const ToolResult first =
      RunTool(Arguments(benchmark, {"--levels", "CPU=0..2", "--worst", "VPC", "--repeat", "1"}));
  EXPECT_EQ(first.status, 1) << first.errors;
  EXPECT_EQ(Ran(), 2U);
  EXPECT_THAT(first.errors,
              HasSubstr("run-0002 of " + Folder() + " is not complete, and the search needs it"));
  EXPECT_THAT(first.output, HasSubstr("It has not ended."));
  const ToolResult second = RunTool({"matrix", "--resume", Folder()});
  EXPECT_EQ(second.status, 0) << second.errors;
  EXPECT_THAT(
      second.output,
      AllOf(HasSubstr(
                "The worst mix for VPC=1 is CPU=2: slower by +66.7 % in all, by +66.7 % because of memory"),
            HasSubstr("Than beside the next one, CPU=1, it is slower by +33.3 %. That is too few runs"),
            HasSubstr("The search made 2 of the 2 runs with aggressors")));
  const auto json = nlohmann::json::parse(RunTool({"matrix", "--resume", Folder(), "--json"}).output);
  EXPECT_EQ(json["worst"]["aggressors"], nlohmann::json::parse(R"({"CPU": 2})"));
  EXPECT_EQ(json["worst"]["all_runs"], 2);
  EXPECT_EQ(json["worst"]["next"], nlohmann::json::parse(R"({"CPU": 1})"));
  EXPECT_NEAR(json["worst"]["slower_than_next"]["percent"].get<double>(), 100.0 / 3, 0.1);
  EXPECT_EQ(json["complete"], true);
  // A run that cannot be read any more.
  std::filesystem::remove(Folder() + "/run-0002/run.json");
  const ToolResult damaged = RunTool({"report", Folder(), "--json"});
  EXPECT_EQ(damaged.status, 0) << damaged.errors;
  EXPECT_EQ(nlohmann::json::parse(damaged.output)["complete"], false);
  EXPECT_THAT(damaged.output, HasSubstr("run-0002"));
}

// The runs of the victim without aggressors find errors: alone, which fails the first time, and with the
// control.
TEST_F(MatrixProgramTest, TellsOfOneCpuAndEndsWithTheStatusOfErrors) {
  const OnOneCpu one;
  const std::string count = folder_.Put("root/sys/devices/system/edac/mc/mc0/ce_count", "7\n");
  std::filesystem::create_symlink("/proc", folder_ / "root/proc");
  const std::string benchmark =
      Benchmark("if [ \"$cpu\" = 0 ]; then echo $(($(cat " + count + ") + 3)) >" + count +
                "; [ -e \"$0.failed\" ] || { touch \"$0.failed\"; exit 7; }; fi");
  const ToolResult failed =
      RunTool(Arguments(benchmark, {"--levels", "CPU=0,1", "--victim", "VPC", "--repeat", "1", "--sysfs-root",
                                    folder_ / "root"}));
  EXPECT_EQ(failed.status, 3) << failed.errors;
  EXPECT_EQ(ReadText(count), "13");
  EXPECT_THAT(failed.output,
              AllOf(::testing::StartsWith("The victim has no CPU to itself: it shares the CPUs with"),
                    HasSubstr("(VPC=1) failed: 3 errors (edac 3); "),
                    HasSubstr("(VPC=1 control of CPU=1): 3 errors (edac 3)\n"),
                    HasSubstr("the victim shares its CPUs with the aggressors")));
  const ToolResult done = RunTool({"matrix", "--resume", Folder()});
  EXPECT_EQ(done.status, 3) << done.errors;
  EXPECT_EQ(ReadText(count), "16");
  EXPECT_THAT(done.output, HasSubstr("(VPC=1): 3 errors (edac 3)\n"));
  // The errors are told whatever else fails.
  std::filesystem::remove(Folder() + "/report.html");
  std::filesystem::create_directory(Folder() + "/report.html");
  const ToolResult noPage = RunTool({"matrix", "--resume", Folder()});
  EXPECT_EQ(noPage.status, 3);
  EXPECT_THAT(noPage.errors, HasSubstr("cannot write " + Folder() + "/report.html: Is a directory"));
  const Matrix matrix = ReadMatrix(Folder());
  for (const MatrixRun& run : matrix.runs) {
    EXPECT_EQ(run.state, SweepState::kDone) << run.folder;
    const bool hasErrors = run.part == MatrixPart::kAlone || run.part == MatrixPart::kControl;
    EXPECT_EQ(run.reason, hasErrors ? "3 errors (edac 3)" : "") << run.folder;
  }
}

TEST_F(MatrixProgramTest, SaysWhatItNeeds) {
  const auto error = [this](const std::vector<std::string>& more) {
    const ToolResult result = RunTool(Arguments(Benchmark(), more));
    EXPECT_EQ(result.status, 2);
    EXPECT_FALSE(std::filesystem::exists(Folder()));
    return result.errors;
  };
  EXPECT_THAT(error({"--victim", "GPU"}), HasSubstr("expected CPU, VPC, VENC or AIC"));
  EXPECT_THAT(error({"--victim", "VPC", "--levels", "VPC=0..2"}), HasSubstr("nothing disturbs VPC"));
  EXPECT_THAT(error({"--victim", "AIC"}), HasSubstr("need a section AIC"));
  EXPECT_THAT(error({"--worst", "CPU", "--levels", "CPU=0..2"}), HasSubstr("as in --levels VPC=0,1"));
  EXPECT_THAT(error({"--levels", "CPU=0,1", "--stop-after", "3"}), HasSubstr("too short"))
      << "copies, which nothing else disturbs, are no victim";
  EXPECT_THAT(error({"--worst", "VPC", "--victim", "CPU"}), HasSubstr("--worst"));
  const std::string noProbe = "--latency-size needs the victim latency";
  EXPECT_THAT(error({"--victim", "VPC", "--latency-size", "nonsense"}), HasSubstr(noProbe));
  EXPECT_THAT(error({"--worst", "VPC", "--latency-size", "1M"}), HasSubstr(noProbe));
  EXPECT_THAT(error({"--victim", "latency", "--latency-size", "nonsense"}),
              AllOf(HasSubstr("--latency-size"), Not(HasSubstr(noProbe))));
  EXPECT_EQ(RunTool({"matrix"}).status, 2);
  EXPECT_THAT(RunTool({"matrix", "--resume", folder_ / "none"}).errors, HasSubstr("not a matrix"));
}

}  // namespace
