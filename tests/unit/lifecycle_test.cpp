// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <csignal>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <type_traits>

#include "fixture.h"
#include "stress_bencmark.h"
#include "temporary_file.h"

namespace {

class LifecycleTest : public UnitTest {
 protected:
  LifecycleTest() : cout_(std::cout.rdbuf(out_.rdbuf())), cerr_(std::cerr.rdbuf(err_.rdbuf())) {
    stopFlag = 0;
    (void)std::signal(SIGINT, SIG_DFL);
  }
  ~LifecycleTest() override {
    std::cout.rdbuf(cout_);
    std::cerr.rdbuf(cerr_);
    (void)std::signal(SIGINT, SIG_DFL);
    stopFlag = 0;
  }

  int Run(const std::string& yaml) {
    const TemporaryFile file(yaml);
    const char* arguments[] = {"stress_benchmark", file.Path().c_str(), "ignored", nullptr};
    return RunStressBenchmark(3, arguments);
  }

  std::ostringstream out_;
  std::ostringstream err_;
  std::streambuf* cout_;
  std::streambuf* cerr_;
  VirtualClock clock_;
};

TEST_F(LifecycleTest, ConstructorSetsTheDefaults) {
  const StressBenchmark benchmark("c.yaml");
  EXPECT_EQ(benchmark.logMode, 6U);
  EXPECT_EQ(benchmark.logLevel, 4U);
  EXPECT_EQ(benchmark.runTimes, 40U);
  EXPECT_EQ(benchmark.context.id, 0U);
  EXPECT_EQ(benchmark.context.name, "");
  EXPECT_EQ(benchmark.contextParams.configuration, "");
  EXPECT_EQ(benchmark.context.deviceId, 0U);
  EXPECT_EQ(benchmark.contextParams.deviceId, 0U);
  EXPECT_EQ(benchmark.configPath, "c.yaml");
  EXPECT_TRUE(benchmark.threads.empty());
  EXPECT_TRUE(benchmark.stressMap.empty());
  EXPECT_EQ(benchmark.stressMap.max_load_factor(), 1.0F);
  static_assert(!std::is_polymorphic_v<StressBenchmark>);
}

TEST_F(LifecycleTest, WithoutAnArgumentTheUsageGoesToStandardErrorAndTheStatusIsZero) {
  const char* arguments[] = {"stress_benchmark", nullptr};
  EXPECT_EQ(RunStressBenchmark(1, arguments), 0);
  EXPECT_EQ(RunStressBenchmark(0, arguments + 1), 0);
  EXPECT_EQ(err_.str(), "Input error! Please input config path!\nInput error! Please input config path!\n");
  EXPECT_EQ(out_.str(), "");
  EXPECT_THAT(fakePlatform::Names(), IsEmpty());
}

TEST_F(LifecycleTest, WholeRunWithoutSections) {
  clock_.WaitForSleepers(2);
  EXPECT_EQ(Run(""), 0);
  EXPECT_THAT(fakePlatform::Names(), ElementsAre("QetInitialize", "QetRelease"));
  EXPECT_THAT(Infos(), ElementsAre("Init() | QetInitialize success"));
  EXPECT_THAT(Errors(), IsEmpty());
  EXPECT_THAT(out_.str(), testing::StartsWith("ispStress : 30.0 fps.\n"));
  EXPECT_EQ(stopFlag, 1);
}

TEST_F(LifecycleTest, RunWithoutSectionsLastsRunTimesAndOneSecond) {
  for (const std::size_t runTimes : {40U, 57U}) {
    stopFlag = 0;
    out_.str("");
    VirtualClock::Forget();
    clock_.WaitForSleepers(2);
    const std::size_t sleepsBefore = clock_.Sleeps().size();
    EXPECT_EQ(Run("runTimes: " + std::to_string(runTimes) + "\n"), 0);
    // The reporter prints a line after each of its sleeps; the other sleeps are the limiter's, one a second.
    const std::string output = out_.str();
    const auto lines = static_cast<std::size_t>(std::count(output.begin(), output.end(), '\n'));
    EXPECT_EQ(clock_.Sleeps().size() - sleepsBefore - lines, runTimes + 1);
    EXPECT_THAT(clock_.Sleeps(), testing::Each(1'000'000'000));
  }
}

TEST_F(LifecycleTest, LoggingStartsInOrderWithTheDefaults) {
  EXPECT_EQ(Run(""), 0);
  ASSERT_EQ(fakeLog::Starts().size(), 1U);
  const fakeLog::Start start = fakeLog::Starts()[0];
  EXPECT_EQ(start.appId, "STBM");
  EXPECT_EQ(start.description, "Stress Benchmark for DDR Optimizer in VORN.");
  EXPECT_EQ(start.level, ara::log::LogLevel::kInfo);
  EXPECT_EQ(start.mode, ara::log::LogMode::kFile | ara::log::LogMode::kConsole);
  EXPECT_EQ(start.directory, "./log");
  ASSERT_EQ(fakeLog::Creations().size(), 1U);
  EXPECT_EQ(fakeLog::Creations()[0].contextId, "STBM");
  EXPECT_EQ(fakeLog::Creations()[0].description, "STBM");
  EXPECT_EQ(fakeLog::Creations()[0].level, ara::log::LogLevel::kInfo);
  const auto calls = fakeLog::Calls();
  ASSERT_GE(calls.size(), 2U);
  EXPECT_EQ(calls[0], "InitLogging");
  EXPECT_EQ(calls[1], "CreateLogger STBM");
}

TEST_F(LifecycleTest, LogSettingsArePassedOnUnchanged) {
  Run("logMode: 3\nlogLevel: 5\n");
  ASSERT_EQ(fakeLog::Starts().size(), 1U);
  EXPECT_EQ(fakeLog::Starts()[0].level, ara::log::LogLevel::kDebug);
  EXPECT_EQ(fakeLog::Starts()[0].mode, ara::log::LogMode::kFile | ara::log::LogMode::kRemote);
  EXPECT_EQ(fakeLog::Creations()[0].level, ara::log::LogLevel::kDebug);
}

TEST_F(LifecycleTest, LogSettingsAreNotRangeChecked) {
  const TemporaryFile file("logMode: 4294967295\nlogLevel: 99\n");
  StressBenchmark benchmark(file.Path());
  EXPECT_TRUE(benchmark.Init());
  EXPECT_EQ(benchmark.logMode, 4294967295U);
  EXPECT_EQ(benchmark.logLevel, 99U);
  EXPECT_EQ(fakeLog::Starts()[0].level, Ormis::ParseLogLevel(static_cast<Ormis::QetLogLevelType>(99)));
}

TEST_F(LifecycleTest, LoggingStartsAndTheRunTimeIsReadBeforeThePlatformStarts) {
  std::vector<std::string> callsBefore;
  fakePlatform::OnCall("QetInitialize", [&](int) { callsBefore = fakeLog::Calls(); });
  const TemporaryFile file("runTimes: 3\n");
  StressBenchmark benchmark(file.Path());
  EXPECT_TRUE(benchmark.Init());
  EXPECT_THAT(callsBefore, ElementsAre("InitLogging", "CreateLogger STBM", "IsEnabled 3", "LogWarn"));
}

TEST_F(LifecycleTest, SettingsThatDoNotConvertBecomeZero) {
  const TemporaryFile file("logMode: many\nlogLevel: -4\nrunTimes: soon\n");
  StressBenchmark benchmark(file.Path());
  EXPECT_TRUE(benchmark.Init());
  EXPECT_EQ(benchmark.logMode, 0U);
  EXPECT_EQ(benchmark.logLevel, 0U);
  EXPECT_EQ(benchmark.runTimes, 40U) << "0 is below the minimum";
}

TEST_F(LifecycleTest, RunTimesBelowFortyAreRaisedWithAWarningUnderTheNewLogger) {
  for (const std::string value : {"10", "0", "39"}) {
    fakeLog::Reset();
    fakePlatform::Reset();
    const TemporaryFile file("runTimes: " + value + "\n");
    StressBenchmark benchmark(file.Path());
    // The logger that the singleton has at the start of a process.
    Ormis::OrmisLogger::GetInstance().logger =
        &ara::log::CreateLogger("TPW", "TPW", ara::log::LogLevel::kVerbose);
    fakeLog::Reset();
    EXPECT_TRUE(benchmark.Init());
    EXPECT_EQ(benchmark.runTimes, 40U);
    EXPECT_THAT(Warnings(), ElementsAre("Init() | RunTimes should be larger 40 , now is: " + value +
                                        ". runTimes will be set to 40"));
    const fakeLog::Record record = fakeLog::Records()[0];
    EXPECT_EQ(record.contextId, "STBM");
    EXPECT_EQ(std::string(record.kinds.begin(), record.kinds.end()), "vccucucu");
  }
}

TEST_F(LifecycleTest, RunTimesOfFortyAndMoreAreKeptWithoutAWarning) {
  for (const std::string value : {"40", "41", "4294967295"}) {
    const TemporaryFile file("runTimes: " + value + "\n");
    StressBenchmark benchmark(file.Path());
    EXPECT_TRUE(benchmark.Init());
    EXPECT_EQ(std::to_string(benchmark.runTimes), value);
  }
  EXPECT_THAT(Warnings(), IsEmpty());
}

TEST_F(LifecycleTest, AbsentRunTimesAreFortyWithoutAWarning) {
  const TemporaryFile file("logLevel: 5\n");
  StressBenchmark benchmark(file.Path());
  EXPECT_TRUE(benchmark.Init());
  EXPECT_EQ(benchmark.runTimes, 40U);
  EXPECT_THAT(Warnings(), IsEmpty());
}

TEST_F(LifecycleTest, PlatformGetsAnEmptyContextAndEmptyParameters) {
  const TemporaryFile file("");
  StressBenchmark benchmark(file.Path());
  benchmark.context.name = "rest";
  benchmark.context.deviceId = 3;
  benchmark.contextParams.configuration = "rest";
  benchmark.contextParams.deviceId = 3;
  EXPECT_TRUE(benchmark.Init());
  EXPECT_EQ(fakePlatform::InitializedContext().name, "");
  EXPECT_EQ(fakePlatform::InitializedContext().deviceId, 0U);
  EXPECT_EQ(fakePlatform::InitializedParameters().configuration, "");
  EXPECT_EQ(fakePlatform::InitializedParameters().deviceId, 0U);
  EXPECT_EQ(fakePlatform::CallsOf("QetInitialize")[0].object, &benchmark.context);
}

TEST_F(LifecycleTest, FailedInitializeEndsWithoutParseAndWithoutRelease) {
  fakePlatform::Fail("QetInitialize", 1, 5);
  EXPECT_EQ(Run("CPU: {Level: 11}\n"), -1);
  EXPECT_EQ(fakePlatform::FailuresDelivered("QetInitialize"), 1);
  EXPECT_THAT(Errors(), ElementsAre("Init() | QetInitialize failed"));
  EXPECT_THAT(Infos(), IsEmpty());
  EXPECT_THAT(fakePlatform::Names(), ElementsAre("QetInitialize"));
  EXPECT_EQ(out_.str(), "");
}

TEST_F(LifecycleTest, FailedParseEndsWithoutRelease) {
  for (const char* key : {"VPC", "VENC", "CPU", "AIC"}) {
    fakeLog::Reset();
    fakePlatform::Reset();
    EXPECT_EQ(Run(std::string(key) + ": {Level: 11, File: m}\n"), -1);
    ASSERT_EQ(Errors().size(), 2U);
    EXPECT_THAT(Errors()[0], HasSubstr("stress level:[0, 10], now is : 11"));
    EXPECT_EQ(Errors()[1], "Init() | Stress benchamrk parse failed");
    EXPECT_THAT(fakePlatform::Names(), ElementsAre("QetInitialize"));
    EXPECT_EQ(out_.str(), "");
  }
}

TEST_F(LifecycleTest, FailedReleaseIsLoggedAndReturnsMinusOne) {
  fakePlatform::Fail("QetRelease", 1, 9);
  EXPECT_EQ(Run(""), -1);
  EXPECT_EQ(fakePlatform::FailuresDelivered("QetRelease"), 1);
  EXPECT_THAT(Errors(), ElementsAre("Release() | Fail to relase ctx!"));
}

TEST_F(LifecycleTest, ReleaseGetsTheContextOfInitialize) {
  Run("");
  EXPECT_EQ(fakePlatform::CallsOf("QetRelease")[0].object, fakePlatform::CallsOf("QetInitialize")[0].object);
}

TEST_F(LifecycleTest, SigintDuringInitSkipsStartAndReleases) {
  fakePlatform::OnCall("QetInitialize", [](int) { (void)std::raise(SIGINT); });
  EXPECT_EQ(Run("logLevel: 5\nCPU: {Level: 1}\n"), 0);
  EXPECT_THAT(fakePlatform::Names(), ElementsAre("QetInitialize", "QetRelease"));
  EXPECT_EQ(out_.str(), "");
  EXPECT_THAT(clock_.Sleeps(), IsEmpty());
  EXPECT_THAT(Debugs(),
              ElementsAre("SignalHandler() | ===== Signal Interactive attention received. signal: 2 "
                          "stopFlag_: 1 ====="));
}

TEST_F(LifecycleTest, SigintDuringInitAndAFailedReleaseReturnMinusOne) {
  fakePlatform::OnCall("QetInitialize", [](int) { (void)std::raise(SIGINT); });
  fakePlatform::Fail("QetRelease", 1, 9);
  EXPECT_EQ(Run(""), -1);
  EXPECT_EQ(fakePlatform::FailuresDelivered("QetRelease"), 1);
  EXPECT_THAT(Errors(), ElementsAre("Release() | Fail to relase ctx!"));
  EXPECT_THAT(fakePlatform::Names(), ElementsAre("QetInitialize", "QetRelease"));
  EXPECT_EQ(out_.str(), "");
}

TEST_F(LifecycleTest, SigintDuringTheRunEndsIt) {
  clock_.WaitForSleepers(2);
  clock_.OnSleep([](std::size_t n) {
    if (n == 5) (void)std::raise(SIGINT);
    while (n > 5 && stopFlag == 0) std::this_thread::yield();
  });
  EXPECT_EQ(Run("logLevel: 5\n"), 0);
  EXPECT_THAT(fakePlatform::Names(), ElementsAre("QetInitialize", "QetRelease"));
  EXPECT_LE(clock_.Sleeps().size(), 7U);
  EXPECT_EQ(Debugs().size(), 1U);
}

TEST_F(LifecycleTest, SigintWhileStressesRunEndsEveryThread) {
  const TemporaryFile file("CPU: {Level: 2}\nVPC: {Level: 2}\n");
  StressBenchmark benchmark(file.Path());
  ASSERT_TRUE(benchmark.Init());
  fakePlatform::OnCall("QetImageResize", [](int n) {
    if (n == 20) (void)std::raise(SIGINT);
  });
  benchmark.Start();
  EXPECT_EQ(benchmark.threads.size(), 2U + 1 + 2 + 1 + 2);
  for (const std::thread& thread : benchmark.threads) EXPECT_FALSE(thread.joinable());
  EXPECT_EQ(fakePlatform::CountOf("QetDestroyContext"), 2);
  EXPECT_TRUE(benchmark.Release());
}

TEST_F(LifecycleTest, SecondSigintIsLoggedAgain) {
  fakePlatform::OnCall("QetInitialize", [](int) {
    (void)std::raise(SIGINT);
    (void)std::raise(SIGINT);
  });
  EXPECT_EQ(Run("logLevel: 5\n"), 0);
  EXPECT_EQ(stopFlag, 1);
  EXPECT_EQ(Debugs().size(), 2U);
}

TEST_F(LifecycleTest, HandlerIsInstalledBeforeLoggingStarts) {
  void (*handlerAtStart)(int) = nullptr;
  fakeLog::OnCall([&] {
    if (handlerAtStart != nullptr) return;
    handlerAtStart = std::signal(SIGINT, SIG_IGN);
    (void)std::signal(SIGINT, handlerAtStart);
  });
  const TemporaryFile file("");
  StressBenchmark benchmark(file.Path());
  EXPECT_TRUE(benchmark.Init());
  EXPECT_EQ(handlerAtStart, &SignalHandler);
}

TEST_F(LifecycleTest, UnreadableFileThrowsOutOfInitBeforeAnythingElse) {
  StressBenchmark benchmark("none.yaml");
  EXPECT_THROW(benchmark.Init(), std::runtime_error);
  EXPECT_THAT(fakeLog::Calls(), IsEmpty());
  EXPECT_THAT(fakePlatform::Names(), IsEmpty());
  EXPECT_EQ(std::signal(SIGINT, SIG_DFL), SIG_DFL);
}

TEST_F(LifecycleTest, MalformedFileThrowsOutOfInitBeforeAnythingElse) {
  const TemporaryFile file("CPU: {");
  StressBenchmark benchmark(file.Path());
  EXPECT_THROW(benchmark.Init(), std::runtime_error);
  EXPECT_THAT(fakeLog::Calls(), IsEmpty());
  EXPECT_THAT(fakePlatform::Names(), IsEmpty());
}

TEST_F(LifecycleTest, FileThatVanishesBeforeParseFailsInitWithTheLoadLine) {
  auto file = std::make_unique<TemporaryFile>("");
  StressBenchmark benchmark(file->Path());
  fakePlatform::OnCall("QetInitialize", [&](int) { file.reset(); });
  EXPECT_FALSE(benchmark.Init());
  ASSERT_EQ(Errors().size(), 2U);
  EXPECT_THAT(Errors()[0], testing::StartsWith("Load() | Load " + benchmark.configPath + " happen error, "));
  EXPECT_EQ(Errors()[1], "Init() | Stress benchamrk parse failed");
  EXPECT_THAT(fakePlatform::Names(), ElementsAre("QetInitialize"));
}

}  // namespace
