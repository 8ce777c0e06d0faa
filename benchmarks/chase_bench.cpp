// SPDX-License-Identifier: Apache-2.0
#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

#include "measure.h"
#include "program.h"

// The latency of memory as it is mostly measured, to compare the latency probe of the scope with: it shares
// no code with that.

namespace {

constexpr const char* kUsage =
    "usage: chase_bench MEBIBYTES [huge|small [SECONDS]]\n"
    "\n"
    "Follows a chain of pointers through so much memory without a pause: one thread, one line of 64 bytes an "
    "access,\n"
    "in random order. Prints the median and the mean of batches of 64 accesses, in ns an access. The mean is "
    "without\n"
    "batches of more than four times the median: something took the processor.\n"
    "huge (the default) asks the system for huge pages, small refuses them.\n";

constexpr std::size_t kLineBytes = 64;
constexpr std::size_t kHugePage = std::size_t{2} << 20;
constexpr int kBatch = 64;
constexpr double kInterruptedMedians = 4;

struct alignas(kLineBytes) Line {
  Line* next;
};

/// The lines in a random order, linked to a ring.
Line* Link(Line* lines, std::size_t count) {
  std::vector<std::uint32_t> order(count);
  std::iota(order.begin(), order.end(), 0U);
  std::mt19937 random(7);
  std::shuffle(order.begin(), order.end(), random);
  for (std::size_t i = 0; i < count; ++i) lines[order[i]].next = &lines[order[(i + 1) % count]];
  return &lines[order[0]];
}

Line* Chase(Line* line) {
  for (int i = 0; i < kBatch; ++i) line = *const_cast<Line* volatile*>(&line->next);
  return line;
}

}  // namespace

int main(int argc, char** argv) {
  using Clock = std::chrono::steady_clock;
  measure::AnswerOptions(argc, argv, "chase_bench", kUsage);
  const auto mebibytes = static_cast<std::size_t>(measure::CountArgument(argc, argv, 1, "MEBIBYTES", 256));
  const bool isSmall = argc > 2 && std::strcmp(argv[2], "small") == 0;
  measure::Require(argc <= 2 || isSmall || std::strcmp(argv[2], "huge") == 0, "reading 'huge' or 'small'");
  const double seconds = measure::SecondsArgument(argc, argv, 3, 2);
  const std::size_t bytes = mebibytes << 20;
  void* const memory =
      mmap(nullptr, bytes + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  measure::Require(memory != MAP_FAILED, "taking the memory");
  const std::size_t skipped = (kHugePage - reinterpret_cast<std::uintptr_t>(memory) % kHugePage) % kHugePage;
  auto* const lines = reinterpret_cast<Line*>(static_cast<unsigned char*>(memory) + skipped);
  (void)madvise(lines, bytes, isSmall ? MADV_NOHUGEPAGE : MADV_HUGEPAGE);
  Line* line = Link(lines, bytes / sizeof(Line));
  // Once around, or a second: what linking has left in the caches.
  const Clock::time_point settled = Clock::now() + std::chrono::seconds(1);
  for (std::size_t i = 0; i < bytes / sizeof(Line) / kBatch && Clock::now() < settled; ++i)
    line = Chase(line);

  std::vector<double> batches;
  const Clock::time_point begin = Clock::now();
  Clock::time_point now = begin;
  while (std::chrono::duration<double>(now - begin).count() < seconds) {
    const Clock::time_point before = now;
    line = Chase(line);
    now = Clock::now();
    batches.push_back(std::chrono::duration<double, std::nano>(now - before).count() / kBatch);
  }
  const double median = measure::Median(batches);
  const auto whole = std::partition(batches.begin(), batches.end(),
                                    [median](double ns) { return ns <= kInterruptedMedians * median; });
  const double mean =
      std::accumulate(batches.begin(), whole, 0.0) / static_cast<double>(whole - batches.begin());
  (void)std::printf("%.1f %.1f\n", median, mean);
  return line == nullptr ? 1 : 0;
}
