// SPDX-License-Identifier: Apache-2.0
#include "faults.h"
#include "fixture.h"
#include "stress_bencmark.h"
#include "temporary_file.h"

namespace {

class ParseTest : public UnitTest {
 protected:
  int Parse(const std::string& yaml) {
    const TemporaryFile file(yaml);
    benchmark_.configPath = file.Path();
    return benchmark_.Parse();
  }

  const vorn::StressRegister& Record(const char* name) { return *benchmark_.stressMap.at(name); }

  StressBenchmark benchmark_{"unset"};
};

TEST_F(ParseTest, NoSections) {
  EXPECT_EQ(Parse("runTimes: 40\nother: [1, 2]\n"), 0);
  EXPECT_TRUE(benchmark_.stressMap.empty());
  EXPECT_THAT(fakeLog::Records(), IsEmpty());
}

TEST_F(ParseTest, AllSections) {
  EXPECT_EQ(Parse("VPC: {Level: 1}\nVENC: {Level: 2}\nCPU: {Level: 3}\nAIC: {Level: 4, File: m.onnx}\n"), 0);
  ASSERT_EQ(benchmark_.stressMap.size(), 4U);
  struct Expected {
    const char* name;
    std::uint32_t threads, sleepUs;
    const char* file;
  };
  for (const Expected e : {Expected{"kivuVpcStress", 1, 100, ""}, Expected{"kivuVencStress", 2, 100, ""},
                           Expected{"cpuStress", 3, 1000, ""}, Expected{"aicStress", 4, 1000, "m.onnx"}}) {
    EXPECT_EQ(Record(e.name).threadNum, e.threads) << e.name;
    EXPECT_EQ(Record(e.name).sleepUs, e.sleepUs) << e.name;
    EXPECT_EQ(Record(e.name).file, e.file) << e.name;
    EXPECT_EQ(Record(e.name).averageFps, 0.0) << e.name;
    EXPECT_EQ(Record(e.name).threadFps, std::vector<double>(e.threads, 0.0)) << e.name;
  }
}

TEST_F(ParseTest, LevelZeroIsAccepted) {
  EXPECT_EQ(Parse("CPU: {Level: 0}\n"), 0);
  EXPECT_EQ(Record("cpuStress").threadNum, 0U);
  EXPECT_THAT(Record("cpuStress").threadFps, IsEmpty());
}

TEST_F(ParseTest, LevelTenIsAccepted) {
  EXPECT_EQ(Parse("CPU: {Level: 10}\n"), 0);
  EXPECT_EQ(Record("cpuStress").threadFps.size(), 10U);
}

TEST_F(ParseTest, LevelElevenIsLoggedWithTheSectionsTextAndTheRecordStays) {
  struct Case {
    const char* yaml;
    const char* name;
    const char* message;
  };
  for (const Case c :
       {Case{"VPC: {Level: 11}", "kivuVpcStress", " vpc stress level:[0, 10], now is : 11"},
        Case{"VENC: {Level: 11}", "kivuVencStress", "venc stress level:[0, 10], now is : 11"},
        Case{"CPU: {Level: 11}", "cpuStress", "cpu stress level:[0, 10], now is : 11"},
        Case{"AIC: {Level: 11, File: m}", "aicStress", "aic stress level:[0, 10], now is : 11"}}) {
    fakeLog::Reset();
    benchmark_.stressMap.clear();
    EXPECT_EQ(Parse(c.yaml), 10);
    EXPECT_THAT(Errors(), ElementsAre(std::string("Parse() | ") + c.message));
    EXPECT_EQ(Record(c.name).threadNum, 11U);
    EXPECT_EQ(Record(c.name).threadFps.size(), 11U) << "resized before the range is checked";
    EXPECT_NE(Record(c.name).sleepUs, 0U) << "set before the range is checked";
    const fakeLog::Record record = fakeLog::Records()[0];
    EXPECT_EQ(std::string(record.kinds.begin(), record.kinds.end()), "vccu");
  }
}

TEST_F(ParseTest, MissingLevelStopsAtThatSection) {
  EXPECT_EQ(Parse("AIC: {Level: 11}\nCPU: {Level: 11}\nVENC: {}\nVPC: {level: 3}\n"), 10);
  EXPECT_THAT(Errors(), ElementsAre("Parse() | Cannot find VPC: Level in Config File!"));
  EXPECT_EQ(benchmark_.stressMap.size(), 1U);
  EXPECT_EQ(Record("kivuVpcStress").threadNum, 1U);
  EXPECT_EQ(Record("kivuVpcStress").sleepUs, 0U);
}

TEST_F(ParseTest, MissingLevelOfEachSection) {
  for (const std::string key : {"VPC", "VENC", "CPU", "AIC"}) {
    fakeLog::Reset();
    benchmark_.stressMap.clear();
    EXPECT_EQ(Parse(key + ": {File: m}\n"), 10);
    EXPECT_THAT(Errors(), ElementsAre("Parse() | Cannot find " + key + ": Level in Config File!"));
  }
}

TEST_F(ParseTest, LevelThatIsNotANumberIsLoggedAsMissing) {
  for (const std::string level : {"-1", "1.5", "many", "", "~", "[1]", "{a: 1}", "4294967296", "1e1"}) {
    fakeLog::Reset();
    benchmark_.stressMap.clear();
    EXPECT_EQ(Parse("CPU:\n  Level: " + level + "\n"), 10) << level;
    EXPECT_THAT(Errors(), ElementsAre("Parse() | Cannot find CPU: Level in Config File!")) << level;
  }
}

TEST_F(ParseTest, LevelOfASectionThatIsNotAMappingIsLoggedAsMissing) {
  for (const std::string value : {"5", "", "[Level, 3]"}) {
    fakeLog::Reset();
    benchmark_.stressMap.clear();
    EXPECT_EQ(Parse("CPU: " + value + "\n"), 10) << value;
    EXPECT_THAT(Errors(), ElementsAre("Parse() | Cannot find CPU: Level in Config File!")) << value;
  }
}

TEST_F(ParseTest, MissingModelFile) {
  EXPECT_EQ(Parse("AIC: {Level: 1}\n"), 10);
  EXPECT_THAT(Errors(), ElementsAre("Parse() | Cannot find AIC: File in Config File!"));
}

TEST_F(ParseTest, MissingModelFileIsCheckedBeforeTheRange) {
  EXPECT_EQ(Parse("AIC: {Level: 11}\n"), 10);
  EXPECT_THAT(Errors(), ElementsAre("Parse() | Cannot find AIC: File in Config File!"));
}

TEST_F(ParseTest, FileOfOtherSectionsIsIgnored) {
  EXPECT_EQ(Parse("CPU: {Level: 1, File: x}\n"), 0);
  EXPECT_EQ(Record("cpuStress").file, "");
}

TEST_F(ParseTest, SectionsAreReadInAFixedOrderAndOnlyUpToTheFirstFault) {
  EXPECT_EQ(Parse("AIC: {Level: 1}\nCPU: {Level: 11}\nVENC: {Level: 2}\nVPC: {Level: 1}\n"), 10);
  EXPECT_THAT(Errors(), ElementsAre("Parse() | cpu stress level:[0, 10], now is : 11"));
  EXPECT_EQ(benchmark_.stressMap.size(), 3U);
  EXPECT_EQ(benchmark_.stressMap.count("aicStress"), 0U);
}

TEST_F(ParseTest, KeysAreCaseSensitive) {
  EXPECT_EQ(Parse("cpu: {Level: 11}\nCpu: {Level: 11}\n"), 0);
  EXPECT_TRUE(benchmark_.stressMap.empty());
}

TEST_F(ParseTest, ExistingRecordIsKept) {
  benchmark_.stressMap["cpuStress"] = MakeRecord(9, 7);
  const vorn::StressRegister* former = benchmark_.stressMap["cpuStress"].get();
  EXPECT_EQ(Parse("CPU: {Level: 2}\n"), 0);
  EXPECT_EQ(benchmark_.stressMap["cpuStress"].get(), former);
  EXPECT_EQ(former->threadNum, 2U);
}

TEST_F(ParseTest, SlotsAreResizedUnderTheMutex) {
  benchmark_.stressMap["cpuStress"] = MakeRecord(9, 7);
  vorn::StressRegister& record = *benchmark_.stressMap["cpuStress"];
  std::vector<std::size_t> sizes;
  const auto noteSize = [&] { sizes.push_back(record.threadFps.size()); };
  const MutexWatch watch(record.fpsMutex, noteSize, noteSize);
  EXPECT_EQ(Parse("CPU: {Level: 2}\n"), 0);
  EXPECT_EQ(MutexWatch::Locks(), 1);
  EXPECT_THAT(sizes, ElementsAre(9U, 2U)) << "at the lock, and at the unlock";
}

TEST_F(ParseTest, FaultsAreLoggedWhenOnlyErrorsAreEnabled) {
  SetLevel(ara::log::LogLevel::kError);
  EXPECT_EQ(Parse("CPU: {}\n"), 10);
  EXPECT_EQ(Parse("CPU: {Level: 11}\n"), 10);
  EXPECT_EQ(Parse("CPU: {"), 10);
  ASSERT_EQ(Errors().size(), 3U);
  EXPECT_THAT(Errors()[2], testing::StartsWith("Load() | Load "));
}

TEST_F(ParseTest, ExceptionOfTheReaderIsLoggedAsLoad) {
  benchmark_.configPath = "none.yaml";
  EXPECT_EQ(benchmark_.Parse(), 10);
  ASSERT_EQ(Errors().size(), 1U);
  EXPECT_THAT(Errors()[0], testing::StartsWith("Load() | Load none.yaml happen error, the message is: "));
  EXPECT_THAT(Errors()[0], HasSubstr("none.yaml: No such file or directory"));
  const fakeLog::Record record = fakeLog::Records()[0];
  EXPECT_EQ(record.function, "Load");
  EXPECT_EQ(record.file, "stress_benchmark/src/stress_bencmark.cpp");
  EXPECT_EQ(std::string(record.kinds.begin(), record.kinds.end()), "vccscc");
}

TEST_F(ParseTest, MalformedFileIsLoggedAsLoad) {
  EXPECT_EQ(Parse("CPU: {Level: 1\n"), 10);
  ASSERT_EQ(Errors().size(), 1U);
  EXPECT_THAT(Errors()[0], testing::StartsWith("Load() | Load "));
}

}  // namespace
