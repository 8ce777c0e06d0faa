// SPDX-License-Identifier: Apache-2.0

// Standard output: one rate line a second and nothing else.

#include <csignal>

#include "program_test.h"

namespace {

class Output : public ProgramTest {};

constexpr char kEveryStress[] =
    "VPC: {Level: 0}\nVENC: {Level: 0}\nCPU: {Level: 0}\nAIC: {Level: 0, File: none.onnx}\n";

TEST_F(Output, WithoutSectionsEachLineIsOnlyTheConstantText) {
  const Ending ending = RunLines(Configured("runTimes: 40\n"), 3);
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(ending.OutputLines(), AllOf(SizeIs(testing::Ge(3U)), Each("ispStress : 30.0 fps.")));
}

TEST_F(Output, EveryConfiguredStressIsOnEveryLine) {
  const Ending ending = RunLines(Configured(kEveryStress), 2);
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(ending.OutputLines(), SizeIs(testing::Ge(2U)));
  ExpectRateLines(ending.OutputLines(), {"kivuVpcStress", "kivuVencStress", "cpuStress", "aicStress"});
}

TEST_F(Output, AStressOfLevelZeroShowsZeroAndLogsItsStart) {
  const Ending ending = RunLines(Configured(kEveryStress), 3);
  EXPECT_THAT(ending, Exited(0));
  for (const std::string& line : ending.OutputLines()) {
    for (const auto& [name, rate] : Rates(line)) EXPECT_EQ(rate, "0.000000") << name;
  }
  EXPECT_THAT(
      Texts(LogFile()),
      UnorderedElementsAre("INFO Init() | QetInitialize success", "INFO Start() | stressName : kivuVpcStress",
                           "INFO runVpcStress() | KIVU VPC threadNum: 0 , resize Process start...",
                           "INFO Start() | stressName : kivuVencStress",
                           "INFO runVencStress() | KIVU VENC threadNum: 0 , venc Process start...",
                           "INFO Start() | stressName : cpuStress",
                           "INFO runCpuStress() | CPU threadNum: 0 , memcpy Process start...",
                           "INFO Start() | stressName : aicStress",
                           "INFO runAicStress() | Aicore threadNum: 0 , Aicore Process start..."));
}

// Standard output is a pipe here. Without a flush nothing would arrive before the program ends.
TEST_F(Output, LinesArriveAsTheyAreWrittenOneASecond) {
  Program program(Configured("CPU: {Level: 1}\n"));
  for (int line = 1; line <= 4; ++line) {
    ASSERT_TRUE(program.ReadLine().has_value());
    EXPECT_GE(program.Seconds(), line) << "the lines come at least one second apart";
    EXPECT_TRUE(program.Running());
  }
  program.Signal(SIGINT);
  EXPECT_THAT(program.Wait(), Exited(0));
}

TEST_F(Output, HasOnlyRateLinesWhileEverythingIsLogged) {
  const Ending ending =
      RunLines(Configured("logMode: 7\nlogLevel: 6\nrunTimes: 1\nVPC: {Level: 1}\nVENC: {Level: 1}\n"
                          "CPU: {Level: 1}\nAIC: {Level: 1, File: none.onnx}\n"),
               3);
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(ending.error, HasSubstr("SignalHandler() | "));
  ExpectRateLines(ending.OutputLines(), {"kivuVpcStress", "kivuVencStress", "cpuStress", "aicStress"});
  EXPECT_EQ(ending.output.back(), '\n');
}

TEST_F(Output, ProgramRunsWithoutIt) {
  Launch launch = Configured("logLevel: 5\nCPU: {Level: 1}\nVENC: {Level: 1}\n");
  launch.standardOutput = Launch::Output::kClosed;
  Program program(launch);
  ASSERT_TRUE(program.WaitForError("runCpuStress() | "));
  program.RunFor(std::chrono::milliseconds(2500));
  EXPECT_TRUE(program.Running());
  program.Signal(SIGINT);
  const Ending ending = program.Wait();
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(ending.error, Not(HasSubstr(" fps")));
  EXPECT_EQ(Read("log/STBM.log"), ending.error) << "no rates in the log file, even if it has descriptor 1";
  EXPECT_EQ(Read("c.yaml"), "logLevel: 5\nCPU: {Level: 1}\nVENC: {Level: 1}\n");
}

TEST_F(Output, ProgramRunsWhenItTakesNothing) {
  Launch launch = Configured("CPU: {Level: 1}\n");
  launch.standardOutput = Launch::Output::kFull;
  Program program(launch);
  ASSERT_TRUE(program.WaitForError("runCpuStress() | "));
  program.RunFor(std::chrono::milliseconds(2500));
  EXPECT_TRUE(program.Running());
  program.Signal(SIGINT);
  EXPECT_THAT(program.Wait(), Exited(0));
}

// The program changes only SIGINT. So SIGPIPE ends it when its reader has gone, as it ends most programs.
TEST_F(Output, ProgramEndsAtTheFirstLineWhenItsReaderHasGone) {
  Launch launch = Configured("");
  launch.standardOutput = Launch::Output::kUnwanted;
  EXPECT_THAT(Run(launch), KilledBy(SIGPIPE));
}

// A reader that does not read delays only the rate lines: the workers run on and end at SIGINT. The program
// ends when its last line has been read.
TEST_F(Output, ReaderThatDoesNotReadDelaysOnlyTheLines) {
  if (kThreadSanitized) GTEST_SKIP() << "with the sanitizer's signal() the signal ends the write";
  Launch launch = Configured("logLevel: 5\nCPU: {Level: 2}\n");
  launch.standardOutput = Launch::Output::kHeldUp;
  Program program(launch);
  ASSERT_TRUE(program.WaitForError("runCpuStress() | "));
  program.RunFor(std::chrono::milliseconds(2500));
  const int threads = program.ThreadCount();
  program.Signal(SIGINT);
  ASSERT_TRUE(program.WaitForError("SignalHandler() | "));
  while (program.ThreadCount() > threads - 2 && program.Seconds() < 60) {
    program.RunFor(std::chrono::milliseconds(100));
  }
  EXPECT_LE(program.ThreadCount(), threads - 2) << "the workers have ended";
  program.RunFor(std::chrono::milliseconds(2000));
  EXPECT_TRUE(program.Running()) << "it still has a line to write";
  program.TakeOutput();
  const Ending ending = program.Wait();
  EXPECT_THAT(ending, Exited(0));
  ASSERT_EQ(ending.output.compare(0, Program::kFilling.size(), Program::kFilling), 0);
  ExpectRateLines(SplitLines(std::string_view(ending.output).substr(Program::kFilling.size())),
                  {"cpuStress"});
}

}  // namespace
