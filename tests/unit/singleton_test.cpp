// SPDX-License-Identifier: Apache-2.0

// The singleton logger is created once in a process. Each test therefore runs in a child process, in which
// the singleton does not exist yet.

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <thread>

#include "fixture.h"
#include "stress_bencmark.h"
#include "temporary_file.h"

namespace {

using ara::log::LogLevel;

/// Runs `body` in a child process. A failure there is a failure of this test.
void InChildProcess(const std::function<void()>& body) {
  (void)std::fflush(nullptr);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    body();
    (void)std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "the child process failed, see above";
}

void LogEarly() {
  STBM_LOG_ERROR("early");
}

TEST(SingletonTest, IsCreatedOnceAsTpwAndReplacedAtTheStart) {
  InChildProcess([] {
    // Several threads reach their first log statement at the same time.
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int i = 0; i < 8; ++i) threads.emplace_back(LogEarly);
    for (std::thread& thread : threads) thread.join();

    ASSERT_EQ(fakeLog::Creations().size(), 1U);
    EXPECT_EQ(fakeLog::Creations()[0].contextId, "TPW");
    EXPECT_EQ(fakeLog::Creations()[0].description, "TPW");
    EXPECT_EQ(fakeLog::Creations()[0].level, LogLevel::kVerbose);
    ASSERT_EQ(fakeLog::Records().size(), 8U);
    for (const fakeLog::Record& record : fakeLog::Records()) EXPECT_EQ(record.contextId, "TPW");

    SignalHandler(2);
    EXPECT_EQ(fakeLog::Records().back().contextId, "TPW");

    fakeLog::Reset();
    const TemporaryFile file("logLevel: 5\n");
    StressBenchmark benchmark(file.Path());
    EXPECT_TRUE(benchmark.Init());
    ASSERT_EQ(fakeLog::Creations().size(), 1U) << "the TPW logger exists already";
    EXPECT_EQ(fakeLog::Creations()[0].contextId, "STBM");
    SignalHandler(2);
    EXPECT_EQ(fakeLog::Records().back().contextId, "STBM");
  });
}

TEST(SingletonTest, InitCreatesItBeforeTheSignalHandlerAndBeforeLoggingStarts) {
  InChildProcess([] {
    std::vector<bool> handlerInstalled;
    fakeLog::OnCall([&] {
      void (*const handler)(int) = std::signal(SIGINT, SIG_IGN);
      (void)std::signal(SIGINT, handler);
      handlerInstalled.push_back(handler == &SignalHandler);
    });
    std::vector<std::string> callsBeforeThePlatform;
    fakePlatform::OnCall("QetInitialize", [&](int) { callsBeforeThePlatform = fakeLog::Calls(); });
    const TemporaryFile file("");
    StressBenchmark benchmark(file.Path());
    EXPECT_TRUE(benchmark.Init());

    EXPECT_THAT(callsBeforeThePlatform, ElementsAre("CreateLogger TPW", "InitLogging", "CreateLogger STBM"));
    ASSERT_GE(handlerInstalled.size(), 3U);
    EXPECT_FALSE(handlerInstalled[0])
        << "the handler logs, so the singleton has to exist before it is installed";
    EXPECT_TRUE(handlerInstalled[1]);
    ASSERT_EQ(fakeLog::Creations().size(), 2U);
    EXPECT_EQ(fakeLog::Creations()[0].description, "TPW");
    EXPECT_EQ(fakeLog::Creations()[0].level, LogLevel::kVerbose);
    EXPECT_EQ(fakeLog::Creations()[1].description, "STBM");
    EXPECT_EQ(fakeLog::Creations()[1].level, LogLevel::kInfo);
    ASSERT_FALSE(fakeLog::Records().empty());
    for (const fakeLog::Record& record : fakeLog::Records()) EXPECT_EQ(record.contextId, "STBM");
  });
}

}  // namespace
