// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <string>
#include <vector>

#include "copies.h"
#include "measure.h"
#include "ormis/memcpy_s.h"
#include "program.h"
#include "stream_copy.h"

namespace {

using measure::Copies;
using measure::Median;
using measure::Require;
using Ormis::portable::CopyRoutine;
using Ormis::portable::FlushLines;

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

Copies::Reach ReachOf(bool far) {
  return far ? Copies::Reach::kFar : Copies::Reach::kNear;
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
    const int threads = measure::CountArgument(argc, argv, 2, "THREADS", 0, 1000);
    const double seconds = measure::SecondsArgument(argc, argv, 3, 0);
    const Copies copies(static_cast<std::size_t>(threads), ReachOf(buffers == "far"));
    (void)copies.Rate({"memcpy_s", CopyChecked}, seconds / 10);  // warms up
    (void)std::printf("%.1f\n", copies.Rate({"memcpy_s", CopyChecked}, seconds));
    return 0;
  }
  Require(argc <= 3, "reading the arguments [ROUNDS [SECONDS]] or own|far THREADS SECONDS");
  const int rounds = measure::CountArgument(argc, argv, 1, "ROUNDS", 7);
  const double seconds = measure::SecondsArgument(argc, argv, 2, 0.5);

  std::vector<CopyRoutine> routines{{"memcpy_s", CopyChecked}, {"STREAM copy", CopyAsStream}};
  for (const CopyRoutine& routine : Ormis::portable::CopyRoutines()) routines.push_back(routine);
  (void)std::printf("| threads | buffers |");
  for (const CopyRoutine& routine : routines) (void)std::printf(" %s |", routine.name);
  (void)std::printf(" memcpy_s / memcpy | memcpy_s / STREAM copy |\n|---|---|---|---|");
  for (std::size_t i = 0; i < routines.size(); ++i) (void)std::printf("---|");
  (void)std::printf("\n");

  for (const bool far : {false, true}) {
    for (const std::size_t threads : {1U, 2U, 4U, 10U}) {
      const Copies copies(threads, ReachOf(far));
      std::vector<std::vector<double>> rates(routines.size());
      for (int round = -1; round < rounds; ++round) {  // the first one warms up
        for (std::size_t i = 0; i < routines.size(); ++i) {
          const double rate = copies.Rate(routines[i], seconds);
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
