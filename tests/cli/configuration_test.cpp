// SPDX-License-Identifier: Apache-2.0

// Each fault of a configuration: the exit status, the exact log line, and that nothing runs.

#include "fifo.h"
#include "program_test.h"

namespace {

class Configuration : public ProgramTest {
 protected:
  /// Expects that the program has ended with -1 before any stress, and that the log says nothing but `faults`
  /// between the platform's start and the end, beside the platform's own record of its settings.
  void ExpectRefused(const Ending& ending, std::vector<std::string> faults) const {
    EXPECT_THAT(ending, Exited(255));
    EXPECT_EQ(ending.output, "") << "no rate line";
    faults.insert(faults.begin(), "INFO Init() | QetInitialize success");
    faults.emplace_back("ERROR Init() | Stress benchamrk parse failed");
    for (const std::vector<LogRecord>& log : {LogFile(), ParseLog(ending.error)}) {
      EXPECT_EQ(Texts(log), faults);
      EXPECT_THAT(Texts(log, "QET"), ElementsAre(testing::StartsWith("INFO QetInitialize: settings: ")));
    }
    EXPECT_THAT(Files(), ElementsAre("c.yaml", "log", "log/STBM.log"));
  }
  void ExpectRefused(const std::string& configuration, const std::string& fault) const {
    ExpectRefused(Run(Configured(configuration)), {"ERROR " + fault});
  }
};

TEST_F(Configuration, Level11OfVpcIsRefused) {
  ExpectRefused("VPC: {Level: 11}\n", "Parse() |  vpc stress level:[0, 10], now is : 11");
}

TEST_F(Configuration, Level11OfVencIsRefused) {
  ExpectRefused("VENC: {Level: 11}\n", "Parse() | venc stress level:[0, 10], now is : 11");
}

TEST_F(Configuration, Level11OfCpuIsRefused) {
  ExpectRefused("CPU: {Level: 11}\n", "Parse() | cpu stress level:[0, 10], now is : 11");
}

TEST_F(Configuration, Level11OfAicIsRefused) {
  ExpectRefused("AIC: {Level: 11, File: m.onnx}\n", "Parse() | aic stress level:[0, 10], now is : 11");
}

TEST_F(Configuration, ALargeLevelIsReportedUnchanged) {
  ExpectRefused("CPU: {Level: 0x10000}\n", "Parse() | cpu stress level:[0, 10], now is : 65536");
}

// The slots for the rates are allocated before the range is checked. When there is no memory for them, that
// is reported.
TEST_F(Configuration, ALevelThatNeedsTooMuchMemoryIsReportedAsAnException) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer needs the address space itself";
  Launch launch = Configured("CPU: {Level: 4294967295}\n");
  launch.limits[RLIMIT_AS] = rlim_t{4} << 30;
  ExpectRefused(Run(launch), {"ERROR Load() | Load c.yaml happen error, the message is: std::bad_alloc"});
}

TEST_F(Configuration, AMissingLevelIsReportedForEachSection) {
  for (const std::string section : {"VPC", "VENC", "CPU", "AIC"}) {
    SCOPED_TRACE(section);
    std::filesystem::remove_all(Directory() / "log");
    ExpectRefused(section + ": {File: m.onnx, level: 1}\n",
                  "Parse() | Cannot find " + section + ": Level in Config File!");
  }
}

TEST_F(Configuration, ALevelThatIsNotANumberIsReportedAsMissing) {
  for (const std::string level : {"high", "-1", "1.5", "4294967296", "~", "[1]", "{Level: 1}", "''", "1e1"}) {
    SCOPED_TRACE(level);
    std::filesystem::remove_all(Directory() / "log");
    ExpectRefused("VENC: {Level: " + level + "}\n", "Parse() | Cannot find VENC: Level in Config File!");
  }
}

TEST_F(Configuration, LevelOfASectionThatIsNotAMappingIsReportedAsMissing) {
  for (const std::string section : {"", "1", "[Level, 1]"}) {
    SCOPED_TRACE(section);
    std::filesystem::remove_all(Directory() / "log");
    ExpectRefused("CPU: " + section + "\n", "Parse() | Cannot find CPU: Level in Config File!");
  }
}

TEST_F(Configuration, AicWithoutFileIsRefused) {
  ExpectRefused("AIC: {Level: 1}\n", "Parse() | Cannot find AIC: File in Config File!");
}

TEST_F(Configuration, AicWithoutFileIsRefusedBeforeItsLevelIsChecked) {
  ExpectRefused("AIC: {Level: 11}\n", "Parse() | Cannot find AIC: File in Config File!");
}

TEST_F(Configuration, OnlyTheFirstFaultInTheOrderOfSectionsIsReported) {
  ExpectRefused("AIC: {}\nCPU: {Level: 12}\nVENC: {Level: 13}\nVPC: {}\n",
                "Parse() | Cannot find VPC: Level in Config File!");
}

TEST_F(Configuration, SectionsBeforeAFaultStartNoWorkers) {
  ExpectRefused("VPC: {Level: 1}\nCPU: {Level: 11}\n", "Parse() | cpu stress level:[0, 10], now is : 11");
}

TEST_F(Configuration, UnknownKeysAreIgnoredAndKeysAreCaseSensitive) {
  const Ending ending =
      RunLines(Configured("cpu: {Level: 11}\nGPU: {Level: 11}\nCPU: {Level: 0, Sleep: x}\n"));
  EXPECT_THAT(ending, Exited(0));
  ExpectRateLines(ending.OutputLines(), {"cpuStress"});
}

// The file is read again for the sections. When it has been damaged meanwhile, the program does not abort:
// the fault is logged.
TEST_F(Configuration, AFileThatIsDamagedBeforeTheSecondReadIsReported) {
  const Fifo fifo(Directory() / "c.yaml");
  Program program(With({"c.yaml"}));
  ASSERT_TRUE(fifo.Feed("logLevel: 4\n"));
  ASSERT_TRUE(program.WaitForError("QetInitialize success"));
  ASSERT_TRUE(fifo.Feed("CPU: }\n"));
  const Ending ending = program.Wait();
  EXPECT_THAT(ending, Exited(255));
  EXPECT_EQ(ending.output, "");
  EXPECT_THAT(
      Texts(LogFile()),
      ElementsAre("INFO Init() | QetInitialize success",
                  AllOf(testing::StartsWith("ERROR Load() | Load c.yaml happen error, the message is: "
                                            "c.yaml:1:6: "),
                        HasSubstr("did not find expected node content")),
                  "ERROR Init() | Stress benchamrk parse failed"));
}

TEST_F(Configuration, RunTimesBelow40IsRaisedWithAWarning) {
  const Ending ending = RunLines(Configured("runTimes: 10\n"));
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(
      Texts(LogFile()),
      ElementsAre("WARN Init() | RunTimes should be larger 40 , now is: 10. runTimes will be set to 40",
                  "INFO Init() | QetInitialize success"));
}

TEST_F(Configuration, RunTimesThatIsNotANumberIsReadAsZero) {
  const Ending ending = RunLines(Configured("runTimes: long\n"));
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(Texts(LogFile()),
              Contains("WARN Init() | RunTimes should be larger 40 , now is: 0. runTimes will be set to 40"));
}

TEST_F(Configuration, RunTimesOf40NeedsNoWarning) {
  const Ending ending = RunLines(Configured("runTimes: 40\n"));
  EXPECT_THAT(ending, Exited(0));
  EXPECT_THAT(Texts(LogFile()), ElementsAre("INFO Init() | QetInitialize success"));
}

}  // namespace
