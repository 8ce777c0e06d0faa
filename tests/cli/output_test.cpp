// Standard output: one rate line a second and nothing else, whatever else is going on.

#include <csignal>

#include "program_test.h"

namespace {

class Output : public ProgramTest {};

constexpr char kEveryStress[] =
    "VPC: {Level: 0}\nVENC: {Level: 0}\nCPU: {Level: 0}\nAIC: {Level: 0, File: none.onnx}\n";

TEST_F(Output, WithoutSectionsEachLineIsTheConstantAlone) {
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

// Standard output is a pipe here: without a flush nothing would arrive before the end.
TEST_F(Output, LinesArriveAsTheyAreWrittenOneASecond) {
  Program program(Configured("CPU: {Level: 1}\n"));
  for (int line = 1; line <= 4; ++line) {
    ASSERT_TRUE(program.ReadLine().has_value());
    EXPECT_GE(program.Seconds(), line) << "each comes after a second of its own";
    EXPECT_TRUE(program.Running());
  }
  program.Signal(SIGINT);
  EXPECT_THAT(program.Wait(), Exited(0));
}

TEST_F(Output, CarriesRateLinesAloneWhileEverythingIsLogged) {
  const Ending ending =
      RunLines(Configured("logMode: 7\nlogLevel: 6\nrunTimes: 1\nVPC: {Level: 1}\nVENC: {Level: 1}\n"
                          "CPU: {Level: 1}\nAIC: {Level: 1, File: none.onnx}\n"),
               3);
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(ending.error, HasSubstr("SignalHandler() | "));
  ExpectRateLines(ending.OutputLines(), {"kivuVpcStress", "kivuVencStress", "cpuStress", "aicStress"});
  EXPECT_EQ(ending.output.back(), '\n');
}

TEST_F(Output, MissingAtTheStartChangesNothingElse) {
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
  EXPECT_EQ(Read("log/STBM.log"), ending.error) << "rates must not end up in a file that took the number 1";
  EXPECT_EQ(Read("c.yaml"), "logLevel: 5\nCPU: {Level: 1}\nVENC: {Level: 1}\n");
}

TEST_F(Output, ThatTakesNothingChangesNothingElse) {
  Launch launch = Configured("CPU: {Level: 1}\n");
  launch.standardOutput = Launch::Output::kFull;
  Program program(launch);
  ASSERT_TRUE(program.WaitForError("runCpuStress() | "));
  program.RunFor(std::chrono::milliseconds(2500));
  EXPECT_TRUE(program.Running());
  program.Signal(SIGINT);
  EXPECT_THAT(program.Wait(), Exited(0));
}

// SIGINT is the only signal that the program changes: a reader who leaves ends it, as it ends any filter.
TEST_F(Output, WhoseReaderHasGoneEndsTheProgramAtTheFirstLine) {
  Launch launch = Configured("");
  launch.standardOutput = Launch::Output::kUnwanted;
  EXPECT_THAT(Run(launch), KilledBy(SIGPIPE));
}

// A reader who does not read holds up the rate lines alone: the workers go on, and end at SIGINT. The program
// itself ends when the line that it was writing has been taken.
TEST_F(Output, ThatNobodyReadsHoldsUpTheLinesAlone) {
  if (kThreadSanitized) GTEST_SKIP() << "the sanitizer's signal() lets the signal break off the write";
  Launch launch = Configured("logLevel: 5\nCPU: {Level: 2}\n");
  launch.standardOutput = Launch::Output::kHeldUp;
  Program program(launch);
  ASSERT_TRUE(program.WaitForError("runCpuStress() | "));
  program.RunFor(std::chrono::milliseconds(2500));
  const int threads = program.ThreadCount();
  program.Signal(SIGINT);
  ASSERT_TRUE(program.WaitForError("SignalHandler() | "));
  program.RunFor(std::chrono::milliseconds(2500));
  EXPECT_TRUE(program.Running()) << "the line is not lost";
  EXPECT_LE(program.ThreadCount(), threads - 2) << "the workers have ended";
  program.TakeOutput();
  const Ending ending = program.Wait();
  EXPECT_THAT(ending, Exited(0));
  ASSERT_EQ(ending.output.compare(0, Program::kFilling.size(), Program::kFilling), 0);
  ExpectRateLines(SplitLines(std::string_view(ending.output).substr(Program::kFilling.size())),
                  {"cpuStress"});
}

}  // namespace
