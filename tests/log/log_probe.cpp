// SPDX-License-Identifier: Apache-2.0

// log_probe WORD...: carries out these commands in order:
//   init APP LEVEL MODE DIRECTORY   InitLogging
//   logger CONTEXT LEVEL            CreateLogger; what follows logs to it
//   error|warn|info|debug TEXT      one record
//   loggers COUNT                   loggers "C0", "C1", ..., each with one info record of its own name
//   open FILE                       opens the file for writing and leaves it open; prints its descriptor
//   write FD TEXT                   writes the text to the descriptor
//   fork TEXT                       one info record from a forked child, which exits, then one from the
//                                   parent
//   init-under-signals DIRECTORY    logs from a signal handler before, during and after an InitLogging with
//   only
//                                   the log file; prints how often
//   flood THREADS COUNT             COUNT info records from each of THREADS threads at the same time
//   waits                           prints how often the threads of floods have waited, and how long their
//                                   longest record took
//   touch FILE                      makes the file
//   await FILE                      waits until the file exists
//   sigpipe                         prints whether SIGPIPE has its default action
//   unblocked                       prints how many other threads do not block SIGINT
//   descriptors                     prints the open files without the standard streams
//   errno                           prints what errno was when main began
//   exec WORD                       runs the probe with that command in a child process
// The first command may be "early": it makes a record before any library is initialised.
#include <fcntl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ara/log/logging.h"
#include "delivery_times.h"

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

// Not under a sanitizer, which is not initialised that early.
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
  constexpr int kTicks = 100;
  tickLogger = &CreateLogger("TICK", "ticks", LogLevel::kVerbose);
  struct sigaction action{};
  action.sa_handler = OnTick;
  action.sa_flags = SA_RESTART;
  sigaction(SIGALRM, &action, nullptr);
  const itimerval period{{0, 100}, {0, 100}};
  setitimer(ITIMER_REAL, &period, nullptr);
  while (ticks < kTicks) pause();
  InitLogging("PROB", "probe", LogLevel::kVerbose, LogMode::kFile, directory);
  // During a long InitLogging there may be any number.
  const int ticksBefore = ticks;
  while (ticks < ticksBefore + kTicks) pause();
  const itimerval off{};
  setitimer(ITIMER_REAL, &off, nullptr);
  std::printf("%d\n", ticks.load());
}

void LogFromFork(Logger& logger, const char* text) {
  (void)std::fflush(nullptr);
  const pid_t child = fork();
  if (child != 0) waitpid(child, nullptr, 0);
  logger.LogInfo(kHere) << text << (child == 0 ? " child" : " parent");
  if (child != 0) return;
#if __has_feature(address_sanitizer)
  _exit(0);  // no leak check: what the parent's other threads own looks leaked here
#else
  std::exit(0);
#endif
}

log_test::DeliveryTimes floodTimes;

void Flood(Logger& logger, int threads, int records) {
  std::vector<std::thread> writers;
  writers.reserve(static_cast<std::size_t>(threads));
  for (int writer = 0; writer < threads; ++writer) {
    writers.emplace_back([&logger, writer, records] {
      floodTimes.Measure(records, [&](int i) { logger.LogInfo(kHere) << "flood " << writer << " " << i; });
    });
  }
  for (std::thread& writer : writers) writer.join();
}

void PrintDescriptors() {
  for (int descriptor = STDERR_FILENO + 1; descriptor < 1024; ++descriptor) {
    std::error_code error;
    const auto target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error);
    if (!error) std::printf("%d %s\n", descriptor, target.c_str());
  }
}

void ExecProbe(const char* word) {
  (void)std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    (void)execl("/proc/self/exe", "log_probe", word, nullptr);
    _exit(127);
  }
  waitpid(child, nullptr, 0);
}

bool SigpipeHasDefaultAction() {
  struct sigaction action{};
  sigaction(SIGPIPE, nullptr, &action);
  return action.sa_handler == SIG_DFL;
}

int OtherThreadsThatTakeSigint() {
  int count = 0;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
    if (Number(thread.path().filename().c_str()) == getpid()) continue;
    std::ifstream status(thread.path() / "status");
    std::string word;
    while (status >> word && word != "SigBlk:") {
    }
    if (!(status >> word)) continue;  // it has just ended
    count += (std::strtoull(word.c_str(), nullptr, 16) >> (SIGINT - 1) & 1) == 0 ? 1 : 0;
  }
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  const int errnoAtStart = errno;
  Logger* logger = nullptr;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const int left = argc - 1 - i;
    if (word == "early" && i == 1) {
    } else if (word == "init" && left >= 4) {
      Init(argv[i + 1], argv[i + 2], argv[i + 3], argv[i + 4]);
      i += 4;
    } else if (word == "logger" && left >= 2) {
      logger = &CreateLogger(argv[i + 1], "a context", static_cast<LogLevel>(Number(argv[i + 2])));
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
    } else if (word == "flood" && logger != nullptr && left >= 2) {
      Flood(*logger, Number(argv[i + 1]), Number(argv[i + 2]));
      i += 2;
    } else if (word == "touch" && left >= 1) {
      std::ofstream(argv[++i]).flush();
    } else if (word == "await" && left >= 1) {
      for (++i; !std::filesystem::exists(argv[i]);) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    } else if (word == "waits") {
      std::printf("waits %ld, longest %ld us, on the processor %ld us\n", floodTimes.waits.load(),
                  static_cast<long>(floodTimes.longestNs / 1000),
                  static_cast<long>(floodTimes.longestOnProcessorNs / 1000));
    } else if (word == "errno") {
      std::printf("%d\n", errnoAtStart);
    } else if (word == "descriptors") {
      PrintDescriptors();
    } else if (word == "exec" && left >= 1) {
      ExecProbe(argv[++i]);
    } else if (word == "sigpipe") {
      std::printf("SIGPIPE %s\n", SigpipeHasDefaultAction() ? "default" : "changed");
    } else if (word == "unblocked") {
      std::printf("unblocked %d\n", OtherThreadsThatTakeSigint());
    } else if (word == "init-under-signals" && left >= 1) {
      InitUnderSignals(argv[++i]);
    } else {
      std::printf("log_probe: cannot do %s\n", argv[i]);
      return 2;
    }
  }
  return 0;
}
