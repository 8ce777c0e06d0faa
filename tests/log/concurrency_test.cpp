// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ara/log/logging.h"
#include "log_files.h"
#include "sanitizers.h"

namespace ara::log {
namespace {

constexpr SourceLocation kHere{"tests/log/concurrency_test.cpp", "Write", 1};

Logger* handlerLogger = nullptr;
std::atomic<int> handled{0};

void OnSignal(int /*signal*/) {
  handlerLogger->LogDebug(kHere) << "signal " << handled.fetch_add(1);
}

/// Installs OnSignal for a signal while the object exists.
class Handler {
 public:
  explicit Handler(int signal) : signal_(signal) {
    handled = 0;
    struct sigaction action{};
    action.sa_handler = OnSignal;  // without SA_RESTART, so that system calls are interrupted
    EXPECT_EQ(sigaction(signal, &action, &old_), 0);
  }
  ~Handler() { sigaction(signal_, &old_, nullptr); }
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;

 private:
  int signal_;
  struct sigaction old_{};
};

/// The text of a record, up to 3000 bytes. It follows from the two numbers, so mixed and torn lines show.
std::string Payload(unsigned writer, unsigned record) {
  return std::string((writer * 7919U + record * 104729U) % 3000U, static_cast<char>('a' + writer % 26)) + ".";
}

void WriteRecords(const Logger& logger, unsigned writer, unsigned records) {
  for (unsigned record = 0; record < records; ++record) {
    logger.LogInfo(kHere) << "record " << writer << " " << record << " " << Payload(writer, record);
  }
}

/// Checks that the lines are `records` lines of each of `writers` writers, complete and in order, and
/// `signals` lines of the signal handler.
void ExpectAll(const std::vector<log_test::Line>& lines, unsigned writers, unsigned records, int signals,
               const std::string& end) {
  std::vector<unsigned> next(writers, 0);
  std::map<std::string, int> ticks;
  for (const log_test::Line& line : lines) {
    if (line.text.rfind("signal ", 0) == 0) {
      ++ticks[line.text];
      continue;
    }
    ASSERT_EQ(line.text.rfind("record ", 0), 0U) << line.text;
    const auto writer = static_cast<unsigned>(std::strtoul(line.text.c_str() + 7, nullptr, 10));
    ASSERT_LT(writer, writers);
    const unsigned record = next[writer]++;
    ASSERT_EQ(line.text, "record " + std::to_string(writer) + " " + std::to_string(record) + " " +
                             Payload(writer, record) + end);
  }
  EXPECT_EQ(next, std::vector<unsigned>(writers, records));
  EXPECT_EQ(ticks.size(), static_cast<std::size_t>(signals));
  for (int i = 0; i < signals; ++i) EXPECT_EQ(ticks["signal " + std::to_string(i) + end], 1) << i;
}

TEST(LoggingUnderSignals, TenThreadsLoseAndMixNothing) {
  constexpr unsigned kWriters = 10;
  // Each line is taken apart again, which takes a sanitizer two minutes for 1,500.
  constexpr unsigned kRecords = kSanitized ? 300 : 1500;
  constexpr int kSignals = 600;
  const log_test::TemporaryFolder folder;
  InitLogging("STBM", "", LogLevel::kDebug, LogMode::kFile | LogMode::kConsole, folder.Path().string());
  testing::internal::CaptureStderr();
  Logger& logger = CreateLogger("MANY", "", LogLevel::kVerbose);
  handlerLogger = &logger;
  {
    const Handler handler(SIGUSR1);
    std::atomic<bool> stop{false};
    std::vector<std::thread> writers;
    writers.reserve(kWriters);
    for (unsigned writer = 0; writer < kWriters; ++writer) {
      writers.emplace_back([&, writer] {
        WriteRecords(logger, writer, kRecords);
        // The thread has to exist until all signals have been sent.
        while (!stop) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      });
    }
    for (int signal = 0; handled < kSignals; ++signal) {
      pthread_kill(writers[static_cast<std::size_t>(signal) % kWriters].native_handle(), SIGUSR1);
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    stop = true;
    for (std::thread& writer : writers) writer.join();
  }
  InitLogging("STBM", "", LogLevel::kOff, LogMode::kConsole, "");

  const std::string console = testing::internal::GetCapturedStderr();
  const std::string end = " (tests/log/concurrency_test.cpp:1 Write)";
  ExpectAll(log_test::ReadLog(folder.File("STBM.log")), kWriters, kRecords, handled, end);
  std::vector<log_test::Line> lines;
  for (const std::string& line : log_test::SplitLines(console)) lines.push_back(log_test::ParseLine(line));
  ExpectAll(lines, kWriters, kRecords, handled, end);
}

TEST(LoggingUnderSignals, AThreadMayBeInterruptedAnywhereInARecord) {
  constexpr unsigned kRecords = 20000;
  const log_test::TemporaryFolder folder;
  InitLogging("STBM", "", LogLevel::kInfo, LogMode::kFile, folder.Path().string());
  Logger& logger = CreateLogger("MANY", "", LogLevel::kVerbose);
  // The handler logs at debug level, which is disabled at first: it opens a stream that is dropped.
  handlerLogger = &logger;
  int interruptions = 0;
  {
    const Handler handler(SIGALRM);
    const itimerval period{{0, 200}, {0, 200}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &period, nullptr), 0);
    for (unsigned done = 0; done < kRecords; done += kRecords / 4) {
      if (done == kRecords / 2) {
        InitLogging("STBM", "", LogLevel::kDebug, LogMode::kFile, folder.Path().string());
        interruptions = handled;
      }
      for (unsigned i = 0; i < kRecords / 4; ++i)
        logger.LogInfo(kHere) << "record " << done + i << " " << "text";
    }
    const itimerval off{};
    ASSERT_EQ(setitimer(ITIMER_REAL, &off, nullptr), 0);
  }
  InitLogging("STBM", "", LogLevel::kOff, LogMode::kConsole, "");
  EXPECT_GT(interruptions, 0);
  EXPECT_GT(handled, interruptions);
  unsigned record = 0;
  int signals = 0;
  for (const log_test::Line& line : log_test::ReadLog(folder.File("STBM.log"))) {
    if (line.text.rfind("signal ", 0) == 0) {
      ++signals;
    } else {
      ASSERT_EQ(line.text.rfind("record " + std::to_string(record++) + " text", 0), 0U) << line.text;
    }
  }
  EXPECT_EQ(record, kRecords);
  // During InitLogging the handler logs by the old settings or by the new ones.
  EXPECT_LE(signals, handled);
  EXPECT_GE(signals, handled - interruptions);
}

TEST(LoggingUnderSignals, NoRecordIsLostWhileTheSettingsAreReplaced) {
  constexpr unsigned kWriters = 2;
  constexpr unsigned kRecords = 3000;
  const log_test::TemporaryFolder folder;
  const std::string folders[] = {folder.File("a"), folder.File("b")};
  InitLogging("APPA", "", LogLevel::kDebug, LogMode::kFile, folders[0]);
  Logger& logger = CreateLogger("MANY", "", LogLevel::kVerbose);
  handlerLogger = &logger;
  std::atomic<unsigned> writing{kWriters};
  {
    const Handler handler(SIGALRM);
    const itimerval period{{0, 500}, {0, 500}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &period, nullptr), 0);
    std::vector<std::thread> writers;
    writers.reserve(kWriters);
    for (unsigned writer = 0; writer < kWriters; ++writer) {
      writers.emplace_back([&, writer] {
        WriteRecords(logger, writer, kRecords);
        --writing;
      });
    }
    for (unsigned i = 1; writing > 0; ++i) {
      InitLogging(i % 2 == 0 ? "APPA" : "APPB", "", LogLevel::kDebug, LogMode::kFile, folders[i % 2]);
    }
    const itimerval off{};
    ASSERT_EQ(setitimer(ITIMER_REAL, &off, nullptr), 0);
    for (std::thread& writer : writers) writer.join();
  }
  InitLogging("STBM", "", LogLevel::kOff, LogMode::kConsole, "");

  int records = 0;
  int signals = 0;
  for (const std::string& path : {folders[0] + "/APPA.log", folders[1] + "/APPB.log"}) {
    for (const log_test::Line& line : log_test::ReadLog(path)) {
      EXPECT_TRUE(line.appId == "APPA" || line.appId == "APPB") << line.appId;
      ++(line.text.rfind("signal ", 0) == 0 ? signals : records);
    }
  }
  EXPECT_EQ(records, static_cast<int>(kWriters * kRecords));
  EXPECT_EQ(signals, handled);
}

/// Calls CreateLogger in `threads` threads at the same moment, `rounds` times, for the context
/// `idOf(thread, round)`. Returns each thread's loggers.
template <typename IdOf>
std::vector<std::vector<Logger*>> CreateAtOnce(std::size_t threads, std::size_t rounds, IdOf idOf) {
  std::vector<std::vector<Logger*>> made(threads);
  std::atomic<std::size_t> arrived{0};
  std::vector<std::thread> running;
  running.reserve(threads);
  for (std::size_t thread = 0; thread < threads; ++thread) {
    running.emplace_back([&, thread] {
      for (std::size_t round = 0; round < rounds; ++round) {
        const std::string id = idOf(thread, round);
        ++arrived;
        while (arrived < (round + 1) * threads) {
        }
        made[thread].push_back(&CreateLogger(id, "", LogLevel::kError));
      }
    });
  }
  for (std::thread& thread : running) thread.join();
  return made;
}

TEST(CreateLogger, OneContextHasOneLoggerInAllThreads) {
  const auto made =
      CreateAtOnce(10, 5, [](std::size_t, std::size_t round) { return "ONE" + std::to_string(round); });
  for (const std::vector<Logger*>& loggers : made) EXPECT_EQ(loggers, made[0]);
  EXPECT_EQ(std::set<Logger*>(made[0].begin(), made[0].end()).size(), 5U);
}

TEST(CreateLogger, DifferentContextsHaveDifferentLoggers) {
  constexpr std::size_t kRounds = 18;
  const auto made = CreateAtOnce(2, kRounds, [](std::size_t thread, std::size_t round) {
    return std::to_string(thread) + "OF" + std::to_string(round);
  });
  std::set<Logger*> distinct;
  for (const std::vector<Logger*>& loggers : made) distinct.insert(loggers.begin(), loggers.end());
  EXPECT_EQ(distinct.size(), 2 * kRounds);
}

}  // namespace
}  // namespace ara::log
