// SPDX-License-Identifier: Apache-2.0

// Programs that SIGKILL does not end. The program undying plays one; each test looks that it still was there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "run_reader.h"
#include "setting_switch.h"
#include "sweep_folder.h"
#include "sweep_plan.h"
#include "sweep_recorder.h"
#include "temporary_folder.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using namespace scope;

class StuckTest : public ::testing::Test {
 protected:
  ~StuckTest() override { LetGo(); }

  std::string Undying() const { return "exec " UNDYING " " + (folder_ / "holder"); }
  // Who keeps the program from its end; 0 before it runs.
  pid_t Holder() const { return std::atoi(folder_.Get("holder").c_str()); }
  bool IsHeld() const { return Holder() > 0 && kill(Holder(), 0) == 0; }
  // Once: its number may then be that of another process.
  void LetGo() const {
    if (Holder() > 0) (void)kill(Holder(), SIGKILL);
    folder_.Put("holder", "");
  }

  TemporaryFolder folder_;
};

TEST_F(StuckTest, ACommandThatSigkillDoesNotEndIsGivenUp) {
  Signals signals;
  std::atomic<bool> isOver{false};
  // A user who presses Ctrl-C again and again.
  std::thread user([&] {
    while (!isOver) {
      if (Holder() > 0) (void)kill(getpid(), SIGINT);
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });
  std::string answer = "the command ended";
  try {
    (void)RunSwitch(Undying(), false, signals, 0, 0.2);
  } catch (const CommandStuck& error) {
    answer = error.what();
  } catch (const UserError& error) {
    answer += std::string(": ") + error.what();
  }
  isOver = true;
  user.join();
  EXPECT_TRUE(IsHeld());
  EXPECT_THAT(answer, StartsWith("the command, process "));
  EXPECT_THAT(answer, HasSubstr(", did not end within 0.2 s of SIGKILL: it still runs, and disturbs what "
                                "follows: " +
                                Undying()));
}

TEST_F(StuckTest, ABenchmarkThatSigkillDoesNotEndEndsTheSweepWhichKeepsAllAndGoesOnLater) {
  const std::string benchmark =
      folder_.Put("benchmark", "#!/bin/sh\necho run >>\"$0.runs\"\n[ $(wc -l <\"$0.runs\") != 2 ] || " +
                                   Undying() + "\necho 'cpuStress : 100.0 fps. ispStress : 30.0 fps.'\n");
  ASSERT_EQ(chmod(benchmark.c_str(), 0755), 0);
  const std::string folder = folder_ / "sweep";
  Sweep sweep;
  sweep.axes = ParseAxes({"CPU=1..3"});
  sweep.settings.benchmark = benchmark;
  sweep.settings.useMeter = false;
  sweep.settings.systemRoot = folder_ / "no-system";
  sweep.settings.warmupS = 0;
  sweep.settings.hangAfterS = 4;  // the other runs end at once, even on a busy machine
  sweep.settings.graceS = 1;
  sweep.settings.deathS = 0.2;
  sweep.runs = PlanRuns(sweep.axes, 1, 1);
  folder_.Put("sweep/config.yaml", "logLevel: 3\nCPU: {Level: 1}\n");
  const auto record = [&] {
    const SweepKind kind = {"sweep", [&] { WriteSweep(folder, sweep); }};
    return SweepRecorder(folder, sweep, Output::kQuiet, kind).Run();
  };
  testing::internal::CaptureStderr();
  const bool isComplete = record();
  const std::string errors = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(IsHeld());
  EXPECT_FALSE(isComplete);
  EXPECT_THAT(errors, AllOf(HasSubstr("of SIGKILL: it still runs, and disturbs what follows"),
                            HasSubstr("ended early: a process that SIGKILL does not end would disturb"),
                            HasSubstr("continue with: stress_scope sweep --resume " + folder)));
  const Sweep kept = ReadSweep(folder);
  const auto in = [&kept](SweepState state) {
    return std::count_if(kept.runs.begin(), kept.runs.end(),
                         [state](const SweepRun& run) { return run.state == state; });
  };
  EXPECT_EQ(in(SweepState::kDone), 1);
  EXPECT_EQ(in(SweepState::kPlanned), 1);
  ASSERT_EQ(in(SweepState::kHung), 1);
  const SweepRun& stuck = *std::find_if(kept.runs.begin(), kept.runs.end(),
                                        [](const SweepRun& run) { return run.state == SweepState::kHung; });
  EXPECT_THAT(stuck.reason, HasSubstr(", did not end within 0.2 s of SIGKILL: it still runs, and disturbs"));
  const scope::Run run = ReadRun(folder + "/attempts/" + stuck.folder + "/1");
  EXPECT_EQ(run.info.incompleteReason, stuck.reason);
  EXPECT_EQ(run.rates.size(), 1U) << "what it printed is kept";
  LetGo();
  EXPECT_TRUE(record()) << "nothing is left";
  EXPECT_EQ(folder_.Get("benchmark.runs"), "run\nrun\nrun\nrun\n");
}

}  // namespace
