// SPDX-License-Identifier: Apache-2.0

// Compares every kernel of the scaler that this processor can run with the plain loops. They are
// linked in, because the library shows only the one that it chose.
#include "area_scaler.h"

#include <gmock/gmock.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "processor_flags.h"

namespace Ormis::host {

void PrintTo(const AreaKernel& kernel, std::ostream* out) {
  *out << kernel.name;
}

namespace {

struct Sizes {
  std::uint32_t width, height, resultWidth, resultHeight;
};

std::ostream& operator<<(std::ostream& out, const Sizes& sizes) {
  return out << sizes.width << " x " << sizes.height << " to " << sizes.resultWidth << " x "
             << sizes.resultHeight;
}

constexpr std::size_t kMostBytes = std::size_t{1920} * 108 * 4;

/// Made once, because the tests are not optimised. Its beginning differs with `from`.
const std::uint8_t* Noise(std::size_t from) {
  static const std::vector<std::uint8_t> noise = [] {
    std::vector<std::uint8_t> bytes(kMostBytes + 1000);
    std::uint32_t state = 1;
    for (std::uint8_t& byte : bytes) {
      state = state * 1664525U + 1013904223U;
      byte = static_cast<std::uint8_t>(state >> 24U);
    }
    return bytes;
  }();
  return noise.data() + from % 1000;
}

const std::uint8_t* White() {
  static const std::vector<std::uint8_t> white(kMostBytes, 255);
  return white.data();
}

class AreaKernelTest : public testing::TestWithParam<AreaKernel> {
 protected:
  /// Expects the reference's result, byte by byte, and nothing behind it.
  void ExpectReference(const Sizes& sizes, std::uint32_t channels, const std::uint8_t* source) {
    constexpr std::size_t kMargin = 64;
    const PlaneShape from{sizes.width, sizes.height, channels};
    const PlaneShape to{sizes.resultWidth, sizes.resultHeight, channels};
    std::vector<std::uint8_t> expected(to.Bytes() + kMargin, 0xa5);
    std::vector<std::uint8_t> result(expected);
    reference_.Scale(from, source, to, expected.data(), nullptr);
    scaler_.Scale(from, source, to, result.data(), [](const void*, std::size_t) {});
    if (std::memcmp(expected.data(), result.data(), expected.size()) == 0) return;
    const auto differs = std::mismatch(expected.begin(), expected.end(), result.begin());
    FAIL() << sizes << " of " << channels << " channels: byte " << differs.first - expected.begin() << " is "
           << int{*differs.second} << ", expected " << int{*differs.first};
  }

  AreaScaler reference_{nullptr};
  AreaScaler scaler_{&GetParam()};
};

TEST_P(AreaKernelTest, HasTheResultsOfThePlainLoops) {
  for (const Sizes& sizes : {Sizes{1920, 108, 416, 24},
                             {192, 1080, 42, 234},
                             {120, 60, 26, 13},
                             {64, 64, 32, 32},
                             {65, 63, 32, 31},
                             {640, 216, 139, 47},
                             {60, 60, 60, 60},
                             {41, 23, 192, 108},
                             {13, 13, 60, 61},
                             {1, 1, 5, 7},
                             {1, 300, 1, 1},
                             {300, 1, 1, 1},
                             {2000, 2, 3, 2},
                             {3, 2, 2000, 2},
                             {257, 257, 1, 1},
                             {258, 258, 1, 1},
                             {33, 514, 7, 2},
                             {5000, 3, 7, 2},
                             {2, 2, 1, 1},
                             {127, 91, 126, 90},
                             {90, 91, 91, 90},
                             {70, 6, 35, 3},
                             {38, 4, 19, 2},
                             {1920, 108, 960, 54},
                             {34, 6, 17, 6},
                             {6, 2, 3, 1},
                             {48, 10, 24, 5},
                             {1022, 2, 511, 1}}) {
    for (std::uint32_t channels = 1; channels <= 4; ++channels) {
      ExpectReference(sizes, channels, Noise(sizes.width + channels));
      ExpectReference(sizes, channels, White());
    }
  }
}

TEST_P(AreaKernelTest, HasTheResultsOfThePlainLoopsForRandomSizes) {
  std::mt19937 random(11);
  const auto side = [&random](std::uint32_t most) { return 1 + static_cast<std::uint32_t>(random()) % most; };
  for (int i = 0; i < 150; ++i) {
    const Sizes sizes{side(180), side(90), side(90), side(45)};
    const Sizes turned{sizes.resultWidth, sizes.resultHeight, sizes.width, sizes.height};
    const std::uint32_t channels = side(4);
    ExpectReference(sizes, channels, Noise(random()));
    ExpectReference(turned, channels, Noise(random()));
  }
}

// A float has too few bits for the sums of so large an area.
TEST_P(AreaKernelTest, DividesALargeAreaExactly) {
  constexpr std::size_t kPixels = std::size_t{3240} * 256;
  std::vector<std::uint8_t> source(kPixels, 200);
  std::fill_n(source.begin(), kPixels / 2, std::uint8_t{201});
  std::uint8_t result = 0;
  scaler_.Scale({3240, 256, 1}, source.data(), {1, 1, 1}, &result, nullptr);
  EXPECT_EQ(result, 201) << "a half is rounded upwards";
  source.front() = 200;
  scaler_.Scale({3240, 256, 1}, source.data(), {1, 1, 1}, &result, nullptr);
  EXPECT_EQ(result, 200) << "just below a half";
}

std::set<std::uintptr_t> LinesOf(const void* memory, std::size_t bytes) {
  std::set<std::uintptr_t> lines;
  const auto begin = reinterpret_cast<std::uintptr_t>(memory);
  for (std::uintptr_t line = begin / 64; line * 64 < begin + bytes; ++line) lines.insert(line);
  return lines;
}

std::set<std::uintptr_t> flushed;  // lines

void RecordLines(const void* memory, std::size_t bytes) {
  flushed.merge(LinesOf(memory, bytes));
}

TEST_P(AreaKernelTest, FlushesBothPlanesAndNothingElse) {
  for (const Sizes& sizes : {Sizes{120, 60, 26, 13}, {26, 13, 120, 60}, {1, 1, 1, 1}, {300, 270, 30, 1}}) {
    const PlaneShape from{sizes.width, sizes.height, 3};
    const PlaneShape to{sizes.resultWidth, sizes.resultHeight, 3};
    std::vector<std::uint8_t> result(to.Bytes());
    flushed.clear();
    for (AreaScaler* const scaler : {&scaler_, &reference_}) {
      scaler->Scale(from, Noise(0), to, result.data(), RecordLines);
      const std::set<std::uintptr_t> ofSource = LinesOf(Noise(0), from.Bytes());
      std::set<std::uintptr_t> ofBoth = LinesOf(result.data(), result.size());
      // The lines between are written past the caches.
      EXPECT_EQ(flushed.count(*ofBoth.begin()), 1U) << sizes;
      EXPECT_EQ(flushed.count(*ofBoth.rbegin()), 1U) << sizes;
      ofBoth.insert(ofSource.begin(), ofSource.end());
      EXPECT_TRUE(std::includes(flushed.begin(), flushed.end(), ofSource.begin(), ofSource.end())) << sizes;
      EXPECT_TRUE(std::includes(ofBoth.begin(), ofBoth.end(), flushed.begin(), flushed.end())) << sizes;
      flushed.clear();
    }
  }
}

/// Memory that ends at a page that nobody may touch.
class MemoryAtAnEnd {
 public:
  MemoryAtAnEnd() {
    EXPECT_NE(memory_, MAP_FAILED);
    EXPECT_EQ(mprotect(End(), kPage, PROT_NONE), 0);
  }
  ~MemoryAtAnEnd() { (void)munmap(memory_, 2 * kPage); }
  MemoryAtAnEnd(const MemoryAtAnEnd&) = delete;
  MemoryAtAnEnd& operator=(const MemoryAtAnEnd&) = delete;

  std::uint8_t* End() const { return static_cast<std::uint8_t*>(memory_) + kPage; }

 private:
  static constexpr std::size_t kPage = 65536;
  void* const memory_ = mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
};

/// What makes one pixel of `side` x `side`.
AreaColumns ColumnsOfSquares(std::uint32_t width, std::uint32_t channels, std::uint32_t side) {
  AreaColumns columns;
  columns.width = width;
  columns.channels = channels;
  columns.pairs = (side + 1) / 2;
  columns.period = 2;
  columns.periodSamples = 2 * side * channels;
  columns.first = {0, width > 1 ? side * channels : 0};
  for (std::uint32_t i = 0; i < columns.pairs * 16; ++i)
    columns.weights.push_back(i / 16 * 2 + i % 2 < side ? 1 : 0);
  columns.offset = side * side / 2 + kSumBias * side;
  columns.inverse = 1.0 / (side * side);
  columns.floatIsExact = true;
  columns.quarters = side == 2;
  return columns;
}

TEST_P(AreaKernelTest, FinishesARowWithinItsMemory) {
  const MemoryAtAnEnd source;
  const MemoryAtAnEnd destination;
  for (std::uint32_t width = 1; width <= 4; ++width) {
    for (std::uint32_t channels = 1; channels <= 4; ++channels) {
      for (const std::uint32_t side : {1U, 2U, 3U, 5U, 16U}) {
        SCOPED_TRACE(testing::Message() << width << " pixels, " << channels << " channels, side " << side);
        const AreaColumns columns = ColumnsOfSquares(width, channels, side);
        const std::size_t length = std::size_t{width} * channels;
        std::vector<std::uint16_t> sums(length * side + AreaSumsBeyond(columns), 0xa5a5);
        std::fill_n(sums.begin(), length * side, static_cast<std::uint16_t>(side * 77 - kSumBias));
        void* const atEnd = source.End() - sums.size() * sizeof sums[0];
        std::memcpy(atEnd, sums.data(), sums.size() * sizeof sums[0]);
        std::uint8_t* const result = destination.End() - kResultBeyond - length;
        GetParam().finishRow(columns, static_cast<const std::uint16_t*>(atEnd), result);
        EXPECT_THAT(std::vector<std::uint8_t>(result, result + length), testing::Each(77));
      }
    }
  }
}

TEST_P(AreaKernelTest, SumsARowWithinItsMemory) {
  const MemoryAtAnEnd source;
  const MemoryAtAnEnd destination;
  for (const std::size_t length : {1U, 15U, 16U, 17U, 31U, 32U, 33U, 63U, 64U, 65U, 127U, 128U, 129U}) {
    std::uint8_t* const row = source.End() - length;
    for (std::size_t i = 0; i < length; ++i) row[i] = static_cast<std::uint8_t>(255 - i * 7);
    auto* const sums = reinterpret_cast<std::uint16_t*>(destination.End()) - length;
    GetParam().setRow(row, 3, length, source.End(), sums);
    GetParam().addRow(row, 254, length, source.End(), sums);
    for (std::size_t i = 0; i < length; ++i) {
      ASSERT_EQ(sums[i], static_cast<std::uint16_t>(257 * row[i] - kSumBias)) << i << " of " << length;
    }
  }
}

TEST(AreaKernelsTest, ThePlainOneComesFirstThenAllThatThisProcessorHas) {
  std::vector<std::string> expected = {"plain"};
#if defined(__x86_64__)
  const std::set<std::string> flags = test::ProcessorFlags();
  if (flags.count("avx2") != 0) expected.emplace_back("avx2");
  if (flags.count("avx2") != 0 && flags.count("avx512bw") != 0) expected.emplace_back("avx512");
#endif
  std::vector<std::string> names;
  for (const AreaKernel& kernel : AreaKernels()) names.emplace_back(kernel.name);
  EXPECT_EQ(names, expected);
}

INSTANTIATE_TEST_SUITE_P(All, AreaKernelTest, testing::ValuesIn(AreaKernels().begin(), AreaKernels().end()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace Ormis::host
