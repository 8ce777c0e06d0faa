// log_probe WORD...: does what the words say, one after the other:
//   init APP LEVEL MODE DIRECTORY   InitLogging
//   logger CONTEXT LEVEL            CreateLogger; what follows logs to it
//   error|warn|info|debug TEXT      one record
//   loggers COUNT                   loggers "C0", "C1", ..., each with one info record of its own name
//   open FILE                       opens the file for writing and keeps it open; prints its descriptor
//   write FD TEXT                   writes the text to the descriptor
//   fork TEXT                       one info record from a forked child, then one from the parent
//   init-under-signals DIRECTORY    logs from a signal handler before, during and after InitLogging with the
//   file
//                                   alone; prints how often
// As the first word, "early" makes a record before any library is initialised.
#include <fcntl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ara/log/logging.h"

namespace {

using ara::log::CreateLogger;
using ara::log::InitLogging;
using ara::log::Logger;
using ara::log::LogLevel;
using ara::log::LogMode;
using ara::log::SourceLocation;

constexpr SourceLocation kHere{"tests/log/log_probe.cpp", "Probe", 7};

int Number(const char* text) {
  return static_cast<int>(std::strtol(text, nullptr, 10));
}

void Init(const char* appId, const char* level, const char* mode, const char* directory) {
  InitLogging(appId, "probe", static_cast<LogLevel>(Number(level)), static_cast<LogMode>(Number(mode)),
              directory);
}

// A sanitizer is not ready that early.
#if !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer)
void LogEarly(int argc, char** argv, char** /*environment*/) {
  if (argc < 2 || std::strcmp(argv[1], "early") != 0) return;
  CreateLogger("EARL", "early", LogLevel::kVerbose).LogInfo(kHere) << "early";
}
__attribute__((section(".preinit_array"), used)) void (*const kLogEarly)(int, char**, char**) = LogEarly;
#endif

Logger* tickLogger;
std::atomic<int> ticks{0};

void OnTick(int /*signal*/) {
  tickLogger->LogError(kHere) << "tick " << ticks.load();
  ++ticks;
}

void InitUnderSignals(const char* directory) {
  constexpr int kTicks = 300;
  tickLogger = &CreateLogger("TICK", "ticks", LogLevel::kVerbose);
  struct sigaction action{};
  action.sa_handler = OnTick;
  action.sa_flags = SA_RESTART;
  sigaction(SIGALRM, &action, nullptr);
  const itimerval period{{0, 100}, {0, 100}};
  setitimer(ITIMER_REAL, &period, nullptr);
  while (ticks < kTicks / 3) pause();
  InitLogging("PROB", "probe", LogLevel::kVerbose, LogMode::kFile, directory);
  while (ticks < kTicks) pause();
  const itimerval off{};
  setitimer(ITIMER_REAL, &off, nullptr);
  std::printf("%d\n", ticks.load());
}

void LogFromFork(Logger& logger, const char* text) {
  const pid_t child = fork();
  logger.LogInfo(kHere) << text << (child == 0 ? " child" : " parent");
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
}

}  // namespace

int main(int argc, char** argv) {
  Logger* logger = nullptr;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const int left = argc - 1 - i;
    if (word == "early" && i == 1) {
    } else if (word == "init" && left >= 4) {
      Init(argv[i + 1], argv[i + 2], argv[i + 3], argv[i + 4]);
      i += 4;
    } else if (word == "logger" && left >= 2) {
      logger = &CreateLogger(argv[i + 1], "probe", static_cast<LogLevel>(Number(argv[i + 2])));
      i += 2;
    } else if (word == "error" && logger != nullptr && left >= 1) {
      logger->LogError(kHere) << argv[++i];
    } else if (word == "warn" && logger != nullptr && left >= 1) {
      logger->LogWarn(kHere) << argv[++i];
    } else if (word == "info" && logger != nullptr && left >= 1) {
      logger->LogInfo(kHere) << argv[++i];
    } else if (word == "debug" && logger != nullptr && left >= 1) {
      logger->LogDebug(kHere) << argv[++i];
    } else if (word == "loggers" && left >= 1) {
      const int count = Number(argv[++i]);
      for (int n = 0; n < count; ++n) {
        const std::string id = "C" + std::to_string(n);
        CreateLogger(id, "probe", LogLevel::kInfo).LogInfo(kHere) << id;
      }
    } else if (word == "open" && left >= 1) {
      std::printf("%d\n", open(argv[++i], O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    } else if (word == "write" && left >= 2) {
      if (write(Number(argv[i + 1]), argv[i + 2], std::strlen(argv[i + 2])) < 0) std::printf("not written\n");
      i += 2;
    } else if (word == "fork" && logger != nullptr && left >= 1) {
      LogFromFork(*logger, argv[++i]);
    } else if (word == "init-under-signals" && left >= 1) {
      InitUnderSignals(argv[++i]);
    } else {
      std::printf("log_probe: cannot do %s\n", argv[i]);
      return 2;
    }
  }
  return 0;
}
