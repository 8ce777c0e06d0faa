// The singleton logger is created once in a process. Each test therefore runs in a child process of its own,
// in which nobody has asked for the singleton yet.

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

/// Runs `body` in a child process; what fails there fails this test.
void InAProcessOfItsOwn(const std::function<void()>& body) {
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
  InAProcessOfItsOwn([] {
    // Several threads reach a first site together.
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
    ASSERT_EQ(fakeLog::Creations().size(), 1U) << "the first logger existed";
    EXPECT_EQ(fakeLog::Creations()[0].contextId, "STBM");
    SignalHandler(2);
    EXPECT_EQ(fakeLog::Records().back().contextId, "STBM");
  });
}

TEST(SingletonTest, InitThatAsksFirstCreatesItBeforeItTakesSigintAndStartsLogging) {
  InAProcessOfItsOwn([] {
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
    EXPECT_FALSE(handlerInstalled[0]) << "the handler logs: the singleton has to be there before it";
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
