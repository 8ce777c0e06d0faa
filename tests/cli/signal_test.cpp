// SPDX-License-Identifier: Apache-2.0

// SIGINT at every stage of a run, and other signals.

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <iostream>
#include <thread>

#include "fifo.h"
#include "program_test.h"

namespace {

constexpr int kSigints = 300;

class Signals : public ProgramTest {
 protected:
  /// Changes `launch` so that the calls of the platform's start and release and of the signal handler are
  /// recorded.
  Launch Recorded(Launch launch) const {
    launch.environment["LD_PRELOAD"] = CALL_RECORDER;
    launch.environment["RECORD_CALLS"] = "calls";
    return launch;
  }
  std::vector<std::string> Calls() const { return SplitLines(Read("calls")); }

  /// Expects that the run has ended normally, that it has handled between one and kSigints signals and logged
  /// each of them, and that file and console have the same lines, all complete.
  void ExpectEachLogged(const Ending& ending) const {
    EXPECT_THAT(ending, Exited(0));
    const auto handled = Count(Calls(), "SignalHandler");
    std::cout << "handled " << handled << " of " << kSigints << "\n";
    EXPECT_GE(handled, 1);
    EXPECT_LE(handled, kSigints);
    const std::vector<LogRecord> records = LogFile();
    EXPECT_EQ(Count(Texts(records), kSignal), handled);
    for (const LogRecord& record : records) EXPECT_NE(record.level, "no record") << record.text;
    // Two threads may reach the two sinks in different orders.
    EXPECT_EQ(Sorted(ending.ErrorLines()), Sorted(SplitLines(Read("log/STBM.log"))));
    EXPECT_EQ(Count(Calls(), "QetRelease"), 1);
  }

  static std::vector<std::string> Sorted(std::vector<std::string> lines) {
    std::sort(lines.begin(), lines.end());
    return lines;
  }

  static std::ptrdiff_t Count(const std::vector<std::string>& lines, const std::string& line) {
    return std::count(lines.begin(), lines.end(), line);
  }
};

// The handler is not installed before the file is read.
TEST_F(Signals, SigintWhileTheFileIsReadFirstKillsTheProgram) {
  const Fifo fifo(Directory() / "c.yaml");
  Program program(With({"c.yaml"}));
  const int held = fifo.WaitForReader();
  ASSERT_GE(held, 0);
  program.Signal(SIGINT);
  EXPECT_THAT(program.Wait(), KilledBy(SIGINT));
  close(held);
  EXPECT_EQ(program.Wait().output, "");
  EXPECT_EQ(program.Wait().error, "");
  EXPECT_THAT(Files(), ElementsAre("c.yaml"));
}

TEST_F(Signals, SigintWhileTheSectionsAreReadSkipsTheRun) {
  if (kThreadSanitized) GTEST_SKIP() << "with the sanitizer's signal() the signal ends the read";
  const Fifo fifo(Directory() / "c.yaml");
  Program program(Recorded(With({"c.yaml"})));
  ASSERT_TRUE(fifo.Feed("logLevel: 5\n"));
  ASSERT_TRUE(program.WaitForError("QetInitialize success"));
  const int held = fifo.WaitForReader();
  ASSERT_GE(held, 0);
  program.Signal(SIGINT);
  ASSERT_TRUE(program.WaitForError("SignalHandler() | "));
  close(held);  // the program reads an empty file
  const Ending ending = program.Wait();
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.output, "") << "no rate line";
  EXPECT_THAT(Texts(LogFile()), ElementsAre("INFO Init() | QetInitialize success", kSignal));
  EXPECT_THAT(Calls(), ElementsAre("QetInitialize", "SignalHandler", "QetRelease"));
}

TEST_F(Signals, SigintDuringThePlatformsStartSkipsTheRunButNotTheRelease) {
  Launch launch = Recorded(Configured("logLevel: 5\nCPU: {Level: 10}\nVPC: {Level: 1}\n"));
  launch.environment["RAISE_SIGINT_IN_INITIALIZE"] = "1";
  const Ending ending = Run(launch);
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.output, "") << "no rate line";
  EXPECT_THAT(Texts(LogFile()), ElementsAre(kSignal, "INFO Init() | QetInitialize success"));
  EXPECT_THAT(Calls(), ElementsAre("QetInitialize", "SignalHandler", "QetRelease"));
}

TEST_F(Signals, SigintDuringAnInitThatFailsDoesNotChangeTheStatus) {
  Launch launch = Recorded(Configured("logLevel: 5\nCPU: {Level: 11}\n"));
  launch.environment["RAISE_SIGINT_IN_INITIALIZE"] = "1";
  const Ending ending = Run(launch);
  EXPECT_THAT(ending, Exited(255));
  EXPECT_EQ(ending.output, "");
  EXPECT_THAT(Texts(LogFile()), ElementsAre(kSignal, "INFO Init() | QetInitialize success",
                                            "ERROR Parse() | cpu stress level:[0, 10], now is : 11",
                                            "ERROR Init() | Stress benchamrk parse failed"));
  EXPECT_THAT(Calls(), ElementsAre("QetInitialize", "SignalHandler")) << "a failed Init is not released";
}

TEST_F(Signals, ARefusedConfigurationIsNotReleased) {
  EXPECT_THAT(Run(Recorded(Configured("CPU: {Level: 11}\n"))), Exited(255));
  EXPECT_THAT(Calls(), ElementsAre("QetInitialize"));
}

TEST_F(Signals, SigintDuringTheRunPrintsTheLastLineAndReleases) {
  Program program(Recorded(Configured("logLevel: 5\nCPU: {Level: 2}\nVPC: {Level: 1}\n")));
  ASSERT_TRUE(program.ReadLine().has_value());
  ASSERT_TRUE(program.ReadLine().has_value());
  // Sent during the reporter's sleep, so that its last line still follows.
  program.RunFor(std::chrono::milliseconds(300));
  program.Signal(SIGINT);
  const Ending ending = program.Wait();
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(ending.OutputLines(), SizeIs(testing::Ge(3U)));
  ExpectRateLines(ending.OutputLines(), {"cpuStress", "kivuVpcStress"});
  EXPECT_EQ(Count(Texts(LogFile()), kSignal), 1);
  EXPECT_THAT(Calls(), ElementsAre("QetInitialize", "SignalHandler", "QetRelease"));
}

TEST_F(Signals, ASecondSigintIsLoggedAgain) {
  // Otherwise the program might have ended before the second one.
  Launch launch = Recorded(Configured("logLevel: 5\nCPU: {Level: 1}\n"));
  launch.environment["HOLD_RELEASE"] = "go";
  Program program(launch);
  ASSERT_TRUE(program.ReadLine().has_value());
  for (int i = 0; i < 2; ++i) {
    program.Signal(SIGINT);
    ASSERT_TRUE(program.WaitForError("stopFlag_: 1 =====")) << program.Wait(std::chrono::seconds(0));
  }
  Write("go", "");
  const Ending ending = program.Wait();
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(Count(Texts(LogFile()), kSignal), 2);
}

TEST_F(Signals, BelowDebugLevelSigintLeavesNoRecord) {
  const Ending ending = RunLines(Configured("CPU: {Level: 1}\n"));
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(ending.error, Not(HasSubstr("Signal")));
  EXPECT_THAT(Read("log/STBM.log"), Not(HasSubstr("Signal")));
}

// The system joins equal pending signals to one. Without pauses most of these arrive while the handler runs
// or before it has started.
TEST_F(Signals, ThreeHundredSigintsInARowEndTheRunOfTenWorkers) {
  Program program(Recorded(Configured("logLevel: 5\nCPU: {Level: 10}\n")));
  ASSERT_TRUE(program.ReadLine().has_value());
  for (int i = 0; i < kSigints; ++i) program.Signal(SIGINT);
  ExpectEachLogged(program.Wait());
  ExpectRateLines(program.Wait().OutputLines(), {"cpuStress"});
}

TEST_F(Signals, ThreeHundredSigintsOneByOneEndTheRunOfTenWorkers) {
  Program program(Recorded(Configured("logLevel: 5\nCPU: {Level: 10}\n")));
  ASSERT_TRUE(program.ReadLine().has_value());
  for (int i = 0; i < kSigints; ++i) {
    program.Signal(SIGINT);
    program.RunFor(std::chrono::milliseconds(1));
  }
  ExpectEachLogged(program.Wait());
  ExpectRateLines(program.Wait().OutputLines(), {"cpuStress"});
}

TEST_F(Signals, ThreeHundredSigintsMeetTenWorkersThatLog) {
  Program program(Recorded(Configured("logLevel: 5\nCPU: {Level: 10}\nAIC: {Level: 10, File: none.onnx}\n")));
  ASSERT_TRUE(program.WaitForError("stressName : "));
  for (int i = 0; i < kSigints; ++i) {
    program.Signal(SIGINT);
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
  ExpectEachLogged(program.Wait());
  const std::vector<std::string> texts = Texts(LogFile(), "");
  for (const char* text :
       {"ERROR QetDNNModelInitialize: cannot read model none.onnx: No such file or directory",
        "ERROR AICoreInit() | [AicoreStress] Init dnn model failed!",
        "ERROR AICoreRelease() | [AicoreStress] NNProcessPipeline QetDNNRelease failed.",
        "ERROR AICoreStressNode() | [AicoreStress] AICore stress node initialize failed."}) {
    EXPECT_EQ(Count(texts, text), 10) << text;
  }
}

TEST_F(Signals, SigtermIsNotHandled) {
  Program program(Configured("logLevel: 5\nCPU: {Level: 1}\n"));
  ASSERT_TRUE(program.ReadLine().has_value());
  program.Signal(SIGTERM);
  const Ending ending = program.Wait();
  EXPECT_THAT(ending, KilledBy(SIGTERM));
  EXPECT_THAT(ending.error, Not(HasSubstr("Signal")));
}

}  // namespace
