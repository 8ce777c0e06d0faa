// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "check.h"
#include "worker.h"

namespace conformance {

namespace {

constexpr std::uint32_t kDefaultLevel = 4;
constexpr std::uint32_t kDefaultMode = 6;

ara::log::LogLevel Level(std::uint32_t number) {
  return Ormis::ParseLogLevel(static_cast<Ormis::QetLogLevelType>(number));
}

ara::log::LogMode Mode(std::uint32_t number) {
  return Ormis::ParseLogMode(static_cast<Ormis::QetLogModeType>(number));
}

// The numbers come from a file, so any number can arrive.
constexpr std::uint32_t kNumbers[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 255, 256, 4294967295U};

void LevelConverter(Session&) {
  for (const std::uint32_t number : kNumbers) {
    const auto level = static_cast<unsigned int>(Level(number));
    Require(level <= static_cast<unsigned int>(ara::log::LogLevel::kVerbose),
            "ParseLogLevel of " + std::to_string(number) + " gave " + std::to_string(level) +
                ", which is not a level of ara::log");
  }
  const ara::log::Logger& logger = ara::log::CreateLogger("KIT", "conformance", Level(kDefaultLevel));
  Require(logger.IsEnabled(ara::log::LogLevel::kError),
          "a logger of the default level, ParseLogLevel(4), lets no errors through");
}

void ModeConverter(Session&) {
  constexpr auto kKnown = static_cast<unsigned int>(ara::log::LogMode::kRemote | ara::log::LogMode::kFile |
                                                    ara::log::LogMode::kConsole);
  for (const std::uint32_t number : kNumbers) {
    const auto mode = static_cast<unsigned int>(Mode(number));
    Require((mode & ~kKnown) == 0, "ParseLogMode of " + std::to_string(number) + " gave " +
                                       std::to_string(mode) +
                                       ", which has bits that are not a mode of ara::log");
  }
  Require(static_cast<unsigned int>(Mode(kDefaultMode)) != 0,
          "ParseLogMode of the default, 6, sends nothing");
}

void AcceptsRecords(Session&) {
  constexpr unsigned int kThreads = 8;
  constexpr unsigned int kRecords = 50;
  (void)ara::log::CreateLogger("TPW", "TPW", ara::log::LogLevel::kVerbose);
  ara::log::InitLogging("KIT", "conformance kit", Level(kDefaultLevel), Mode(kDefaultMode), "./log");
  const ara::log::Logger& logger = ara::log::CreateLogger("KIT", "KIT", Level(kDefaultLevel));
  Require(logger.IsEnabled(ara::log::LogLevel::kError), "error records are not enabled after InitLogging");
  const std::string text = "a string";
  RunThreads(kThreads, [&logger, &text](unsigned int index, Barrier& barrier) {
    const ara::log::SourceLocation here{__FILE__, "AcceptsRecords", __LINE__};
    Wait(barrier);
    for (unsigned int number = 0; number < kRecords; ++number) {
      logger.LogError(here) << ara::core::internal::StringView<char>("AcceptsRecords", 14) << "() | " << text
                            << number << -1;
      logger.LogWarn(here) << index;
      logger.LogInfo(here) << "";
      logger.LogDebug(here) << "";
    }
  });
}

// Long enough that a library which writes in pieces needs several.
constexpr char kOpening[] = "(KIT-BEGIN ";
constexpr char kFilling[] =
    " abcdefghijklmnopqrstuvwxyz-abcdefghijklmnopqrstuvwxyz-abcdefghijklmnopqrstuvwxyz ";
constexpr char kClosing[] = " KIT-END)";

void LogWhole(const ara::log::Logger& logger, unsigned int writer, unsigned int number) {
  logger.LogError({__FILE__, "LogWhole", __LINE__}) << kOpening << writer << kFilling << number << kClosing;
}

constexpr unsigned int kWriters = 4;  // the handler is one more writer
const ara::log::Logger* handlersLogger = nullptr;
std::atomic<unsigned int> handled{0};
static_assert(std::atomic<unsigned int>::is_always_lock_free, "used in a signal handler");

void LogFromHandler(int /*signal*/) {
  LogWhole(*handlersLogger, kWriters, handled);
  ++handled;
}

/// True if the line contains one of these records. Throws Failure for a part of one, or for two in a line.
bool HoldsWhole(const std::string& line, unsigned int& writer) {
  const std::size_t begin = line.find(kOpening);
  const std::size_t end = line.find(kClosing);
  if (begin == std::string::npos && end == std::string::npos) return false;
  unsigned int number = 0;
  bool whole = begin != std::string::npos && end != std::string::npos && begin < end;
  if (whole) {
    const std::string record = line.substr(begin, end - begin + sizeof kClosing - 1);
    const std::size_t numberAt = record.rfind(kFilling);
    whole = std::sscanf(record.c_str() + sizeof kOpening - 1, "%u", &writer) == 1 &&
            numberAt != std::string::npos &&
            std::sscanf(record.c_str() + numberAt + sizeof kFilling - 1, "%u", &number) == 1 &&
            record == kOpening + std::to_string(writer) + kFilling + std::to_string(number) + kClosing &&
            line.find(kOpening, begin + 1) == std::string::npos &&
            line.find(kClosing, end + 1) == std::string::npos;
  }
  Require(whole, "a line of the log that is not one whole record: " + line);
  return true;
}

// Puts what this process writes to the console into a file below the working directory.
void KeepConsole() {
  const int file = open("console", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  Require(file >= 0 && dup2(file, STDOUT_FILENO) >= 0 && dup2(file, STDERR_FILENO) >= 0,
          "cannot put the console's text into a file");
  (void)close(file);
}

// A library may store records in any form. If they are lines of text, on the console or in a file below the
// working directory, they are checked.
void FromSignalHandler(Session& session) {
  constexpr unsigned int kSignals = 200;
  KeepConsole();
  ara::log::InitLogging("KIT", "conformance kit", Level(kDefaultLevel), Mode(kDefaultMode), "./log");
  handlersLogger = &ara::log::CreateLogger("KIT", "KIT", Level(kDefaultLevel));
  struct sigaction action{};
  action.sa_handler = LogFromHandler;
  action.sa_flags = SA_RESTART;
  RequireOk(sigaction(SIGUSR1, &action, nullptr), "sigaction");

  std::array<pthread_t, kWriters> writers{};
  std::atomic<bool> done{false};
  RunThreads(kWriters + 1, [&](unsigned int index, Barrier& barrier) {
    if (index < kWriters) writers[index] = pthread_self();
    Wait(barrier);
    if (index < kWriters) {
      for (unsigned int number = 0; !done; ++number) {
        LogWhole(*handlersLogger, index, number);
        if (number > 20 * kSignals) std::this_thread::yield();
      }
    } else {
      // One after the other, because several pending signals of one number become one.
      for (unsigned int sent = 0; sent < kSignals; ++sent) {
        RequireOk(pthread_kill(writers[sent % kWriters], SIGUSR1), "pthread_kill");
        while (handled <= sent) std::this_thread::sleep_for(std::chrono::microseconds(50));
      }
      done = true;
    }
    Wait(barrier);  // no thread ends while it may still get a signal
  });

  unsigned int lines = 0;
  unsigned int fromHandler = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(".")) {
    if (!entry.is_regular_file()) continue;
    std::ifstream file(entry.path(), std::ios::binary);
    for (std::string line; std::getline(file, line);) {
      unsigned int writer = 0;
      if (!HoldsWhole(line, writer)) continue;
      ++lines;
      fromHandler += writer == kWriters ? 1 : 0;
    }
  }
  session.note = lines == 0 ? "found no line of text to check"
                            : std::to_string(lines) + " whole lines, " + std::to_string(fromHandler) +
                                  " of them from " + std::to_string(kSignals) + " calls of the handler";
}

}  // namespace

std::vector<Check> LogChecks() {
  return {
      {"log.level-converter",
       "ParseLogLevel gives a level of ara::log for any number, and for the default one that lets errors "
       "through",
       LevelConverter},
      {"log.mode-converter",
       "ParseLogMode gives a mode of ara::log for any number, and for the default one that is not empty",
       ModeConverter},
      {"log.accepts-records",
       "logging starts with the converted defaults, and loggers take records of every level from many "
       "threads",
       AcceptsRecords},
      {"log.from-signal-handler",
       "a signal handler logs from within threads that log themselves: none hangs, and where the log is text "
       "every line is one whole record",
       FromSignalHandler},
  };
}

}  // namespace conformance
