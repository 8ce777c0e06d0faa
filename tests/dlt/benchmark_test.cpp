// SPDX-License-Identifier: Apache-2.0

// The benchmark with "logMode: 1".

#include <algorithm>
#include <csignal>

#include "daemon.h"

namespace {

class RemoteBenchmark : public DltTest {
 protected:
  Launch Benchmark() const {
    Launch launch = Configured("runTimes: 40\nlogMode: 1\nlogLevel: 5\nCPU: {Level: 2}\n");
    launch.environment["DLT_PIPE_DIR"] = Directory().string();
    return launch;
  }
};

TEST_F(RemoteBenchmark, LogsToTheDaemonUntilItsEnd) {
  daemon_.Start();
  const Ending ending = RunLines(Benchmark(), 3);
  EXPECT_THAT(ending, Exited(0));
  EXPECT_EQ(ending.error, "");
  ExpectRateLines(ending.OutputLines(), {"cpuStress"});
  EXPECT_FALSE(Exists("log"));
  daemon_.WaitFor("Unregistered ApID 'STBM'");

  const std::vector<DltMessage> messages = daemon_.Received();
  ASSERT_FALSE(messages.empty());
  const auto has = [&](const std::string& level, const std::string& text) {
    return std::any_of(messages.begin(), messages.end(), [&](const DltMessage& message) {
      return message.level == level && message.text.find(text) != std::string::npos;
    });
  };
  for (const DltMessage& message : messages) {
    const bool isOfPlatform = message.text.rfind("QetInitialize: settings: ", 0) == 0;
    EXPECT_EQ(message.context, isOfPlatform ? "QET" : "STBM") << message.text;
  }
  EXPECT_TRUE(has("info", "QetInitialize success"));
  EXPECT_TRUE(has("debug", "Signal Interactive attention received"));
  EXPECT_THAT(daemon_.Raw(), HasSubstr("Description=Stress Benchmark for DDR Optimizer in VORN."));
}

TEST_F(RemoteBenchmark, RunsOnWhenItsDaemonDies) {
  daemon_.Start();
  Program program(Benchmark());
  ASSERT_TRUE(program.ReadLine().has_value());
  daemon_.Kill();
  ASSERT_TRUE(program.ReadLine().has_value());
  program.Signal(SIGINT);
  const Ending& ending = program.Wait();
  EXPECT_THAT(ending, Exited(0));
  EXPECT_GT(ReportedLosses(ending), 0U) << "the records at the end of the run";
  ExpectRateLines(ending.OutputLines(), {"cpuStress"});
}

}  // namespace
