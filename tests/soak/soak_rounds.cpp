// SPDX-License-Identifier: Apache-2.0

// Runs the benchmark again and again in one process, as a program that lives longer than one run would:
//
//   soak_rounds CONFIG SECONDS ROUNDS LONGEST RESTS
//
// Each round initialises the platform, launches the stresses of the configuration with all monitors, lets
// them run for 1 to LONGEST seconds, joins all threads and releases the platform. The rounds go on for
// SECONDS, and there are at least ROUNDS. After each round a line of the file RESTS gets the memory,
// descriptors and threads of the process. Failures are only logged: the preloaded library makes them.
#include <malloc.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "stress_bencmark.h"

namespace {

using Clock = std::chrono::steady_clock;

void StartLogging() {
  // Called once, because it keeps the settings of earlier calls.
  (void)std::signal(SIGINT, SignalHandler);
  ara::log::InitLogging("STBM", "soak", ara::log::LogLevel::kInfo, ara::log::LogMode::kFile, "./log");
  Ormis::OrmisLogger::GetInstance().logger =
      &ara::log::CreateLogger("STBM", "STBM", ara::log::LogLevel::kInfo);
}

void RunRound(const std::string& configuration, std::uint32_t seconds) {
  StressBenchmark benchmark(configuration);
  benchmark.runTimes = seconds;
  stopFlag = 0;
  // The failures are random, so a later call works.
  while (Ormis::QetInitialize(benchmark.context, benchmark.contextParams) != 0) {
  }
  if (benchmark.Parse() != 0) std::abort();
  benchmark.Start();
  while (!benchmark.Release()) {
  }
}

long EntriesOf(const char* folder) {
  long count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) count += entry.exists() ? 1 : 0;
  return count;
}

/// The process's anonymous memory, in KiB: without mapped files.
long AnonymousKiB() {
  std::ifstream rollup("/proc/self/smaps_rollup");
  for (std::string word; rollup >> word;) {
    long kib = 0;
    if (word == "Anonymous:" && rollup >> kib) return kib;
  }
  return 0;
}

void NoteRest(std::FILE* rests, Clock::time_point start) {
  // The kernel lists a joined thread for a moment longer.
  for (int i = 0; i < 100 && EntriesOf("/proc/self/task") > 1; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  (void)malloc_trim(0);  // without it, freed memory would count, too
  const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start);
  (void)std::fprintf(rests, "%ld,%ld,%ld,%ld\n", static_cast<long>(elapsed.count()), AnonymousKiB(),
                     EntriesOf("/proc/self/fd"), EntriesOf("/proc/self/task"));
  (void)std::fflush(rests);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    (void)std::fprintf(stderr, "usage: soak_rounds CONFIG SECONDS ROUNDS LONGEST RESTS\n");
    return 2;
  }
  const auto seconds = std::chrono::seconds(std::strtol(argv[2], nullptr, 10));
  const long rounds = std::strtol(argv[3], nullptr, 10);
  const long longest = std::strtol(argv[4], nullptr, 10);
  std::FILE* const rests = std::fopen(argv[5], "we");
  if (rests == nullptr) {
    std::perror(argv[5]);
    return 2;
  }
  StartLogging();
  const Clock::time_point start = Clock::now();
  for (long round = 0; round < rounds || Clock::now() - start < seconds; ++round) {
    RunRound(argv[1], 1 + static_cast<std::uint32_t>(round % longest));
    NoteRest(rests, start);
  }
  return 0;
}
