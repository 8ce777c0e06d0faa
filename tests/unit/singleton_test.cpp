// A process of its own: the singleton logger is created once in a process, and here nobody has asked for it
// yet.

#include <algorithm>
#include <thread>

#include "fixture.h"
#include "stress_bencmark.h"
#include "temporary_file.h"

namespace {

using ara::log::LogLevel;

void LogEarly() {
  STBM_LOG_ERROR("early");
}

TEST(SingletonTest, IsCreatedOnceAsTpwAndReplacedAtTheStart) {
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
  stopFlag = 0;
}

}  // namespace
