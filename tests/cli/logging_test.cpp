// SPDX-License-Identifier: Apache-2.0

// Where the log goes and which records it has: "logMode" and "logLevel" in the whole program.

#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include "program_test.h"

namespace {

class Logging : public ProgramTest {
 protected:
  /// Runs the program until its first rate line. The log gets a warning and records at info level; the signal
  /// that ends the run is logged at debug level.
  Ending RunWith(const std::string& settings) const {
    return RunLines(Configured(settings + "\nrunTimes: 39\nCPU: {Level: 0}\n"));
  }
};

constexpr char kWarning[] =
    "WARN Init() | RunTimes should be larger 40 , now is: 39. runTimes will be set to 40";
constexpr char kInitialized[] = "INFO Init() | QetInitialize success";
constexpr char kStressName[] = "INFO Start() | stressName : cpuStress";
constexpr char kStarted[] = "INFO runCpuStress() | CPU threadNum: 0 , memcpy Process start...";

TEST_F(Logging, WithoutSettingsGoesToFileAndConsoleAtInfoLevel) {
  const Ending ending = RunWith("");
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(Texts(LogFile()), ElementsAre(kWarning, kInitialized, kStressName, kStarted));
  EXPECT_EQ(Read("log/STBM.log"), ending.error);
  for (const LogRecord& record : LogFile()) {
    EXPECT_EQ(record.application, "STBM");
    const bool isOfPlatform = record.text.rfind("QetInitialize: settings: ", 0) == 0;
    EXPECT_EQ(record.context, isOfPlatform ? "QET" : "STBM")
        << "no record has the context that is used before the start-up";
    EXPECT_EQ(record.location, "");
  }
}

TEST_F(Logging, Mode2WritesOnlyTheFile) {
  const Ending ending = RunWith("logMode: 2");
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.error, "");
  EXPECT_THAT(Texts(LogFile()), ElementsAre(kWarning, kInitialized, kStressName, kStarted));
}

TEST_F(Logging, Mode4WritesOnlyTheConsole) {
  const Ending ending = RunWith("logMode: 4");
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(Texts(ParseLog(ending.error)), ElementsAre(kWarning, kInitialized, kStressName, kStarted));
  EXPECT_THAT(Files(), ElementsAre("c.yaml"));
}

TEST_F(Logging, Mode0WritesNothing) {
  const Ending ending = RunWith("logMode: 0");
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.error, "");
  EXPECT_THAT(Files(), ElementsAre("c.yaml"));
  ExpectRateLines(ending.OutputLines(), {"cpuStress"});
}

TEST_F(Logging, AModeThatIsNotANumberIsReadAsZero) {
  const Ending ending = RunWith("logMode: file");
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.error, "");
  EXPECT_THAT(Files(), ElementsAre("c.yaml"));
}

TEST_F(Logging, UnknownBitsOfTheModeAreIgnored) {
  const Ending ending = RunWith("logMode: 4294967290");  // all bits but 1 and 4
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.error, "");
  EXPECT_THAT(Texts(LogFile()), ElementsAre(kWarning, kInitialized, kStressName, kStarted));
}

TEST_F(Logging, Levels0And1WriteNoRecord) {
  for (const std::string level : {"0", "1", "none"}) {
    SCOPED_TRACE(level);
    const Ending ending = RunWith("logLevel: " + level);
    EXPECT_THAT(ending, Exited(0));
    EXPECT_EQ(ending.error, "");
    EXPECT_EQ(Read("log/STBM.log"), "");
  }
}

TEST_F(Logging, Level2WritesOnlyErrors) {
  EXPECT_THAT(RunWith("logLevel: 2"), Exited(0));
  EXPECT_EQ(Read("log/STBM.log"), "");
  EXPECT_THAT(Run(Configured("logLevel: 2\nrunTimes: 1\nCPU: {Level: 11}\n")), Exited(255));
  EXPECT_THAT(Texts(LogFile()), ElementsAre("ERROR Parse() | cpu stress level:[0, 10], now is : 11",
                                            "ERROR Init() | Stress benchamrk parse failed"));
}

TEST_F(Logging, Level3AddsWarnings) {
  EXPECT_THAT(RunWith("logLevel: 3"), Exited(0));
  EXPECT_THAT(Texts(LogFile()), ElementsAre(kWarning));
}

TEST_F(Logging, Level5AddsTheSignalAndTheSourceOfEachRecord) {
  EXPECT_THAT(RunWith("logLevel: 5"), Exited(0));
  const std::vector<LogRecord> records = LogFile();
  EXPECT_THAT(Texts(records), ElementsAre(kWarning, kInitialized, kStressName, kStarted, kSignal));
  std::vector<std::string> locations;
  for (const LogRecord& record : records) {
    if (record.context != "QET") locations.push_back(record.location);
  }
  // The path inside the project, which does not depend on where it was built.
  EXPECT_THAT(
      locations,
      ElementsAre(testing::MatchesRegex("stress_benchmark/src/stress_bencmark\\.cpp:[0-9]+ Init"),
                  testing::MatchesRegex("stress_benchmark/src/stress_bencmark\\.cpp:[0-9]+ Init"),
                  testing::MatchesRegex("stress_benchmark/src/stress_bencmark\\.cpp:[0-9]+ Start"),
                  testing::MatchesRegex("stress_benchmark/src/cpu_stress\\.cpp:[0-9]+ runCpuStress"),
                  testing::MatchesRegex("stress_benchmark/src/stress_bencmark\\.cpp:[0-9]+ SignalHandler")));
}

TEST_F(Logging, ALevelAboveTheHighestActsAsTheHighest) {
  const Ending ending = RunWith("logLevel: 99");
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(Texts(LogFile()), ElementsAre(kWarning, kInitialized, kStressName, kStarted, kSignal));
}

TEST_F(Logging, ARefusedConfigurationHasItsStatusAtLevel0Too) {
  const Ending ending = Run(Configured("logLevel: 0\nCPU: {Level: 11}\n"));
  EXPECT_THAT(ending, Exited(255));
  EXPECT_EQ(ending.error, "");
  EXPECT_EQ(ending.output, "");
}

TEST_F(Logging, ASecondRunAppendsToTheFile) {
  EXPECT_THAT(RunWith("logLevel: 3"), Exited(0));
  EXPECT_THAT(RunWith("logLevel: 3"), Exited(0));
  EXPECT_THAT(Texts(LogFile()), ElementsAre(kWarning, kWarning));
}

TEST_F(Logging, AFileInPlaceOfTheFolderIsReportedOnceAndChangesNothingElse) {
  Write("log", "not a folder\n");
  const Ending ending = RunWith("logMode: 2");
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.error, "ara::log: cannot make folder ./log: File exists\n");
  ExpectRateLines(ending.OutputLines(), {"cpuStress"});
  EXPECT_EQ(Read("log"), "not a folder\n");
}

TEST_F(Logging, AFolderThatMayNotBeWrittenIsReportedOnceAndChangesNothingElse) {
  Launch launch = Configured("logMode: 2\nCPU: {Level: 0}\n");
  if (geteuid() != 0) {
    std::filesystem::permissions(Directory(), std::filesystem::perms::owner_write,
                                 std::filesystem::perm_options::remove);
  } else if (!RunAsAnother(launch)) {
    GTEST_SKIP() << "root writes everywhere, and no other user can start the program here";
  }
  const Ending ending = RunLines(launch, 2);
  std::filesystem::permissions(Directory(), std::filesystem::perms::owner_write,
                               std::filesystem::perm_options::add);
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.error, "ara::log: cannot make folder ./log: Permission denied\n");
  ExpectRateLines(ending.OutputLines(), {"cpuStress"});
  EXPECT_THAT(Files(), ElementsAre("c.yaml"));
}

// Such a write raises a signal whose default action ends the process.
TEST_F(Logging, AFileThatReachesItsLargestSizeChangesNothingElse) {
  if (kThreadSanitized) GTEST_SKIP() << "ThreadSanitizer needs files that may grow when it starts";
  for (const rlim_t limit : {0U, 300U}) {
    SCOPED_TRACE(limit);
    std::filesystem::remove_all(Directory() / "log");
    Launch launch = Configured("logLevel: 5\nCPU: {Level: 1}\n");
    launch.limits[RLIMIT_FSIZE] = limit;
    const Ending ending = RunLines(launch, 2);
    EXPECT_THAT(ending, Exited(0));
    EXPECT_THAT(ending.OutputLines(), SizeIs(testing::Ge(2U)));
    EXPECT_THAT(ending.ErrorLines(),
                Contains(AllOf(testing::StartsWith("ara::log: cannot write ./log/STBM.log: "),
                               AnyOf(HasSubstr("File too large"), HasSubstr("it took a line in part"))))
                    .Times(1));
    EXPECT_THAT(ending.error, HasSubstr("SignalHandler() | "));
    EXPECT_LE(Read("log/STBM.log").size(), limit);
  }
}

TEST_F(Logging, ThatSignalFromElsewhereStillEndsTheProgram) {
  if (kThreadSanitized) GTEST_SKIP() << "ThreadSanitizer needs files that may grow when it starts";
  Launch launch = Configured("CPU: {Level: 1}\n");
  launch.limits[RLIMIT_FSIZE] = 0;
  Program program(launch);
  ASSERT_TRUE(program.ReadLine().has_value());
  program.Signal(SIGXFSZ);
  EXPECT_THAT(program.Wait(), KilledBy(SIGXFSZ));
}

TEST_F(Logging, WhenTheFileCannotBeOpenedTheConsoleStillWorks) {
  std::filesystem::create_directories(Directory() / "log/STBM.log");
  const Ending ending = RunWith("");
  EXPECT_THAT(ending, Exited(0));
  std::vector<std::string> lines = ending.ErrorLines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.front(), "ara::log: cannot open ./log/STBM.log: Is a directory");
  lines.erase(lines.begin());
  std::string records;
  for (const std::string& line : lines) records += line + "\n";
  EXPECT_THAT(Texts(ParseLog(records)), ElementsAre(kWarning, kInitialized, kStressName, kStarted));
}

TEST_F(Logging, WithoutStandardErrorOnlyTheLogFileIsWritten) {
  Launch launch = Configured("CPU: {Level: 0}\n");
  launch.standardError = false;
  EXPECT_THAT(RunLines(launch), Exited(0));
  EXPECT_THAT(Texts(LogFile()), ElementsAre(kInitialized, kStressName, kStarted));
  EXPECT_EQ(Read("c.yaml"), "CPU: {Level: 0}\n");
}

}  // namespace
