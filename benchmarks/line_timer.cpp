// SPDX-License-Identifier: Apache-2.0
#include "line_timer.h"

#include <algorithm>

#include "cache_flush.h"

namespace measure {

namespace {

constexpr std::size_t kPageBytes = 4096;
constexpr std::size_t kLineBytes = 64;

void Touch(Line line) {
  (void)*static_cast<const volatile unsigned char*>(line);
}

#if defined(__x86_64__)

constexpr bool kHasCounter = true;

// The fences keep the load between the two readings.
std::uint64_t Counter() {
  __builtin_ia32_lfence();
  const std::uint64_t ticks = __builtin_ia32_rdtsc();
  __builtin_ia32_lfence();
  return ticks;
}

#elif defined(__aarch64__)

constexpr bool kHasCounter = true;

// The only counter that user programs can read. On many processors it is too slow for this; the calibration
// shows that.
std::uint64_t Counter() {
  std::uint64_t ticks = 0;
  __asm__ volatile("dsb ish\n\tisb\n\tmrs %0, cntvct_el0\n\tisb" : "=r"(ticks) : : "memory");
  return ticks;
}

#else

constexpr bool kHasCounter = false;

std::uint64_t Counter() {
  return 0;
}

#endif

std::uint32_t Quantile(const std::vector<std::uint32_t>& sorted, double share) {
  return sorted[static_cast<std::size_t>(static_cast<double>(sorted.size() - 1) * share)];
}

}  // namespace

std::vector<Line> DrawLines(const Range& range, std::size_t count, Random& random) {
  const auto begin = reinterpret_cast<std::uintptr_t>(range.memory);
  const std::size_t skipped = (kPageBytes - begin % kPageBytes) % kPageBytes;
  const std::size_t pages = range.bytes < skipped ? 0 : (range.bytes - skipped) / kPageBytes;
  if (pages == 0) return {};
  const Line first = static_cast<Line>(range.memory) + skipped;
  std::vector<std::size_t> drawn(count);
  std::uniform_int_distribution<std::size_t> page(0, pages - 1);
  for (std::size_t& one : drawn) one = page(random);
  // Two lines of one page could be a pattern that the processor fetches ahead.
  std::sort(drawn.begin(), drawn.end());
  drawn.erase(std::unique(drawn.begin(), drawn.end()), drawn.end());
  std::shuffle(drawn.begin(), drawn.end(), random);

  std::uniform_int_distribution<std::size_t> line(0, kPageBytes / kLineBytes - 1);
  std::vector<Line> lines;
  lines.reserve(drawn.size());
  for (const std::size_t one : drawn) lines.push_back(first + one * kPageBytes + line(random) * kLineBytes);
  return lines;
}

void TimeLines(const std::vector<Line>& lines, std::vector<std::uint32_t>& ticks) {
  if (!kHasCounter) return;
  for (const Line line : lines) {
    const std::size_t inPage = reinterpret_cast<std::uintptr_t>(line) % kPageBytes;
    Touch(inPage < kPageBytes / 2 ? line + kPageBytes / 2 : line - kPageBytes / 2);
    const std::uint64_t before = Counter();
    Touch(line);
    const std::uint64_t took = Counter() - before;
    ticks.push_back(static_cast<std::uint32_t>(std::min<std::uint64_t>(took, UINT32_MAX)));
  }
}

void ReadAll(const Range& range) {
  const auto* const begin = static_cast<Line>(range.memory);
  for (std::size_t at = 0; at < range.bytes; at += kLineBytes) Touch(begin + at);
}

KnownLines::KnownLines(std::size_t bytes) : bytes_(bytes + kPageBytes, 1) {}

void KnownLines::TimeRead(std::size_t count, Random& random, std::vector<std::uint32_t>& ticks) const {
  const std::vector<Line> lines = DrawLines(All(), count, random);
  ReadAll(All());
  TimeLines(lines, ticks);
}

void KnownLines::TimeFlushed(std::size_t count, Random& random, std::vector<std::uint32_t>& ticks) const {
  const std::vector<Line> lines = DrawLines(All(), count, random);
  for (const Line line : lines) Ormis::portable::FlushRoutines().back().flush(line, 1);
  Ormis::portable::EndFlush();
  TimeLines(lines, ticks);
}

Threshold FindThreshold(std::vector<std::uint32_t> read, std::vector<std::uint32_t> flushed) {
  Threshold found;
  if (read.empty() || flushed.empty()) return found;
  std::sort(read.begin(), read.end());
  std::sort(flushed.begin(), flushed.end());
  found.ticks = Quantile(flushed, 0.05) / 10 * 9;
  found.readMedian = Quantile(read, 0.5);
  found.flushedMedian = Quantile(flushed, 0.5);
  found.readAbove = ShareFromMemory(read, found);
  found.flushedBelow = 1.0 - ShareFromMemory(flushed, found);
  found.tells =
      found.ticks > 0 && found.readAbove <= 0.05 && 2.0 * found.flushedMedian >= 3.0 * found.readMedian;
  return found;
}

double ShareFromMemory(const std::vector<std::uint32_t>& ticks, const Threshold& threshold) {
  if (ticks.empty()) return 0.0;
  const auto above =
      std::count_if(ticks.begin(), ticks.end(), [&](std::uint32_t one) { return one > threshold.ticks; });
  return static_cast<double>(above) / static_cast<double>(ticks.size());
}

}  // namespace measure
