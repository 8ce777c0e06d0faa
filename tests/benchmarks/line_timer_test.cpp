// SPDX-License-Identifier: Apache-2.0
#include "line_timer.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <set>
#include <string>

#include "cache_flush.h"
#include "cache_size.h"

namespace measure {
namespace {

using testing::DoubleNear;
using testing::IsEmpty;

constexpr std::size_t kPage = 4096;
constexpr std::size_t kMiB = std::size_t{1} << 20;

Random Draws() {
  return Random{7};  // the same draws each time
}

std::vector<std::uint32_t> Times(std::size_t count, std::uint32_t from, std::uint32_t to) {
  std::vector<std::uint32_t> times;
  for (std::size_t i = 0; i < count; ++i)
    times.push_back(from + static_cast<std::uint32_t>(i * (to - from) / count));
  return times;
}

TEST(DrawLinesTest, DrawsOneLineAPageAndOnlyFromWholePages) {
  Random random = Draws();
  const std::vector<unsigned char> buffer(20 * kPage);
  const Range range{buffer.data() + 1, buffer.size() - 1};
  const std::vector<Line> lines = DrawLines(range, 1000, random);
  std::set<std::uintptr_t> pages;
  for (const Line line : lines) {
    const auto address = reinterpret_cast<std::uintptr_t>(line);
    EXPECT_EQ(address % 64, 0);
    EXPECT_TRUE(pages.insert(address / kPage).second) << "two lines of one page";
    const auto first = address / kPage * kPage;
    EXPECT_GE(first, reinterpret_cast<std::uintptr_t>(range.memory));
    EXPECT_LE(first + kPage, reinterpret_cast<std::uintptr_t>(range.memory) + range.bytes);
  }
  EXPECT_EQ(pages.size(), 19);
}

TEST(DrawLinesTest, ARangeWithoutAWholePageGivesNone) {
  Random random = Draws();
  const std::vector<unsigned char> buffer(3 * kPage);
  const std::size_t toPage = kPage - reinterpret_cast<std::uintptr_t>(buffer.data()) % kPage;
  EXPECT_THAT(DrawLines({buffer.data() + toPage + 1, kPage + kPage - 2}, 10, random), IsEmpty());
  EXPECT_THAT(DrawLines({buffer.data(), 0}, 10, random), IsEmpty());
}

TEST(ThresholdTest, TellsTimesThatLieApart) {
  const Threshold threshold = FindThreshold(Times(100, 50, 80), Times(100, 260, 300));
  EXPECT_TRUE(threshold.tells);
  EXPECT_GT(threshold.ticks, 80);
  EXPECT_LT(threshold.ticks, 260);
  EXPECT_EQ(threshold.readAbove, 0.0);
  EXPECT_EQ(threshold.flushedBelow, 0.0);
  EXPECT_THAT(ShareFromMemory({60, 70, 80, 270}, threshold), DoubleNear(0.25, 1e-9));
}

TEST(ThresholdTest, TellsNothingOfTimesThatOverlapOrAreMissing) {
  EXPECT_FALSE(FindThreshold(Times(100, 50, 80), Times(100, 50, 80)).tells);
  EXPECT_FALSE(FindThreshold(Times(100, 200, 400), Times(100, 260, 700)).tells) << "a part of them overlaps";
  EXPECT_FALSE(FindThreshold(Times(100, 200, 210), Times(100, 250, 260)).tells) << "they lie too close";
  EXPECT_FALSE(FindThreshold(Times(100, 0, 1), Times(100, 0, 1)).tells) << "a counter that stands still";
  EXPECT_FALSE(FindThreshold({}, {}).tells);
  EXPECT_FALSE(FindThreshold({}, Times(100, 260, 300)).tells);
}

// The lines of one buffer, half of which is flushed.
TEST(KnownLinesTest, FlushedLinesAreToldFromReadOnes) {
  Random random = Draws();
  const KnownLines known(kMiB / 4);
  std::vector<std::uint32_t> read;
  std::vector<std::uint32_t> flushed;
  for (int round = 0; round < 20; ++round) {
    known.TimeRead(40, random, read);
    known.TimeFlushed(40, random, flushed);
  }
  const Threshold threshold = FindThreshold(read, flushed);
  if (!threshold.tells) {
    GTEST_SKIP() << "load times do not tell caches from memory here: just read " << threshold.readMedian
                 << " ticks, just flushed " << threshold.flushedMedian;
  }
  const std::vector<unsigned char> buffer(kMiB / 4, 1);
  const Range half{buffer.data(), buffer.size() / 2};
  const Range other{buffer.data() + half.bytes, half.bytes};
  std::vector<std::uint32_t> kept;
  std::vector<std::uint32_t> removed;
  for (int round = 0; round < 20; ++round) {
    ReadAll({buffer.data(), buffer.size()});
    Ormis::portable::FlushRoutines().back().flush(other.memory, other.bytes);
    Ormis::portable::EndFlush();
    TimeLines(DrawLines(half, 30, random), kept);
    TimeLines(DrawLines(other, 30, random), removed);
  }
  // Other work of the machine may take lines out of the caches, and puts none in.
  EXPECT_LT(ShareFromMemory(kept, threshold), 0.5);
  EXPECT_GT(ShareFromMemory(removed, threshold), 0.9);
}

std::vector<CacheStep> Steps(double (*fromMemory)(double bytes)) {
  std::vector<CacheStep> steps;
  for (double bytes = kMiB; bytes < 300.0 * kMiB; bytes *= 1.2) {
    steps.push_back({static_cast<std::size_t>(bytes), fromMemory(bytes)});
  }
  return steps;
}

TEST(SizeOfCacheTest, FindsACacheThatReplacesTheOldestLine) {
  const CacheSize size = SizeOfCache(Steps([](double bytes) { return bytes <= 32.0 * kMiB ? 0.01 : 0.99; }));
  EXPECT_NEAR(static_cast<double>(size.bytes) / kMiB, 30.0, 4.0);
  EXPECT_FALSE(size.mayBeLarger);
}

TEST(SizeOfCacheTest, FindsACacheThatKeepsAPartOfALargerBuffer) {
  const CacheSize size =
      SizeOfCache(Steps([](double bytes) { return bytes <= 32.0 * kMiB ? 0.0 : 1.0 - 32.0 * kMiB / bytes; }));
  EXPECT_NEAR(static_cast<double>(size.bytes) / kMiB, 32.0, 1.0);
}

TEST(SizeOfCacheTest, OneDisturbedStepChangesNothing) {
  std::vector<CacheStep> steps = Steps([](double bytes) { return bytes <= 32.0 * kMiB ? 0.01 : 0.99; });
  steps[3].fromMemory = 0.9;
  steps[steps.size() - 1].fromMemory = 0.8;  // a fifth of 280 MiB
  EXPECT_NEAR(static_cast<double>(SizeOfCache(steps).bytes) / kMiB, 30.0, 4.0);
}

TEST(SizeOfCacheTest, SaysWhenEvenTheLargestBufferStays) {
  EXPECT_TRUE(SizeOfCache(Steps([](double) { return 0.0; })).mayBeLarger);
  EXPECT_EQ(SizeOfCache(Steps([](double) { return 1.0; })).bytes, 0);
}

TEST(SizeOfCacheTest, ANetworkNeedsFourTimesTheCache) {
  EXPECT_EQ(NetworkMegabytes(32 * kMiB), 135);
  EXPECT_EQ(NetworkMegabytes(25'000'000), 100);
}

TEST(NetworkAdviceTest, NamesACommandOnlyForANetworkThatCanBeMade) {
  const std::string needs =
      "A network that loads the memory needs weights of four times\nthe measured size: ";
  EXPECT_EQ(NetworkAdvice({25'000'000, false}), needs + "100 MB (`make_network --memory 100 FILE`).");
  EXPECT_EQ(NetworkAdvice({500'000'000, true}),
            needs + "at least 2000 MB (`make_network --memory 2000 FILE`).");
  EXPECT_EQ(NetworkAdvice({500'000'001, false}),
            needs + "2001 MB (`make_network --memory` makes 2000 MB at most).");
  EXPECT_EQ(NetworkAdvice({0, false}), "");
}

}  // namespace
}  // namespace measure
