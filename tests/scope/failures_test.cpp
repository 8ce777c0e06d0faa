// SPDX-License-Identifier: Apache-2.0
#include "failures.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "configuration.h"
#include "errors.h"
#include "temporary_folder.h"

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;
using namespace scope;

using Levels = std::vector<std::pair<std::string, int>>;

Sample Worked(const std::string& engine, int thread, double timeS, std::uint64_t operations,
              std::uint64_t failures = 0) {
  Sample sample;
  sample.timeS = timeS;
  sample.engine = engine;
  sample.thread = thread;
  sample.operations = operations;
  sample.failures = failures;
  sample.maxNs = operations == 0 ? 0 : 10'000'000;
  return sample;
}

// Each of `threads` works for all of ten seconds.
FailureWatch TenSeconds(const Levels& levels, const std::string& engine, int threads) {
  FailureWatch watch(levels, true);
  for (int second = 1; second <= 10; ++second) {
    for (int thread = 0; thread != threads; ++thread) watch.Add({Worked(engine, thread, second, 5)});
  }
  return watch;
}

std::string Record(const std::string& level, const std::string& context, int thread,
                   const std::string& text) {
  return "2026-11-22T05:31:16.821176Z " + level + " STBM " + context + " " + std::to_string(thread) + " " +
         text;
}

TEST(FailureWatchTest, ARunThatDidWhatItWasToldHasNone) {
  FailureWatch watch = TenSeconds({{"cpu", 2}, {"aic", 0}}, "cpu", 2);
  watch.AddLogLine(Record("WARN", "STBM", 7, "Init() | RunTimes should be larger"));
  EXPECT_THAT(watch.Failures(10, true), IsEmpty());
}

TEST(FailureWatchTest, AnEngineWithoutAnOperation) {
  FailureWatch watch = TenSeconds({{"cpu", 2}, {"venc", 3}}, "cpu", 2);
  EXPECT_THAT(watch.Failures(10, true), ElementsAre("venc: not one operation succeeded at level 3"));
}

TEST(FailureWatchTest, AWorkerWithoutAnOperation) {
  const FailureWatch watch = TenSeconds({{"cpu", 3}}, "cpu", 2);
  EXPECT_THAT(watch.Failures(10, true), ElementsAre("cpu: 1 of 3 workers did nothing"));
  EXPECT_THAT(watch.Failures(10, false), IsEmpty()) << "the meter did not count all threads";
}

TEST(FailureWatchTest, FailedOperations) {
  FailureWatch watch = TenSeconds({{"vpc", 1}}, "vpc", 1);
  watch.Add({Worked("vpc", 0, 10, 5, 1)});
  EXPECT_THAT(watch.Failures(10, true), ElementsAre("vpc: 1 operation failed"));
  watch.Add({Worked("vpc", 0, 10, 5, 2), Worked("vpc_copy", 0, 10, 0, 1)});
  EXPECT_THAT(watch.Failures(10, true),
              ElementsAre("vpc: 3 operations failed", "vpc_copy: 1 operation failed"));
}

TEST(FailureWatchTest, AWorkerThatEndsEarly) {
  FailureWatch watch = TenSeconds({{"cpu", 2}}, "cpu", 1);
  for (int second = 1; second <= 10; ++second) watch.Add({Worked("cpu", 1, second, second <= 4 ? 5 : 0)});
  EXPECT_THAT(watch.Failures(10, true),
              ElementsAre("cpu: 1 of 2 workers ended early, the first after 4 s of 10 s"));
  EXPECT_THAT(watch.Failures(6, true), IsEmpty()) << "SIGINT came at 6 s";
  watch.Add({Worked("cpu", 1, 4, 0)});
  Sample slow = Worked("cpu", 1, 4, 1);
  slow.maxNs = 4'000'000'000;
  watch.Add({slow});
  EXPECT_THAT(watch.Failures(10, true), IsEmpty()) << "an operation of 4 s may still run";
}

TEST(FailureWatchTest, TheOnlyWorkerThatEndsEarly) {
  FailureWatch watch = TenSeconds({{"cpu", 1}, {"vpc", 1}}, "cpu", 1);
  watch.Add({Worked("vpc", 0, 4, 5), Worked("vpc", 0, 10, 0)});
  EXPECT_THAT(watch.Failures(10, true),
              ElementsAre("vpc: 1 of 1 worker ended early, the first after 4 s of 10 s"));
}

TEST(FailureWatchTest, WithoutTheMeterAStressThatIsNotPrinted) {
  FailureWatch watch({{"cpu", 1}, {"venc", 1}, {"vpc", 0}}, false);
  EXPECT_THAT(watch.Failures(10, true), IsEmpty()) << "nothing was printed";
  watch.Add(std::vector<Rate>{{1, "cpuStress", 0}});
  EXPECT_THAT(watch.Failures(10, true), ElementsAre("venc: level 1, but no rate line has kivuVencStress"));
}

TEST(FailureWatchTest, QuotesTheFirstErrorOfTheWorkersThread) {
  FailureWatch watch({{"vpc", 1}, {"aic", 1}}, true);
  watch.AddLogLine(Record("ERROR", "QET", 11, "QetImageResize: the channel 3 does not exist"));
  watch.AddLogLine(Record("ERROR", "QET", 12, "QetDNNModelInitialize: cannot read model x.onnx"));
  watch.AddLogLine(Record("ERROR", "STBM", 12, "AICoreInit() | [AicoreStress] Init dnn model failed!"));
  watch.AddLogLine(Record("ERROR", "STBM", 11, "VPCResize() | QetImageResize failed, ret = 5"));
  EXPECT_THAT(
      watch.Failures(10, true),
      ElementsAre("vpc: not one operation succeeded at level 1; the log says: QetImageResize: the channel 3 "
                  "does not exist",
                  "aic: not one operation succeeded at level 1; the log says: QetDNNModelInitialize: cannot "
                  "read model x.onnx"));
}

TEST(FailureWatchTest, ErrorsOfTheLogThatNoSampleShows) {
  FailureWatch watch = TenSeconds({{"vpc", 1}}, "vpc", 1);
  watch.AddLogLine(Record("ERROR", "STBM", 11, "main() | first"));
  EXPECT_THAT(watch.Failures(10, true), ElementsAre("the log has an error: main() | first"));
  watch.AddLogLine(Record("FATAL", "STBM", 12, "main() | second"));
  EXPECT_THAT(watch.Failures(10, true), ElementsAre("the log has an error: main() | first (and 1 more)"));
}

TEST(BenchmarkLogTest, OnlyRecordsOfTheLevelErrorAreErrors) {
  BenchmarkLog log;
  for (const char* const line : {"", "ERROR", "no record ERROR STBM STBM 1 text",
                                 "2026-11-22T05:31:16.821176Z ERRORS STBM STBM 1 text"}) {
    log.Add(line);
  }
  log.Add(Record("INFO", "STBM", 1, "Start() | ERROR in the text"));
  EXPECT_THAT(log.Errors(), IsEmpty());
  EXPECT_EQ(log.WhyItFailed(), "2026-11-22T05:31:16.821176Z ERRORS STBM STBM 1 text");
  log.Add(Record("ERROR", "STBM", 41, "Parse() | Cannot find CPU: Level in Config File!"));
  ASSERT_THAT(log.Errors(), SizeIs(1));
  EXPECT_EQ(log.Errors()[0].thread, "41");
  EXPECT_EQ(log.WhyItFailed(), "Parse() | Cannot find CPU: Level in Config File!");
}

TEST(BenchmarkLogTest, KnowsWhatThePlatformSaysOfItself) {
  BenchmarkLog log;
  EXPECT_THAT(log.PlatformSettings(), IsEmpty());
  EXPECT_THAT(log.EncoderEngines(), IsEmpty());
  const std::string settings = "QetInitialize: settings: /a: memory=b/host.yaml: memory=device encoder=auto";
  log.Add(Record("INFO", "STBM", 1, settings));
  log.Add(Record("WARN", "QET", 1, settings));
  log.Add(Record("INFO", "QET", 1, "QetRelease: settings: /host.yaml: memory=device encoder=auto"));
  log.Add(Record("INFO", "QET", 1, "QetInitialize: settings: /host.yaml"));
  EXPECT_THAT(log.PlatformSettings(), IsEmpty());
  log.Add(Record("INFO", "QET", 1, settings));
  const auto expected = ElementsAre(Pair("memory", "device"), Pair("encoder", "auto"));
  EXPECT_THAT(log.PlatformSettings(), expected);
  log.Add(Record("INFO", "QET", 1, settings + " (/source/context.cpp:99 QetInitialize)"));
  EXPECT_THAT(log.PlatformSettings(), expected);

  log.Add(Record("WARN", "QET", 2, "QetVenc::Init: channel 34 falls back to libx264: h264_nvenc: why"));
  EXPECT_THAT(log.EncoderEngines(), IsEmpty());
  log.Add(Record("INFO", "QET", 2, "QetVenc::Init: channel 34, 1920x1080, engine libx264"));
  log.Add(Record("INFO", "QET", 3, "QetVenc::Init: channel 9, 64x48, engine h264_nvenc (venc.cpp:1 Init)"));
  EXPECT_THAT(log.EncoderEngines(), ElementsAre(Pair("9", "h264_nvenc"), Pair("34", "libx264")));
}

TEST(BenchmarkLogTest, KnowsAFileThatIsTheOnlySink) {
  const auto only = [](const std::string& mode) {
    Configuration config;
    if (!mode.empty()) config.settings.emplace_back("logMode", mode);
    return LogsToFileOnly(config);
  };
  EXPECT_TRUE(only("2"));
  EXPECT_TRUE(only("0x3"));
  for (const char* const mode : {"", "0", "1", "4", "6", "7", "x"}) EXPECT_FALSE(only(mode)) << mode;
}

TEST(UnreadSectionsTest, NamesSectionsAndValuesThatNothingReads) {
  const TemporaryFolder folder;
  const auto of = [&folder](const std::string& text) { return UnreadSections(folder.Put("c.yaml", text)); };
  EXPECT_THAT(of("logMode: 4\nlogLevel: 2\nrunTimes: 50\nCPU: {Level: 1}\nVPC: {Level: 1}\nVENC: {Level: 1}\n"
                 "AIC: {Level: 0, File: x}\nboard: mine\n"),
              IsEmpty());
  EXPECT_THAT(of("cpu: {Level: 1}\n"),
              ElementsAre("nothing reads \"cpu\" in " + (folder / "c.yaml") + ": write CPU"));
  EXPECT_THAT(of("VPE: {Level: 1}\nVEMC:\n"), SizeIs(2));
  EXPECT_THAT(of("VPE: {Level: 1}\n"),
              ElementsAre(AllOf(HasSubstr("\"VPE\""), HasSubstr("the sections are CPU, VPC, VENC, AIC"))));
  EXPECT_THAT(of("RunTimes: 60\n"), ElementsAre(HasSubstr("write runTimes")));
  EXPECT_THAT(of("\"a\\eb\": {Level: 1}\n"), ElementsAre(Not(HasSubstr("\033"))));
  EXPECT_THROW((void)UnreadSections(folder / "none.yaml"), UserError);
}

}  // namespace
