// SPDX-License-Identifier: Apache-2.0

// Tests every copy routine that this processor can run. The source is compiled in, because the library
// exports none of them.

#include "stream_copy.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <cstring>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cache_lines.h"
#include "processor_flags.h"

namespace Ormis::portable {

void PrintTo(const CopyRoutine& routine, std::ostream* out) {
  *out << routine.name;
}

namespace {

class CopyTest : public testing::TestWithParam<CopyRoutine> {};

/// Bytes that do not repeat with the size of a vector, a line or a page.
std::vector<std::uint8_t> Pattern(std::size_t bytes) {
  std::vector<std::uint8_t> pattern(bytes);
  std::uint32_t state = 1;
  for (std::uint8_t& byte : pattern) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<std::uint8_t>(state >> 24U);
  }
  return pattern;
}

TEST_P(CopyTest, CopiesEveryByteAndNoOther) {
  constexpr std::size_t kMargin = 128;
  constexpr std::size_t kLargest = 70'000;
  constexpr std::uint8_t kGuard = 0xa5;
  const std::vector<std::uint8_t> source = Pattern(kLargest + kMargin);
  std::vector<std::uint8_t> destination(kMargin + kLargest + 2 * kMargin);
  std::vector<std::uint8_t> expected(destination.size());
  // Sizes around a vector, a cache line, a page, and several of them.
  for (const std::size_t bytes :
       {0UL,    1UL,    15UL,   16UL,    31UL,    63UL,    64UL,    65UL,    127UL,   128UL,   129UL,   191UL,
        4095UL, 4096UL, 4160UL, 16383UL, 16384UL, 16385UL, 16448UL, 16511UL, 32768UL, 32831UL, kLargest}) {
    for (const std::size_t to : {0UL, 1UL, 16UL, 17UL, 63UL}) {
      for (const std::size_t from : {0UL, 1UL, 32UL, 61UL}) {
        const std::size_t size = kMargin + to + bytes + kMargin;
        std::memset(destination.data(), kGuard, size);
        GetParam().copy(destination.data() + kMargin + to, source.data() + from, bytes, nullptr);

        std::memset(expected.data(), kGuard, size);
        std::memcpy(expected.data() + kMargin + to, source.data() + from, bytes);
        ASSERT_EQ(std::memcmp(destination.data(), expected.data(), size), 0)
            << bytes << " bytes from " << from << " to " << to;
      }
    }
  }
}

using Flushed = std::vector<std::pair<const void*, std::size_t>>;

Flushed flushedRanges;

void RecordFlush(const void* memory, std::size_t bytes) {
  flushedRanges.emplace_back(memory, bytes);
}

TEST_P(CopyTest, FlushesItsSourceInOrderAndWhatItWritesThroughTheCaches) {
  const std::vector<std::uint8_t> source = Pattern(70'000);
  std::vector<std::uint8_t> destination(source.size());
  for (const std::size_t bytes : {0UL, 1UL, 64UL, 4096UL, 8192UL, 8193UL, 12352UL, 60'001UL}) {
    for (const std::size_t offset : {0UL, 7UL, 64UL}) {
      SCOPED_TRACE(testing::Message() << bytes << " bytes from " << offset);
      flushedRanges.clear();
      const std::uint8_t* const from = source.data() + offset;
      std::uint8_t* const to = destination.data() + 3 * offset;
      GetParam().copy(to, from, bytes, RecordFlush);
      EXPECT_EQ(std::memcmp(to, from, bytes), 0);
      Flushed ofDestination = {{to, bytes}};
      if (GetParam().name != CopyRoutines().front().name) {
        // The lines between are written past the caches, or flushed as well.
        ofDestination.clear();
        if (bytes != 0) ofDestination = {{to, 1}, {to + bytes - 1, 1}};
#if !defined(__x86_64__)
        ofDestination.emplace_back(to, bytes);
#endif
      }
      ASSERT_GE(flushedRanges.size(), ofDestination.size());
      const auto split = flushedRanges.end() - static_cast<std::ptrdiff_t>(ofDestination.size());
      EXPECT_EQ(Flushed(split, flushedRanges.end()), ofDestination);
      const std::uint8_t* next = from;
      for (auto range = flushedRanges.begin(); range != split; ++range) {
        EXPECT_EQ(range->first, next);
        if (bytes != 0) EXPECT_NE(range->second, 0U);
        next += range->second;
      }
      EXPECT_EQ(next, from + bytes);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, CopyTest, testing::ValuesIn(CopyRoutines().begin(), CopyRoutines().end()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(CopyRoutinesTest, ThoseThatStreamFlushTheirSourceByPagesAPageLate) {
  const std::vector<std::uint8_t> source = Pattern(13'000);
  std::vector<std::uint8_t> destination(source.size() + 64);
  std::uint8_t* to = destination.data();
  while (reinterpret_cast<std::uintptr_t>(to) % 64 != 0) ++to;
  ASSERT_GT(CopyRoutines().size(), 1U);
  for (const CopyRoutine* routine = CopyRoutines().begin() + 1; routine != CopyRoutines().end(); ++routine) {
    flushedRanges.clear();
    routine->copy(to, source.data(), 12352, RecordFlush);
    std::vector<std::size_t> sizes;
    for (const auto& [memory, bytes] : flushedRanges) sizes.push_back(bytes);
    sizes.resize(4);
    EXPECT_THAT(sizes, testing::ElementsAre(4096, 4096, 64, 4096)) << routine->name;
  }
}

TEST(CopyToMemoryTest, CopiesBelowAndAboveTheLimitOfStreaming) {
  for (const std::size_t bytes : {kStreamFromBytes - 1, kStreamFromBytes, kStreamFromBytes + 1}) {
    const std::vector<std::uint8_t> source = Pattern(bytes);
    std::vector<std::uint8_t> destination(bytes);
    CopyToMemory(destination.data(), source.data(), bytes);
    ASSERT_EQ(std::memcmp(destination.data(), source.data(), bytes), 0) << bytes;
  }
}

TEST(CacheFlushTest, VisitsEachLineOfARangeOnce) {
  alignas(64) static const unsigned char memory[256]{};
  struct Row {
    std::size_t begin, bytes;
    std::vector<std::ptrdiff_t> lines;
  };
  for (const Row& row :
       {Row{0, 1, {0}}, Row{0, 64, {0}}, Row{0, 65, {0, 64}}, Row{63, 1, {0}}, Row{63, 2, {0, 64}},
        Row{64, 64, {64}}, Row{10, 182, {0, 64, 128}}, Row{10, 183, {0, 64, 128, 192}}, Row{64, 0, {}}}) {
    std::vector<std::ptrdiff_t> lines;
    ForEachLine(memory + row.begin, row.bytes, 64,
                [&lines](const unsigned char* line) { lines.push_back(line - memory); });
    EXPECT_EQ(lines, row.lines) << row.bytes << " bytes from " << row.begin;
  }
}

TEST(CacheFlushTest, LeavesTheContentAsItIs) {
  const std::vector<std::uint8_t> pattern = Pattern(20'000);
  std::vector<std::uint8_t> memory = pattern;
  for (const FlushRoutine& routine : FlushRoutines()) {
    for (const std::size_t bytes : {0UL, 1UL, 63UL, 64UL, 65UL, 4097UL, 19'000UL}) {
      memory[5] = 1;
      memory[5] = pattern[5];
      routine.flush(memory.data() + 5, bytes);
      EndFlush();
      ASSERT_TRUE(memory == pattern) << routine.name << ", " << bytes << " bytes";
    }
  }
}

TEST(CacheFlushTest, CanBeTurnedOff) {
  ASSERT_EQ(CurrentFlush(), FlushRoutines().back().flush);
  FlushCaches(false);
  EXPECT_EQ(CurrentFlush(), nullptr);
  std::vector<std::uint8_t> memory = Pattern(100);
  FlushFromCaches(memory.data(), memory.size());
  EXPECT_TRUE(memory == Pattern(100));
  FlushCaches(true);
  EXPECT_EQ(CurrentFlush(), FlushRoutines().back().flush);
}

TEST(CacheFlushTest, TheListHasWhatThisProcessorHas) {
  std::vector<std::string> expected = {"none"};
#if defined(__x86_64__)
  const std::set<std::string> flags = test::ProcessorFlags();
  for (const std::string flag : {"clflush", "clflushopt"}) {
    if (flags.count(flag) != 0) expected.push_back(flag);
  }
#else
  expected.emplace_back("civac");
#endif
  std::vector<std::string> names;
  for (const FlushRoutine& routine : FlushRoutines()) names.emplace_back(routine.name);
  EXPECT_EQ(names, expected);
}

TEST(CopyRoutinesTest, AMebibyteIsTheSmallestCopyThatStreams) {
  EXPECT_EQ(RoutineFor(0).name, CopyRoutines().front().name);
  EXPECT_EQ(RoutineFor((std::size_t{1} << 20) - 1).name, CopyRoutines().front().name);
  EXPECT_EQ(RoutineFor(std::size_t{1} << 20).name, CopyRoutines().back().name);
  EXPECT_EQ(RoutineFor(SIZE_MAX).name, CopyRoutines().back().name);
}

TEST(CopyRoutinesTest, TheLibrarysComesFirstThenAllThatThisProcessorHas) {
  std::vector<std::string> expected = {"memcpy"};
#if defined(__x86_64__)
  const std::set<std::string> flags = test::ProcessorFlags();
  ASSERT_EQ(flags.count("sse2"), 1U);
  for (const auto& [flag, name] : {std::pair{"sse2", "sse2"}, {"avx", "avx"}, {"avx512f", "avx512"}}) {
    if (flags.count(flag) != 0) expected.emplace_back(name);
  }
#else
  expected.emplace_back("stnp");
#endif
  std::vector<std::string> names;
  for (const CopyRoutine& routine : CopyRoutines()) names.emplace_back(routine.name);
  EXPECT_EQ(names, expected);
}

}  // namespace
}  // namespace Ormis::portable
