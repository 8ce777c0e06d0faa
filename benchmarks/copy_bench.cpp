// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cpu_stress.h"
#include "ormis/memcpy_s.h"
#include "program.h"
#include "stream_copy.h"

namespace {

using Clock = std::chrono::steady_clock;
using Ormis::portable::CopyRoutine;
using Ormis::portable::FlushLines;

void Require(bool condition, const char* what) {
  if (condition) return;
  (void)std::fprintf(stderr, "copy_bench: %s failed\n", what);
  std::exit(1);
}

void CopyChecked(void* destination, const void* source, std::size_t bytes, FlushLines) {
  (void)memcpy_s(destination, bytes, source, bytes);
}

/// One element at a time: the compiler may vectorize this loop, but may not replace it by memcpy.
[[clang::no_builtin("memcpy", "memmove")]] void CopyAsStream(void* destination, const void* source,
                                                             std::size_t bytes, FlushLines) {
  auto* to = static_cast<double*>(destination);
  const auto* from = static_cast<const double*>(source);
  for (std::size_t i = 0; i < bytes / sizeof(double); ++i) to[i] = from[i];
}

/// More memory than any cache holds, for all threads together.
constexpr std::size_t kFarBytes = std::size_t{1} << 30;

struct Pair {
  std::unique_ptr<std::uint8_t[]> source;
  std::unique_ptr<std::uint8_t[]> destination;
};

/// Every page is written once, so that it is not the shared zero page.
std::vector<Pair> MakePairs(std::size_t count) {
  std::vector<Pair> pairs(count);
  for (Pair& pair : pairs) {
    pair.source.reset(new std::uint8_t[kCopyBytes]);
    pair.destination.reset(new std::uint8_t[kCopyBytes]);
    std::fill_n(pair.source.get(), kCopyBytes, std::uint8_t{1});
    std::fill_n(pair.destination.get(), kCopyBytes, std::uint8_t{2});
  }
  return pairs;
}

/// GB/s of all threads together.
double Rate(const CopyRoutine& routine, const std::vector<std::vector<Pair>>& pairs, double seconds) {
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> copies{0};
  std::vector<std::thread> threads;
  threads.reserve(pairs.size());
  const Clock::time_point start = Clock::now();
  for (const std::vector<Pair>& own : pairs) {
    threads.emplace_back([&routine, &own, &stop, &copies] {
      std::uint64_t done = 0;
      while (!stop.load(std::memory_order_relaxed)) {
        const Pair& pair = own[done % own.size()];
        routine.copy(pair.destination.get(), pair.source.get(), kCopyBytes, nullptr);
        ++done;
      }
      copies += done;
    });
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  stop = true;
  for (std::thread& thread : threads) thread.join();
  const double took = std::chrono::duration<double>(Clock::now() - start).count();
  return static_cast<double>(copies) * 2.0 * static_cast<double>(kCopyBytes) / took / 1e9;
}

/// The buffers of all threads: two for each thread, or so many that no cache holds them.
std::vector<std::vector<Pair>> MakePairsOf(std::size_t threads, bool far) {
  const std::size_t pairsAThread =
      far ? std::max(std::size_t{2}, kFarBytes / (2 * kCopyBytes) / threads) : std::size_t{1};
  std::vector<std::vector<Pair>> pairs;
  for (std::size_t i = 0; i < threads; ++i) pairs.push_back(MakePairs(pairsAThread));
  return pairs;
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

const char* const kUsage = R"(usage: copy_bench [ROUNDS [SECONDS]]
       copy_bench own|far THREADS SECONDS
Measures how fast copies move memory: memcpy_s, the routines that it chooses from, and the copy loop of STREAM.
The second form prints one figure of memcpy_s, so that scripts can take turns with other programs.

Every thread copies a buffer of the CPU stress's size into another, over and over. "own": each thread has two
buffers, as in the CPU stress; large caches hold them.
memcpy_s alone removes them from the caches, as it does for the stress. "far": each thread goes through so many pairs that no
cache holds them. All routines take turns in each round. The figure is the median of the rounds, in GB/s (10^9
bytes a second, read + written, all threads together).
)";

}  // namespace

int main(int argc, char** argv) {
  measure::AnswerOptions(argc, argv, "copy_bench", kUsage);
  const std::string buffers = argc == 4 ? argv[1] : "";
  if (buffers == "own" || buffers == "far") {
    const long threads = std::strtol(argv[2], nullptr, 10);
    const double seconds = std::strtod(argv[3], nullptr);
    Require(threads > 0 && threads <= 1000 && seconds > 0.0, "reading the arguments own|far THREADS SECONDS");
    const auto pairs = MakePairsOf(static_cast<std::size_t>(threads), buffers == "far");
    (void)Rate({"memcpy_s", CopyChecked}, pairs, seconds / 10);  // warms up
    (void)std::printf("%.1f\n", Rate({"memcpy_s", CopyChecked}, pairs, seconds));
    return 0;
  }
  const int rounds = argc > 1 ? static_cast<int>(std::strtol(argv[1], nullptr, 10)) : 7;
  const double seconds = argc > 2 ? std::strtod(argv[2], nullptr) : 0.5;
  Require(rounds > 0 && seconds > 0.0 && argc <= 3, "reading the arguments [ROUNDS [SECONDS]]");

  std::vector<CopyRoutine> routines{{"memcpy_s", CopyChecked}, {"STREAM copy", CopyAsStream}};
  for (const CopyRoutine& routine : Ormis::portable::CopyRoutines()) routines.push_back(routine);
  (void)std::printf("| threads | buffers |");
  for (const CopyRoutine& routine : routines) (void)std::printf(" %s |", routine.name);
  (void)std::printf(" memcpy_s / memcpy | memcpy_s / STREAM copy |\n|---|---|---|---|");
  for (std::size_t i = 0; i < routines.size(); ++i) (void)std::printf("---|");
  (void)std::printf("\n");

  for (const bool far : {false, true}) {
    for (const std::size_t threads : {1U, 2U, 4U, 10U}) {
      const auto pairs = MakePairsOf(threads, far);
      std::vector<std::vector<double>> rates(routines.size());
      for (int round = -1; round < rounds; ++round) {  // the first one warms up
        for (std::size_t i = 0; i < routines.size(); ++i) {
          const double rate = Rate(routines[i], pairs, seconds);
          if (round >= 0) rates[i].push_back(rate);
        }
      }
      (void)std::printf("| %zu | %s |", threads, far ? "far beyond the caches" : "the stress's own two");
      for (const std::vector<double>& rate : rates) (void)std::printf(" %.1f |", Median(rate));
      (void)std::printf(" %.2f | %.2f |\n", Median(rates[0]) / Median(rates[2]),
                        Median(rates[0]) / Median(rates[1]));
      (void)std::fflush(stdout);
    }
  }
}
