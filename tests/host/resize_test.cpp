// SPDX-License-Identifier: Apache-2.0
extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform_test.h"

namespace Ormis::test {
namespace {

struct Plane {
  std::uint32_t width, height, channels;
  std::size_t Bytes() const { return std::size_t{width} * height * channels; }
};

std::vector<Plane> PlanesOf(const ImageData& image) {
  const std::uint32_t width = image.width;
  const std::uint32_t height = image.height;
  switch (image.imageType) {
    case 0:
    case 1:
      return {{width, height, 3}};
    case 2:
    case 9:
      return {{width, height, 1}, {width / 2, height / 2, 2}};
    case 10:
    case 11:
      return {{width, height, 1}, {width / 2, height, 2}};
    default:
      return {{width, height, 4}};
  }
}

/// The mean of the source area under one pixel of the result, by the definition.
double AreaMean(const Plane& from, const std::uint8_t* source, const Plane& to, std::uint32_t x,
                std::uint32_t y, std::uint32_t channel) {
  const double left = static_cast<double>(x) * from.width / to.width;
  const double right = static_cast<double>(x + 1) * from.width / to.width;
  const double top = static_cast<double>(y) * from.height / to.height;
  const double bottom = static_cast<double>(y + 1) * from.height / to.height;
  double sum = 0;
  for (auto row = static_cast<std::uint32_t>(top); row < from.height && row < bottom; ++row) {
    const double rows = std::min(bottom, row + 1.0) - std::max(top, static_cast<double>(row));
    for (auto column = static_cast<std::uint32_t>(left); column < from.width && column < right; ++column) {
      const double columns = std::min(right, column + 1.0) - std::max(left, static_cast<double>(column));
      sum += rows * columns * source[(std::size_t{row} * from.width + column) * from.channels + channel];
    }
  }
  return sum / ((right - left) * (bottom - top));
}

/// Expects that every sample is the mean, rounded to nearest. Where the mean is midway between two values,
/// both are accepted, because AreaMean has rounding errors of its own.
void ExpectAreaAverage(const ImageData& source, const ImageData& result) {
  const std::vector<Plane> from = PlanesOf(source);
  const std::vector<Plane> to = PlanesOf(result);
  const std::uint8_t* sourcePlane = source.data;
  const std::uint8_t* sample = result.data;
  std::size_t wrong = 0;
  for (std::size_t plane = 0; plane < from.size(); ++plane) {
    for (std::uint32_t y = 0; y < to[plane].height; ++y) {
      for (std::uint32_t x = 0; x < to[plane].width; ++x) {
        for (std::uint32_t channel = 0; channel < to[plane].channels; ++channel, ++sample) {
          const double mean = AreaMean(from[plane], sourcePlane, to[plane], x, y, channel);
          if (std::abs(mean - *sample) <= 0.5 + 1e-6) continue;
          if (++wrong <= 3) {
            ADD_FAILURE() << "plane " << plane << " pixel " << x << ", " << y << " channel " << channel
                          << " is " << int{*sample} << ", expected " << mean;
          }
        }
      }
    }
    sourcePlane += from[plane].Bytes();
  }
  EXPECT_EQ(wrong, 0U) << source.width << " x " << source.height << " to " << result.width << " x "
                       << result.height << " type " << source.imageType;
}

void FillWithNoise(ImageData& image, unsigned int seed) {
  std::mt19937 random(seed);
  for (std::uint32_t i = 0; i < image.dataSize; ++i)
    image.data[i] = static_cast<std::uint8_t>(random() >> 24);
}

/// Slopes, waves, an edge and fine texture.
void PaintNaturalLike(ImageData& image) {
  std::mt19937 random(7);
  const std::size_t rowBytes = std::size_t{image.width} * 3;
  std::vector<double> waves(rowBytes);
  for (std::uint32_t x = 0; x < image.width; ++x) {
    for (std::uint32_t c = 0; c < 3; ++c) waves[x * 3 + c] = 60 * std::sin(x * 0.013 * (c + 1));
  }
  for (std::uint32_t y = 0; y < image.height; ++y) {
    std::uint8_t* const row = image.data + y * rowBytes;
    const double height = std::cos(y * 0.021);
    const std::size_t edgeAt = (image.width + y / 3) / 2 * 3;
    for (std::size_t i = 0; i < rowBytes; ++i) {
      const double value = 128 + waves[i] * height + (i > edgeAt ? 40 : -30);
      row[i] =
          static_cast<std::uint8_t>(std::clamp(value + static_cast<double>(random() % 17) - 8, 0.0, 255.0));
    }
  }
}

class ResizeTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    ASSERT_EQ(QetCreateChannel(channel_), kQetOk);
  }

  static ImageData Allocate(std::uint32_t width, std::uint32_t height, std::uint32_t imageType) {
    ImageData image = Record(width, height, imageType);
    EXPECT_EQ(QetImageMallocAligned(image), kQetOk);
    return image;
  }

  std::int32_t Resize(const ImageData& source, const ImageData& result) const {
    return QetImageResize(channel_, source, result, kQetInterpolationArea, -1);
  }

  void ResizeNoiseAndCompare(std::uint32_t type, std::uint32_t width, std::uint32_t height,
                             std::uint32_t resultWidth, std::uint32_t resultHeight) const {
    ImageData source = Allocate(width, height, type);
    ImageData result = Allocate(resultWidth, resultHeight, type);
    FillWithNoise(source, width * 31 + resultWidth);
    ASSERT_EQ(Resize(source, result), kQetOk);
    ExpectAreaAverage(source, result);
    EXPECT_EQ(QetImageDestroy(result), kQetOk);
    EXPECT_EQ(QetImageDestroy(source), kQetOk);
  }

  int channel_ = 0;
};
class ResizeAccuracyTest : public ResizeTest {};

TEST_F(ResizeTest, FullHdToTheStressSizeIsTheAreaAverage) {
  ResizeNoiseAndCompare(1, 1920, 1080, 416, 234);
}

TEST_F(ResizeTest, EveryTypeIsTheAreaAverage) {
  for (const std::uint32_t type : kAllTypes) {
    ResizeNoiseAndCompare(type, 120, 90, 26, 40);  // fractions
    ResizeNoiseAndCompare(type, 64, 48, 32, 12);   // whole factors
    ResizeNoiseAndCompare(type, 26, 22, 34, 46);   // enlarged
    ResizeNoiseAndCompare(type, 50, 10, 20, 30);   // one of each
    ResizeNoiseAndCompare(type, 2, 2, 6, 6);
    ResizeNoiseAndCompare(type, 6, 6, 2, 2);
  }
}

TEST_F(ResizeTest, OddSizesOfTheTypesThatHaveThem) {
  for (const std::uint32_t type : {0U, 1U, 12U, 13U, 14U, 15U}) {
    ResizeNoiseAndCompare(type, 33, 21, 7, 5);
    ResizeNoiseAndCompare(type, 7, 5, 33, 21);
    ResizeNoiseAndCompare(type, 1, 1, 1, 1);
    ResizeNoiseAndCompare(type, 1, 1, 9, 4);
    ResizeNoiseAndCompare(type, 9, 4, 1, 1);
    ResizeNoiseAndCompare(type, 1, 100, 1, 3);
    ResizeNoiseAndCompare(type, 100, 1, 3, 1);
    ResizeNoiseAndCompare(type, 101, 103, 97, 89);
  }
  for (const std::uint32_t type : {10U, 11U}) ResizeNoiseAndCompare(type, 32, 21, 6, 5);
}

// Beyond these limits the sums do not fit into 16 bits, or a float is not precise enough.
TEST_F(ResizeTest, BothSidesOfTheLimitsOfTheNarrowArithmetic) {
  ResizeNoiseAndCompare(1, 3, 257, 2, 1);
  ResizeNoiseAndCompare(1, 3, 258, 2, 1);
  for (const std::uint32_t height : {257U, 258U}) {
    const ImageData source = Allocate(3, height, 1);
    const ImageData result = Allocate(2, 1, 1);
    std::memset(source.data, 255, source.dataSize);
    ASSERT_EQ(Resize(source, result), kQetOk);
    EXPECT_EQ(std::count(result.data, result.data + result.dataSize, 255), 6) << height;
  }
  ResizeNoiseAndCompare(1, 128, 64, 1, 1);
  ResizeNoiseAndCompare(1, 128, 65, 1, 1);
  ResizeNoiseAndCompare(1, 5000, 3, 7, 2);
  ResizeNoiseAndCompare(1, 3, 5000, 2, 7);
}

TEST_F(ResizeTest, WhiteAndBlackStayWhatTheyAre) {
  for (const auto& [width, height] : {std::pair{416U, 234U}, std::pair{417U, 235U}, std::pair{3U, 2U}}) {
    ImageData source = Allocate(1920, 1080, 1);
    ImageData result = Allocate(width, height, 1);
    for (const int value : {255, 0}) {
      std::memset(source.data, value, source.dataSize);
      std::memset(result.data, 0x55, result.dataSize);
      ASSERT_EQ(Resize(source, result), kQetOk);
      EXPECT_TRUE(std::all_of(result.data, result.data + result.dataSize,
                              [&](std::uint8_t sample) { return sample == value; }));
    }
  }
}

TEST_F(ResizeTest, TheSameSizeIsACopy) {
  for (const std::uint32_t type : kAllTypes) {
    ImageData source = Allocate(38, 26, type);
    ImageData result = Allocate(38, 26, type);
    FillWithNoise(source, type);
    ASSERT_EQ(Resize(source, result), kQetOk);
    EXPECT_EQ(std::memcmp(source.data, result.data, source.dataSize), 0);
  }
}

TEST_F(ResizeTest, AHalfIsRoundedUpwards) {
  for (const std::uint32_t height : {1U, 4096U, 4098U}) {  // narrow arithmetic, then wide
    ImageData source = Allocate(2, height, 0);
    ImageData result = Allocate(1, height == 1 ? 1 : 2, 0);
    for (std::uint32_t y = 0; y < height; ++y) {
      const std::uint8_t rows[6] = {0, 7, 254, 1, 8, 255};
      std::memcpy(source.data + std::size_t{y} * 6, rows, 6);
    }
    ASSERT_EQ(Resize(source, result), kQetOk);
    EXPECT_EQ(result.data[0], 1);
    EXPECT_EQ(result.data[1], 8);
    EXPECT_EQ(result.data[2], 255);
  }
}

// One grey level in one of half a million pixels decides: both kinds of arithmetic are exact.
TEST_F(ResizeTest, JustBelowAHalfIsRoundedDown) {
  for (const auto& [width, height] : {std::pair{64U, 128U}, std::pair{4096U, 128U}, std::pair{2048U, 258U}}) {
    const std::uint32_t pixels = width * height;
    const ImageData source = Allocate(width, height, 0);
    const ImageData result = Allocate(1, 1, 0);
    std::memset(source.data, 200, source.dataSize);
    for (std::size_t pixel = 0; pixel < pixels / 2; ++pixel) {
      source.data[pixel * 3] = 201;
      if (pixel > 0) source.data[pixel * 3 + 1] = 201;
    }
    ASSERT_EQ(Resize(source, result), kQetOk);
    EXPECT_EQ(result.data[0], 201) << width << " x " << height;
    EXPECT_EQ(result.data[1], 200) << width << " x " << height;
    EXPECT_EQ(result.data[2], 200) << width << " x " << height;
  }
}

TEST_F(ResizeTest, EverySourcePixelCounts) {
  ImageData source = Allocate(60, 60, 0);
  ImageData result = Allocate(13, 13, 0);
  for (std::uint32_t pixel = 0; pixel < 60 * 60; ++pixel) {
    std::memset(source.data, 0, source.dataSize);
    source.data[pixel * 3 + 1] = 255;
    ASSERT_EQ(Resize(source, result), kQetOk);
    int sum = 0;
    for (std::uint32_t i = 0; i < 13 * 13; ++i) sum += result.data[i * 3 + 1];
    // 255 / 21.3, spread over up to four pixels.
    ASSERT_NEAR(sum, 12, 2) << pixel;
  }
}

TEST_F(ResizeAccuracyTest, WithinOneGreyLevelOfLibswscale) {
  ImageData source = Allocate(1920, 1080, 1);
  ImageData result = Allocate(416, 234, 1);
  PaintNaturalLike(source);
  ASSERT_EQ(Resize(source, result), kQetOk);

  // Without these flags it drops every second chroma sample on the way.
  constexpr int kFlags = SWS_AREA | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INP | SWS_FULL_CHR_H_INT;
  SwsContext* const scaler = sws_getContext(1920, 1080, AV_PIX_FMT_BGR24, 416, 234, AV_PIX_FMT_BGR24, kFlags,
                                            nullptr, nullptr, nullptr);
  ASSERT_NE(scaler, nullptr);
  std::vector<std::uint8_t> reference(result.dataSize + 64);
  const std::uint8_t* const sourceRows[4] = {source.data};
  const int sourceStride[4] = {1920 * 3};
  std::uint8_t* const referenceRows[4] = {reference.data()};
  const int referenceStride[4] = {416 * 3};
  EXPECT_EQ(sws_scale(scaler, sourceRows, sourceStride, 0, 1080, referenceRows, referenceStride), 234);
  sws_freeContext(scaler);

  int maxDifference = 0;
  for (std::uint32_t i = 0; i < result.dataSize; ++i) {
    maxDifference = std::max(maxDifference, std::abs(int{result.data[i]} - int{reference[i]}));
  }
  EXPECT_LE(maxDifference, 1);
}

TEST_F(ResizeTest, OneChannelServesChangingSizesAndTypes) {
  for (int round = 0; round < 3; ++round) {
    ResizeNoiseAndCompare(1, 60, 60, 13, 13);
    ResizeNoiseAndCompare(1, 120, 60, 26, 13);  // the same ratio, more columns
    ResizeNoiseAndCompare(1, 60, 60, 13, 13);
    ResizeNoiseAndCompare(2, 120, 60, 26, 14);
    ResizeNoiseAndCompare(12, 13, 13, 60, 61);
  }
}

TEST_F(ResizeTest, UnknownAndDestroyedChannelsAreRefused) {
  const ImageData source = Allocate(8, 8, 1);
  const ImageData result = Allocate(4, 4, 1);
  for (const int unknown : {channel_ + 1, -1, 1000}) {
    ExpectFailure(kQetUnknownChannel, "QetImageResize", NoChannelMessage(unknown),
                  [&] { return QetImageResize(unknown, source, result, kQetInterpolationArea, -1); });
  }
  ASSERT_EQ(QetDestroyChannel(channel_), kQetOk);
  ExpectFailure(kQetUnknownChannel, "QetImageResize", NoChannelMessage(0),
                [&] { return Resize(source, result); });
}

TEST_F(ResizeTest, OtherInterpolationsAndTimeLimitsAreUnsupported) {
  const ImageData source = Allocate(8, 8, 1);
  const ImageData result = Allocate(4, 4, 1);
  for (const std::uint32_t number : {0U, 2U, 0xffffffffU}) {
    ExpectFailure(kQetUnsupported, "QetImageResize",
                  "interpolation " + std::to_string(number) + ", expected 1, area average", [&] {
                    return QetImageResize(channel_, source, result,
                                          static_cast<QetImageInterpolationType>(number), -1);
                  });
  }
  for (const int limit : {0, 1000, -2}) {
    ExpectFailure(kQetUnsupported, "QetImageResize",
                  "time limit of " + std::to_string(limit) + " ms, expected -1, wait for the result",
                  [&] { return QetImageResize(channel_, source, result, kQetInterpolationArea, limit); });
  }
}

TEST_F(ResizeTest, SourceAndDestinationMustBeTwoImagesOfOneType) {
  const ImageData source = Allocate(8, 8, 1);
  ImageData copy = source;
  copy.offset08 = "another record";
  ExpectFailure(kQetInvalidArgument, "QetImageResize",
                "source and destination share one memory, expected two images",
                [&] { return Resize(source, source); });
  ExpectFailure(kQetInvalidArgument, "QetImageResize",
                "source and destination share one memory, expected two images",
                [&] { return Resize(source, copy); });
  const ImageData other = Allocate(4, 4, 0);
  ExpectFailure(kQetInvalidArgument, "QetImageResize", "destination of type 0, expected the source's 1",
                [&] { return Resize(source, other); });
}

TEST_F(ResizeTest, RecordsThatAreNotAsAllocatedAreRefused) {
  const ImageData source = Allocate(8, 8, 1);
  const ImageData result = Allocate(4, 4, 1);
  ImageData changed = source;
  changed.width = 800;
  ExpectFailure(kQetInvalidSize, "QetImageResize",
                "source of 800 x 8 and 192 bytes, expected 8 x 8 and 192 bytes as it was allocated",
                [&] { return Resize(changed, result); });
  changed = result;
  changed.height = 800;
  ExpectFailure(kQetInvalidSize, "QetImageResize",
                "destination of 4 x 800 and 48 bytes, expected 4 x 4 and 48 bytes as it was allocated",
                [&] { return Resize(source, changed); });
  changed = result;
  changed.width = 0;
  changed.height = 0;
  ExpectFailure(kQetInvalidSize, "QetImageResize",
                "destination of 0 x 0 and 48 bytes, expected 4 x 4 and 48 bytes as it was allocated",
                [&] { return Resize(source, changed); });
  changed = source;
  changed.imageType = 0;
  ExpectFailure(kQetInvalidArgument, "QetImageResize", "source of type 0, expected 1 as it was allocated",
                [&] { return Resize(changed, result); });
}

TEST_F(ResizeTest, MemoryThatIsNotThePlatformsIsRefused) {
  std::vector<std::uint8_t> own(192);
  const ImageData result = Allocate(4, 4, 1);
  ImageData source = Record(8, 8, 1);
  ExpectFailure(kQetUnknownBuffer, "QetImageResize", kUnknownSourceMessage,
                [&] { return Resize(source, result); });
  source.data = own.data();
  source.dataSize = 192;
  ExpectFailure(kQetUnknownBuffer, "QetImageResize", kUnknownSourceMessage,
                [&] { return Resize(source, result); });
  source.bufferMode = kQetBufferUser;
  ExpectFailure(kQetInvalidArgument, "QetImageResize",
                "source with buffer mode 0, expected 1, the platform's memory",
                [&] { return Resize(source, result); });
  ImageData freed = Allocate(8, 8, 1);
  const ImageData stale = freed;
  ASSERT_EQ(QetImageDestroy(freed), kQetOk);
  ExpectFailure(kQetUnknownBuffer, "QetImageResize", kUnknownDestinationMessage,
                [&] { return Resize(result, stale); });
}

// A worker whose set-up failed calls it with value-initialised records.
TEST_F(ResizeTest, EmptyRecordsAreRefused) {
  const ImageData source;
  const ImageData result;
  ExpectFailure(kQetInvalidArgument, "QetImageResize",
                "source with buffer mode 0, expected 1, the platform's memory",
                [&] { return Resize(source, result); });
}

TEST_F(ResizeTest, SidesBeyondTheEngineAreUnsupported) {
  constexpr std::uint32_t kLargest = 1U << 24;
  const std::string message = "a side above 16777216 pixels, expected at most that";
  const ImageData small = Allocate(1, 1, 0);
  for (const auto& [width, height] : {std::pair{kLargest + 1, 1U}, std::pair{1U, kLargest + 1}}) {
    ImageData large = Allocate(width, height, 0);
    ExpectFailure(kQetUnsupported, "QetImageResize", message, [&] { return Resize(large, small); });
    ExpectFailure(kQetUnsupported, "QetImageResize", message, [&] { return Resize(small, large); });
    EXPECT_EQ(QetImageDestroy(large), kQetOk);
  }
}

TEST_F(ResizeTest, SidesAtTheLimitOfTheEngineAreScaled) {
  constexpr std::uint32_t kLargest = 1U << 24;
  const ImageData small = Allocate(1, 1, 0);
  for (const auto& [width, height] : {std::pair{kLargest, 1U}, std::pair{1U, kLargest}}) {
    ImageData large = Allocate(width, height, 0);
    std::memset(large.data, 255, large.dataSize);
    ASSERT_EQ(Resize(large, small), kQetOk) << width << " x " << height;
    EXPECT_EQ(std::count(small.data, small.data + small.dataSize, 255), 3) << width << " x " << height;
    EXPECT_EQ(QetImageDestroy(large), kQetOk);
  }
}

TEST_F(ResizeTest, FortyThreadsGetTheResultOfOne) {
  ImageData source = Allocate(192, 108, 1);
  ImageData expected = Allocate(41, 23, 1);
  FillWithNoise(source, 3);
  ASSERT_EQ(Resize(source, expected), kQetOk);
  ExpectAreaAverage(source, expected);
  std::vector<std::thread> threads;
  threads.reserve(40);
  std::atomic<int> equal{0};
  for (int i = 0; i < 40; ++i) {
    threads.emplace_back([&, i] {
      const ThreadContext context;
      // Half of the threads share a channel, and with it the scratch memory; each scales to a size of its
      // own.
      int channel = i;
      const bool shares = i % 2 == 0;
      if (shares) channel = channel_;
      if (!shares) EXPECT_EQ(QetCreateChannel(channel), kQetOk);
      ImageData result = Allocate(41, 23, 1);
      ImageData luma = Allocate(96, 54, 2);
      ImageData scaledLuma = Allocate(20 + 2 * static_cast<std::uint32_t>(i), 12, 2);
      FillWithNoise(luma, 5);
      for (int round = 0; round < 10; ++round) {
        std::memset(result.data, 0, result.dataSize);
        EXPECT_EQ(QetImageResize(channel, source, result, kQetInterpolationArea, -1), kQetOk);
        if (std::memcmp(result.data, expected.data, result.dataSize) == 0) ++equal;
        EXPECT_EQ(QetImageResize(channel, luma, scaledLuma, kQetInterpolationArea, -1), kQetOk);
      }
      ExpectAreaAverage(luma, scaledLuma);
      EXPECT_EQ(QetImageDestroy(scaledLuma), kQetOk);
      EXPECT_EQ(QetImageDestroy(luma), kQetOk);
      EXPECT_EQ(QetImageDestroy(result), kQetOk);
      if (!shares) EXPECT_EQ(QetDestroyChannel(channel), kQetOk);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(equal, 400);
}

}  // namespace
}  // namespace Ormis::test
