// SPDX-License-Identifier: Apache-2.0

// What the scaler asks of its kernel, of the flushes and of the routine that writes the result: these here
// note their calls.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "area_scaler.h"
#include "stream_copy.h"

namespace {

using Ormis::host::AreaColumns;
using Ormis::host::AreaKernel;
using Ormis::host::AreaScaler;
using Ormis::host::PlaneShape;
using testing::ElementsAre;

using Range = std::pair<std::size_t, std::size_t>;  // offset and bytes

std::vector<std::pair<const void*, std::size_t>> writes;

void NoteWrite(void* destination, const void* source, std::size_t bytes, Ormis::portable::FlushLines flush) {
  EXPECT_EQ(flush, nullptr);
  writes.emplace_back(destination, bytes);
  std::memcpy(destination, source, bytes);
}

constexpr Ormis::portable::CopyRoutine kNotingWriter{"noting", NoteWrite};

/// What was asked of the kernel.
struct Asked {
  std::vector<std::string> steps;
  AreaColumns columns;
};

Asked noted;
const std::uint8_t* sourceBegin = nullptr;
std::size_t sourceBytes = 0;
std::size_t rowBytes = 0;

void NoteStep(const char* step, const std::uint8_t* row, std::uint16_t weight, std::size_t length,
              const std::uint8_t* sourceEnd, const std::uint16_t* sums) {
  const auto number = static_cast<std::size_t>(row - sourceBegin) / rowBytes;
  noted.steps.push_back(step + std::to_string(number) + " x " + std::to_string(weight));
  EXPECT_EQ(length, rowBytes);
  EXPECT_EQ(sourceEnd, sourceBegin + sourceBytes);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(sums) % 64, 0U);
}

void NoteSet(const std::uint8_t* row, std::uint16_t weight, std::size_t length, const std::uint8_t* sourceEnd,
             std::uint16_t* sums) {
  NoteStep("set ", row, weight, length, sourceEnd, sums);
}

void NoteAdd(const std::uint8_t* row, std::uint16_t weight, std::size_t length, const std::uint8_t* sourceEnd,
             std::uint16_t* sums) {
  NoteStep("add ", row, weight, length, sourceEnd, sums);
}

void NoteFinish(const AreaColumns& columns, const std::uint16_t* sums, std::uint8_t* result) {
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(sums) % 64, 0U);
  std::memset(result, 7, std::size_t{columns.width} * columns.channels);
  noted.steps.emplace_back("finish");
  noted.columns = columns;
}

constexpr AreaKernel kNotingKernel{"noting", NoteSet, NoteAdd, NoteFinish};

/// Scales zeros and returns what was asked of the kernel meanwhile.
Asked AskedBy(AreaScaler& scaler, const PlaneShape& from, const PlaneShape& to,
              Ormis::portable::FlushLines flush = nullptr) {
  const std::vector<std::uint8_t> source(from.Bytes());
  std::vector<std::uint8_t> result(to.Bytes());
  noted = {};
  sourceBegin = source.data();
  sourceBytes = source.size();
  rowBytes = std::size_t{from.width} * from.channels;
  scaler.Scale(from, source.data(), to, result.data(), flush);
  return std::move(noted);
}

Asked AskedFor(const PlaneShape& from, const PlaneShape& to) {
  AreaScaler scaler(&kNotingKernel);
  return AskedBy(scaler, from, to);
}

TEST(AreaSpyTest, EachRowIsSummedOnceWithItsWeights) {
  EXPECT_THAT(AskedFor({2, 6, 3}, {1, 2, 3}).steps,
              ElementsAre("set 0 x 1", "add 1 x 1", "add 2 x 1", "finish", "set 3 x 1", "add 4 x 1",
                          "add 5 x 1", "finish"));
  EXPECT_THAT(AskedFor({5, 5, 1}, {3, 2, 1}).steps,
              ElementsAre("set 0 x 2", "add 1 x 2", "add 2 x 1", "finish", "set 2 x 1", "add 3 x 2",
                          "add 4 x 2", "finish"));
}

TEST(AreaSpyTest, ResultRowsWithinOneSourceRowAreMadeOnce) {
  EXPECT_THAT(AskedFor({4, 2, 1}, {4, 7, 1}).steps,
              ElementsAre("set 0 x 2", "finish", "set 0 x 1", "add 1 x 1", "finish", "set 1 x 2", "finish"));
  EXPECT_THAT(AskedFor({4, 2, 1}, {4, 4, 1}).steps,
              ElementsAre("set 0 x 1", "finish", "set 1 x 1", "finish"));
  EXPECT_THAT(AskedFor({4, 1, 1}, {4, 1000, 1}).steps, ElementsAre("set 0 x 1", "finish"));
}

// Beyond these sizes the numbers do not fit into those of a kernel, or its table becomes too large.
TEST(AreaSpyTest, KernelsAreUsedUpToTheirLimits) {
  struct Row {
    PlaneShape from, to;
    bool used;
  };
  for (const Row& row : {Row{{1, 257, 1}, {1, 1, 1}, true},
                         {{1, 258, 1}, {1, 1, 1}, false},
                         {{33600, 250, 1}, {1, 1, 1}, true},  // 8 400 000 units
                         {{33600, 251, 1}, {1, 1, 1}, false},
                         {{2, 1, 1}, {32767, 1, 1}, true},
                         {{3, 1, 1}, {32768, 1, 1}, false},
                         {{250001, 1, 1}, {4096, 1, 1}, true},  // 2^20 weights
                         {{258051, 1, 1}, {4096, 1, 1}, false}}) {
    EXPECT_EQ(!AskedFor(row.from, row.to).steps.empty(), row.used)
        << row.from.width << " x " << row.from.height << " to " << row.to.width << " x " << row.to.height;
  }
}

/// Pixels of the source under the result pixel `x`.
std::pair<std::uint64_t, std::uint64_t> PixelsUnder(std::uint64_t x, std::uint64_t from, std::uint64_t to) {
  return {x * from / to, ((x + 1) * from + to - 1) / to};
}

TEST(AreaSpyTest, TheKernelGetsNoMoreThanTheColumnsNeed) {
  const std::pair<std::uint32_t, std::uint32_t> sizes[] = {
      {1920, 416}, {60, 13}, {2, 1}, {3, 1}, {4, 1}, {5, 1}, {6, 1},  {7, 2},   {8, 3},     {9, 9},
      {1, 5},      {1, 6},   {3, 2}, {5, 4}, {7, 6}, {8, 6}, {9, 12}, {13, 60}, {127, 126}, {38, 19}};
  for (const auto& [from, to] : sizes) {
    for (std::uint32_t channels = 1; channels <= 4; ++channels) {
      SCOPED_TRACE(testing::Message() << from << " to " << to << ", " << channels << " channels");
      const AreaColumns columns = AskedFor({from, 1, channels}, {to, 1, channels}).columns;
      std::uint64_t most = 0;
      for (std::uint32_t x = 0; x < to; ++x) {
        const auto [first, end] = PixelsUnder(x, from, to);
        most = std::max(most, end - first);
        if (x < columns.period) EXPECT_EQ(columns.first.at(x), first * channels) << x;
      }
      EXPECT_EQ(columns.width, to);
      EXPECT_EQ(columns.channels, channels);
      EXPECT_EQ(columns.pairs, (most + 1) / 2);
      const std::uint32_t repeats = 2 * to / std::gcd(from, to);
      const std::uint32_t period = std::min(repeats, to + to % 2);
      EXPECT_EQ(columns.period, period);
      EXPECT_EQ(columns.first.size(), period);
      EXPECT_EQ(columns.weights.size(), std::size_t{period} * columns.pairs * 8);
      if (period > to) {  // the pixel behind an odd row
        EXPECT_EQ(columns.first.back(), 0U);
        EXPECT_EQ(columns.weights.back(), 0);
      }
      if (period == repeats) EXPECT_EQ(columns.periodSamples, std::uint64_t{period} * from / to * channels);
    }
  }
}

TEST(AreaSpyTest, FloatsDivideByUpTo8192Units) {
  for (const auto& [from, exact] : {std::pair{PlaneShape{64, 128, 1}, true}, {{2731, 3, 1}, false}}) {
    const AreaColumns columns = AskedFor(from, {1, 1, 1}).columns;
    EXPECT_EQ(columns.floatIsExact, exact) << from.width;
    EXPECT_EQ(columns.inverse, 1.0 / static_cast<double>(from.Bytes()));
    EXPECT_EQ(columns.offset, from.Bytes() / 2 + std::uint64_t{32768} * from.width);
  }
}

TEST(AreaSpyTest, OnlySquaresOfFourPixelsAreQuarters) {
  for (const PlaneShape& from :
       {PlaneShape{12, 12, 1}, {12, 6, 1}, {6, 12, 1}, {24, 6, 1}, {6, 24, 1}, {24, 12, 1}}) {
    const bool quarters = from.width == 12 && from.height == 12;
    EXPECT_EQ(AskedFor(from, {6, 6, 1}).columns.quarters, quarters) << from.width << " x " << from.height;
  }
}

TEST(AreaSpyTest, AScalerKeepsTheColumnsOfTheSameSizesAlone) {
  AreaScaler scaler(&kNotingKernel);
  const PlaneShape from{12, 12, 1};
  const AreaColumns first = AskedBy(scaler, from, {6, 6, 1}).columns;
  EXPECT_TRUE(first.quarters);
  EXPECT_TRUE(AskedBy(scaler, from, {6, 6, 1}).columns.quarters);
  EXPECT_FALSE(AskedBy(scaler, from, {6, 4, 1}).columns.quarters) << "another height";
  EXPECT_EQ(AskedBy(scaler, from, {4, 4, 1}).columns.width, 4U);
  EXPECT_EQ(AskedBy(scaler, {12, 12, 2}, {4, 4, 2}).columns.channels, 2U);
  EXPECT_EQ(AskedBy(scaler, {8, 12, 2}, {4, 4, 2}).columns.periodSamples, 8U);
  // A table that is too large leaves nothing behind that could be taken for that of the sizes before.
  EXPECT_TRUE(AskedBy(scaler, {258051, 1, 1}, {4096, 1, 1}).steps.empty());
  EXPECT_EQ(AskedBy(scaler, {8, 12, 2}, {4, 4, 2}).columns.width, 4U);
}

std::vector<std::pair<const void*, std::size_t>> flushes;

void NoteFlush(const void* memory, std::size_t bytes) {
  flushes.emplace_back(memory, bytes);
}

/// The notes as offsets in `memory`.
std::vector<Range> Offsets(const std::vector<std::pair<const void*, std::size_t>>& notes,
                           const std::uint8_t* memory) {
  std::vector<Range> ranges;
  for (const auto& [at, bytes] : notes) {
    ranges.emplace_back(static_cast<std::size_t>(static_cast<const std::uint8_t*>(at) - memory), bytes);
  }
  return ranges;
}

TEST(AreaSpyTest, TheSourceIsFlushedInWholeLinesBehindTheRows) {
  alignas(64) static std::uint8_t memory[1024];
  std::uint8_t* const result = memory + 512;
  for (AreaScaler scaler : {AreaScaler(), AreaScaler(nullptr)}) {
    for (const std::size_t offset : {0U, 10U}) {
      flushes.clear();
      scaler.Scale({16, 4, 4}, memory + offset, {16, 2, 4}, result, NoteFlush);
#if !defined(__x86_64__)
      EXPECT_EQ(flushes.at(flushes.size() - 3),
                std::pair(static_cast<const void*>(result), std::size_t{128}));
      flushes.erase(flushes.end() - 3);
#endif
      std::vector<Range> expected = {{offset, 128 - offset}, {128, 128}};
      if (offset != 0) expected.emplace_back(256, offset);
      expected.emplace_back(512, 1);
      expected.emplace_back(512 + 127, 1);
      EXPECT_EQ(Offsets(flushes, memory), expected) << offset;
    }
  }
}

/// What is written of a result of `height` rows of `width` bytes, `offset` behind the begin of a line.
std::vector<Range> WritesOf(std::uint32_t width, std::uint32_t height, std::size_t offset) {
  const std::vector<std::uint8_t> source(width);
  std::vector<std::uint8_t> memory(std::size_t{width} * height + 128);
  std::uint8_t* result = memory.data();
  while (reinterpret_cast<std::uintptr_t>(result) % 64 != offset) ++result;
  writes.clear();
  AreaScaler scaler(nullptr, kNotingWriter);
  scaler.Scale({width, 1, 1}, source.data(), {width, height, 1}, result, NoteFlush);
  return Offsets(writes, result);
}

TEST(AreaSpyTest, TheResultIsWrittenInWholeLinesOf16KibibytesAndMore) {
  EXPECT_THAT(WritesOf(64, 600, 0), ElementsAre(Range(0, 16384), Range(16384, 16384), Range(32768, 5632)));
  EXPECT_THAT(WritesOf(1, 16383, 0), ElementsAre(Range(0, 16383)));
  EXPECT_THAT(WritesOf(1, 16384, 0), ElementsAre(Range(0, 16384), Range(16384, 0)));
  EXPECT_THAT(WritesOf(16383, 2, 0), ElementsAre(Range(0, 32704), Range(32704, 62)));
  EXPECT_THAT(WritesOf(16384, 2, 10), ElementsAre(Range(0, 16374), Range(16374, 16384), Range(32758, 10)));
}

}  // namespace
