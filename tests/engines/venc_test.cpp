// SPDX-License-Identifier: Apache-2.0
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "engine_test.h"
#include "expect_failure.h"
#include "h264_decoder.h"
#include "sanitizers.h"

namespace {

using Ormis::ImageData;
using Ormis::QetVenc;
using Ormis::test::ExpectFailure;
using Ormis::test::kNoContextMessage;

constexpr std::size_t kWidth = 1920;
constexpr std::size_t kHeight = 1080;

/// An encoder with those settings of the encode stress that matter to the encoder.
std::unique_ptr<QetVenc> MakeEncoder(std::size_t width = kWidth, std::size_t height = kHeight) {
  auto venc = std::make_unique<QetVenc>();
  venc->width = static_cast<std::uint32_t>(width);
  venc->height = static_cast<std::uint32_t>(height);
  venc->channel = 25;
  venc->bitrateKbps = 2000;
  venc->maxWidth = 4096;
  venc->maxHeight = 4096;
  venc->streamBufferBytes = 9437184;
  venc->frameRate = 30;
  venc->gopSize = 60;
  return venc;
}

std::size_t FrameBytes(std::size_t width, std::size_t height) {
  return width * height * 3 / 2;
}

ImageData FrameOver(std::uint8_t* pixels, std::size_t width, std::size_t height) {
  ImageData frame;
  frame.width = static_cast<std::uint32_t>(width);
  frame.height = static_cast<std::uint32_t>(height);
  frame.dataSize = static_cast<std::uint32_t>(FrameBytes(width, height));
  frame.imageType = Ormis::kQetImageYuv420sp;
  frame.data = pixels;
  return frame;
}

/// A small encoder and a frame of its size.
struct Small {
  static constexpr std::size_t kSmallWidth = 64;
  static constexpr std::size_t kSmallHeight = 48;

  std::unique_ptr<QetVenc> venc = MakeEncoder(kSmallWidth, kSmallHeight);
  std::vector<std::uint8_t> pixels = std::vector<std::uint8_t>(FrameBytes(kSmallWidth, kSmallHeight), 90);
  ImageData frame = FrameOver(pixels.data(), kSmallWidth, kSmallHeight);
};

/// A picture with detail at every scale, like a photograph. It moves two pixels a frame and changes its
/// colour.
class MovingPicture {
 public:
  MovingPicture() : texture_(kTextureWidth * kHeight) {
    std::uint32_t state = 1;
    for (const std::size_t cell : {256U, 128U, 64U, 32U, 16U, 8U, 4U, 2U}) AddOctave(cell, state);
  }

  /// Returns the frame as NV12.
  void Draw(int index, std::vector<std::uint8_t>& pixels) const {
    pixels.resize(FrameBytes(kWidth, kHeight));
    std::uint32_t grain = static_cast<std::uint32_t>(index) * 7919U + 1U;
    for (std::size_t y = 0; y < kHeight; ++y) {
      const float* from = &texture_[y * kTextureWidth + static_cast<std::size_t>(index) * 2];
      std::uint8_t* row = &pixels[y * kWidth];
      for (std::size_t x = 0; x < kWidth; ++x) {
        grain = grain * 1664525U + 1013904223U;
        const float value = 128.0f + from[x] + static_cast<float>(grain >> 24) / 64.0f - 2.0f;
        row[x] = static_cast<std::uint8_t>(std::clamp(value, 0.0f, 255.0f));
      }
    }
    std::uint8_t* chroma = &pixels[kWidth * kHeight];
    for (std::size_t y = 0; y < kHeight / 2; ++y) {
      for (std::size_t x = 0; x < kWidth / 2; ++x) {
        *chroma++ = static_cast<std::uint8_t>(64 + x * 100 / (kWidth / 2));
        *chroma++ =
            static_cast<std::uint8_t>(170 + y * 50 / (kHeight / 2) + static_cast<std::size_t>(index) / 6);
      }
    }
  }

 private:
  static constexpr std::size_t kTextureWidth = kWidth + 512;
  static constexpr float kHeightOfDetail = 2.0f;

  /// Adds noise that is smooth over `cell` pixels. Finer noise is weaker.
  void AddOctave(std::size_t cell, std::uint32_t& state) {
    const std::size_t columns = kTextureWidth / cell + 2;
    std::vector<float> grid(columns * (kHeight / cell + 2));
    for (float& value : grid) {
      state = state * 1664525U + 1013904223U;
      value = (static_cast<float>(state >> 8) / 0x800000 - 1.0f) * kHeightOfDetail *
              std::sqrt(static_cast<float>(cell));
    }
    for (std::size_t y = 0; y < kHeight; ++y) {
      const float v = static_cast<float>(y % cell) / static_cast<float>(cell);
      for (std::size_t x = 0; x < kTextureWidth; ++x) {
        const float u = static_cast<float>(x % cell) / static_cast<float>(cell);
        const float* corner = &grid[y / cell * columns + x / cell];
        texture_[y * kTextureWidth + x] += (corner[0] * (1 - u) + corner[1] * u) * (1 - v) +
                                           (corner[columns] * (1 - u) + corner[columns + 1] * u) * v;
      }
    }
  }

  std::vector<float> texture_;
};

double Psnr(const std::uint8_t* reference, std::size_t step, const std::vector<std::uint8_t>& plane) {
  double sum = 0;
  for (std::size_t i = 0; i < plane.size(); ++i) {
    const int difference = reference[i * step] - plane[i];
    sum += difference * difference;
  }
  const double mean = sum / static_cast<double>(plane.size());
  return mean == 0 ? std::numeric_limits<double>::infinity() : 10 * std::log10(255.0 * 255.0 / mean);
}

double KilobitsPerSecond(std::uint64_t bytes, int frames) {
  return static_cast<double>(bytes) * 8 / 1000 * 30 / frames;
}

class VencTest : public EngineTest {};
class VencInitTest : public EngineTest {};

TEST_F(VencTest, EachFrameInGivesOnePacketOut) {
  const auto venc = MakeEncoder();
  ASSERT_EQ(venc->Init(), Ormis::kQetOk);
  std::vector<std::uint8_t> pixels(FrameBytes(kWidth, kHeight));
  std::uint32_t state = 7;
  for (std::uint8_t& pixel : pixels) pixel = static_cast<std::uint8_t>((state = state * 1664525U + 1U) >> 24);
  const ImageData frame = FrameOver(pixels.data(), kWidth, kHeight);
  for (int i = 0; i < 180; ++i) {
    ASSERT_EQ(venc->SendFrame(frame), Ormis::kQetOk) << i;
    ux_venc_stream stream{};
    ASSERT_EQ(venc->GetStream(stream), Ormis::kQetOk) << i;
    EXPECT_NE(stream.streamId, 0U);
    EXPECT_EQ(stream.channel, 25U);
    ASSERT_EQ(stream.packetCount, 1U);
    EXPECT_EQ(stream.packets[0].frameIndex, i);
    EXPECT_EQ(stream.packets[0].isKeyFrame, i % 60 == 0 ? 1U : 0U) << i;
    EXPECT_GT(stream.packets[0].sizeBytes, 0U);
    EXPECT_EQ(stream.totalBytes, stream.packets[0].sizeBytes);
    const std::uint8_t startCode[] = {0, 0, 0, 1};
    EXPECT_EQ(std::memcmp(stream.packets[0].data, startCode, sizeof startCode), 0);
    ux_venc_stream none{};
    EXPECT_EQ(venc->GetStream(none), Ormis::kQetNoStream);
    ASSERT_EQ(venc->ReleaseStream(stream), Ormis::kQetOk) << i;
  }
}

TEST_F(VencTest, MovingPictureDecodesAbove30DecibelsAtTheConfiguredRate) {
  if (kSanitized) GTEST_SKIP() << "this tests the engine, which is built without a sanitizer";
  constexpr int kFrames = 120;  // four seconds
  const auto venc = MakeEncoder();
  ASSERT_EQ(venc->Init(), Ormis::kQetOk);
  const MovingPicture picture;
  H264Decoder decoder;
  std::vector<std::uint8_t> pixels;
  std::vector<Picture> decoded;
  std::uint64_t bytes = 0;
  int checked = 0;
  const auto check = [&](const std::vector<Picture>& pictures) {
    for (const Picture& one : pictures) {
      const int index = checked++;
      ASSERT_EQ(one.width, static_cast<int>(kWidth));
      ASSERT_EQ(one.height, static_cast<int>(kHeight));
      EXPECT_EQ(one.isKeyFrame, index % 60 == 0) << index;
      if (index % 5 != 0) continue;
      std::vector<std::uint8_t> original;
      picture.Draw(index, original);
      EXPECT_GT(Psnr(original.data(), 1, one.luma), 30) << "luma of frame " << index;
      const std::uint8_t* chroma = &original[kWidth * kHeight];
      EXPECT_GT(Psnr(chroma, 2, one.chromaU), 30) << "first chroma of frame " << index;
      EXPECT_GT(Psnr(chroma + 1, 2, one.chromaV), 30) << "second chroma of frame " << index;
    }
  };
  for (int i = 0; i < kFrames; ++i) {
    picture.Draw(i, pixels);
    ASSERT_EQ(venc->SendFrame(FrameOver(pixels.data(), kWidth, kHeight)), Ormis::kQetOk);
    // The frame has been read, so its memory may change.
    std::fill(pixels.begin(), pixels.end(), std::uint8_t{0});
    ux_venc_stream stream{};
    ASSERT_EQ(venc->GetStream(stream), Ormis::kQetOk);
    bytes += stream.totalBytes;
    check(decoder.Decode(stream.packets[0].data, stream.packets[0].sizeBytes));
    ASSERT_EQ(venc->ReleaseStream(stream), Ormis::kQetOk);
  }
  check(decoder.Flush());
  EXPECT_EQ(checked, kFrames);
  EXPECT_NEAR(KilobitsPerSecond(bytes, kFrames), 2000, 200);
}

TEST_F(VencTest, BlackPictureHasTheConfiguredRateToo) {
  constexpr int kFrames = 120;
  const auto venc = MakeEncoder();
  ASSERT_EQ(venc->Init(), Ormis::kQetOk);
  std::vector<std::uint8_t> pixels(FrameBytes(kWidth, kHeight));
  std::uint64_t bytes = 0;
  for (int i = 0; i < kFrames; ++i) {
    ASSERT_EQ(venc->SendFrame(FrameOver(pixels.data(), kWidth, kHeight)), Ormis::kQetOk);
    ux_venc_stream stream{};
    ASSERT_EQ(venc->GetStream(stream), Ormis::kQetOk);
    bytes += stream.totalBytes;
    ASSERT_EQ(venc->ReleaseStream(stream), Ormis::kQetOk);
  }
  EXPECT_NEAR(KilobitsPerSecond(bytes, kFrames), 2000, 200);
}

TEST_F(VencTest, ReadsNothingBeyondTheFrameAndWritesNothingIntoIt) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  // Also with widths that are no multiple of a vector register or a macroblock.
  for (const std::size_t width : {1920U, 1282U, 66U, 34U}) {
    const std::size_t height = 1080;
    const std::size_t bytes = FrameBytes(width, height);
    const std::size_t mapped = (bytes + page - 1) / page * page;
    void* memory = mmap(nullptr, mapped + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto* base = static_cast<std::uint8_t*>(memory);
    std::memset(base, 100, mapped);
    ASSERT_EQ(mprotect(base, mapped, PROT_READ), 0);
    ASSERT_EQ(mprotect(base + mapped, page, PROT_NONE), 0);
    const auto venc = MakeEncoder(width, height);
    ASSERT_EQ(venc->Init(), Ormis::kQetOk);
    for (int i = 0; i < 3; ++i) {
      ASSERT_EQ(venc->SendFrame(FrameOver(base + mapped - bytes, width, height)), Ormis::kQetOk) << width;
    }
    ASSERT_EQ(munmap(memory, mapped + page), 0);
  }
}

TEST_F(VencTest, StreamsComeInTheOrderOfTheFramesAndStayValidUntilReleased) {
  Small small;
  ASSERT_EQ(small.venc->Init(), Ormis::kQetOk);
  std::vector<ux_venc_stream> streams(5);
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 5; ++i) ASSERT_EQ(small.venc->SendFrame(small.frame), Ormis::kQetOk);
    std::vector<std::vector<std::uint8_t>> copies;
    for (int i = 0; i < 5; ++i) {
      ux_venc_stream& stream = streams[static_cast<std::size_t>(i)];
      ASSERT_EQ(small.venc->GetStream(stream), Ormis::kQetOk);
      EXPECT_EQ(stream.packets[0].frameIndex, round * 5 + i);
      copies.emplace_back(stream.packets[0].data, stream.packets[0].data + stream.packets[0].sizeBytes);
    }
    // Released out of order, so that the next round's frames use the slots in another order.
    for (const std::size_t i : {2U, 0U, 4U, 1U, 3U}) {
      EXPECT_EQ(std::memcmp(streams[i].packets[0].data, copies[i].data(), copies[i].size()), 0);
      EXPECT_EQ(small.venc->ReleaseStream(streams[i]), Ormis::kQetOk);
    }
  }
}

TEST_F(VencInitTest, InitAnswersACodeAndOneLineForEachWrongSetting) {
  struct Case {
    std::uint32_t QetVenc::* member;
    std::uint32_t value;
    std::int32_t code;
    const char* message;
  };
  const Case cases[] = {
      {&QetVenc::width, 0, Ormis::kQetInvalidSize, "size 0x1080, expected even width and height above 0"},
      {&QetVenc::height, 0, Ormis::kQetInvalidSize, "size 1920x0, expected even width and height above 0"},
      {&QetVenc::width, 1919, Ormis::kQetInvalidSize,
       "size 1919x1080, expected even width and height above 0"},
      {&QetVenc::height, 1079, Ormis::kQetInvalidSize,
       "size 1920x1079, expected even width and height above 0"},
      {&QetVenc::width, 4098, Ormis::kQetInvalidSize, "size 4098x1080, expected at most 4096x4096"},
      {&QetVenc::height, 4098, Ormis::kQetInvalidSize, "size 1920x4098, expected at most 4096x4096"},
      {&QetVenc::bitrateKbps, 0, Ormis::kQetInvalidArgument, "bit rate 0 kbit/s, expected 1 to 2147483"},
      {&QetVenc::bitrateKbps, 2147484, Ormis::kQetInvalidArgument,
       "bit rate 2147484 kbit/s, expected 1 to 2147483"},
      {&QetVenc::frameRate, 0, Ormis::kQetInvalidArgument, "frame rate 0, expected 1 to 100000"},
      {&QetVenc::frameRate, 0x80000000U, Ormis::kQetInvalidArgument,
       "frame rate 2147483648, expected 1 to 100000"},
      {&QetVenc::gopSize, 0, Ormis::kQetInvalidArgument, "key frame distance 0, expected 1 to 2147483647"},
      {&QetVenc::gopSize, 0x80000000U, Ormis::kQetInvalidArgument,
       "key frame distance 2147483648, expected 1 to 2147483647"},
      {&QetVenc::streamBufferBytes, 0, Ormis::kQetInvalidSize, "a stream buffer of 0 bytes, expected more"},
  };
  for (const Case& one : cases) {
    const auto venc = MakeEncoder();
    venc.get()->*one.member = one.value;
    ExpectFailure(one.code, "QetVenc::Init", one.message, [&] { return venc->Init(); });
    EXPECT_EQ(venc->encoderId, 0U) << one.message;
    // With the setting corrected, the same encoder opens.
    venc.get()->*one.member = MakeEncoder().get()->*one.member;
    EXPECT_EQ(venc->Init(), Ormis::kQetOk) << one.message;
  }
}

TEST_F(VencInitTest, InitAnswersACodeForSidesThatNoEngineEncodes) {
  for (const auto& [width, height] : {std::pair{16386U, 2U},
                                      {2U, 16386U},
                                      {65536U, 65536U},
                                      {4294967294U, 2U},
                                      {4294967294U, 4294967294U}}) {
    const auto venc = MakeEncoder(width, height);
    venc->maxWidth = venc->maxHeight = UINT32_MAX;
    ExpectFailure(
        Ormis::kQetInvalidSize, "QetVenc::Init",
        "size " + std::to_string(width) + "x" + std::to_string(height) + ", expected at most 16384x16384",
        [&] { return venc->Init(); });
  }
}

TEST_F(VencInitTest, InitLogsChannelSizeAndEngine) {
  Small small;
  std::int32_t code = -1;
  const std::string log = StandardErrorOf([&] { code = small.venc->Init(); });
  EXPECT_EQ(code, Ormis::kQetOk);
  EXPECT_EQ(LineCount(log), 1U) << log;
  EXPECT_NE(log.find("Z INFO - QET "), std::string::npos) << log;
  EXPECT_NE(log.find(" QetVenc::Init: channel 25, 64x48, engine "), std::string::npos) << log;
  EXPECT_NE(log.find(" QetVenc::Init)\n"), std::string::npos) << log;
}

// Settings that the engine would refuse are refused before it sees them, because it would leak memory. All
// others work.
TEST_F(VencTest, ExtremeSettingsWorkOrAreRefused) {
  constexpr std::uint32_t kMost = std::numeric_limits<std::int32_t>::max();
  struct Case {
    std::uint32_t bitrateKbps, frameRate, gopSize;
    std::int32_t code;
  };
  const Case cases[] = {
      {2000, kMost, 60, Ormis::kQetInvalidArgument},
      {2147483, kMost, 60, Ormis::kQetInvalidArgument},
      {2147483, kMost, kMost, Ormis::kQetInvalidArgument},
      {2000, 100001, 60, Ormis::kQetInvalidArgument},
      {2000, 100000, 60, Ormis::kQetOk},
      {2000, 30, kMost, Ormis::kQetOk},
      {2147483, 30, 60, Ormis::kQetOk},
      {2147483, 100000, kMost, Ormis::kQetOk},
      {1999993, 99991, 1, Ormis::kQetOk},
      {1, 1, 1, Ormis::kQetOk},
      {1, 100000, kMost, Ormis::kQetOk},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(testing::Message() << one.bitrateKbps << " kbit/s, " << one.frameRate << " frames/s, "
                                    << one.gopSize);
    Small small;
    small.venc->bitrateKbps = one.bitrateKbps;
    small.venc->frameRate = one.frameRate;
    small.venc->gopSize = one.gopSize;
    ASSERT_EQ(small.venc->Init(), one.code);
    if (one.code != Ormis::kQetOk) continue;
    for (std::uint32_t i = 0; i < 3; ++i) {
      ASSERT_EQ(small.venc->SendFrame(small.frame), Ormis::kQetOk);
      ux_venc_stream stream{};
      ASSERT_EQ(small.venc->GetStream(stream), Ormis::kQetOk);
      EXPECT_EQ(stream.packets[0].isKeyFrame, i % one.gopSize == 0 ? 1U : 0U);
      ASSERT_EQ(small.venc->ReleaseStream(stream), Ormis::kQetOk);
    }
  }
}

TEST_F(VencTest, TheLongestSidesWork) {
  for (const auto& [width, height] : {std::pair{16384U, 2U}, {2U, 16384U}, {2U, 2U}}) {
    const auto venc = MakeEncoder(width, height);
    venc->maxWidth = venc->maxHeight = 16384;
    ASSERT_EQ(venc->Init(), Ormis::kQetOk) << width;
    std::vector<std::uint8_t> pixels(FrameBytes(width, height), 90);
    EXPECT_EQ(venc->SendFrame(FrameOver(pixels.data(), width, height)), Ormis::kQetOk) << width;
  }
}

TEST_F(VencInitTest, InitSaysWhatTheEngineRefused) {
  const auto venc = MakeEncoder(16384, 16384);  // each side is allowed, but not both at once
  venc->maxWidth = venc->maxHeight = 16384;
  std::int32_t code = 0;
  const std::string log = StandardErrorOf([&] { code = venc->Init(); });
  EXPECT_EQ(code, Ormis::kQetEncoderFailure);
  EXPECT_EQ(LineCount(log), 1U) << log;
  EXPECT_NE(log.find("16384x16384"), std::string::npos) << log;
  EXPECT_NE(log.find("libx264"), std::string::npos) << log;
}

TEST_F(VencInitTest, InitTwiceIsRefused) {
  Small small;
  ASSERT_EQ(small.venc->Init(), Ormis::kQetOk);
  ExpectFailure(Ormis::kQetAlreadyInitialized, "QetVenc::Init", "the encoder is initialised already",
                [&] { return small.venc->Init(); });
  EXPECT_EQ(small.venc->SendFrame(small.frame), Ormis::kQetOk);
}

TEST_F(VencTest, OperationsBeforeInitAreRefused) {
  Small small;
  ux_venc_stream stream{};
  const std::string message = "the encoder is not initialised: call Init first";
  ExpectFailure(Ormis::kQetEncoderNotReady, "QetVenc::SendFrame", message,
                [&] { return small.venc->SendFrame(small.frame); });
  ExpectFailure(Ormis::kQetEncoderNotReady, "QetVenc::GetStream", message,
                [&] { return small.venc->GetStream(stream); });
  ExpectFailure(Ormis::kQetEncoderNotReady, "QetVenc::ReleaseStream", message,
                [&] { return small.venc->ReleaseStream(stream); });
}

TEST_F(VencTest, OperationsWithoutAContextAreRefused) {
  Small small;
  Small other;
  ASSERT_EQ(small.venc->Init(), Ormis::kQetOk);
  std::thread([&] {
    ux_venc_stream stream{};
    ExpectFailure(Ormis::kQetNoContext, "QetVenc::Init", kNoContextMessage,
                  [&] { return other.venc->Init(); });
    ExpectFailure(Ormis::kQetNoContext, "QetVenc::SendFrame", kNoContextMessage,
                  [&] { return small.venc->SendFrame(small.frame); });
    ExpectFailure(Ormis::kQetNoContext, "QetVenc::GetStream", kNoContextMessage,
                  [&] { return small.venc->GetStream(stream); });
    ExpectFailure(Ormis::kQetNoContext, "QetVenc::ReleaseStream", kNoContextMessage,
                  [&] { return small.venc->ReleaseStream(stream); });
  }).join();
}

constexpr char kNoStreamMessage[] = "no stream is waiting: call SendFrame first";

std::string NotOutstandingMessage(std::uint64_t streamId) {
  return "stream " + std::to_string(streamId) + " is not outstanding, expected one from GetStream, once";
}

TEST_F(VencTest, SendFrameAnswersACodeForEachWrongFrame) {
  Small small;
  ASSERT_EQ(small.venc->Init(), Ormis::kQetOk);
  const auto refused = [&](std::int32_t code, const std::string& message, auto change) {
    ImageData frame = FrameOver(small.pixels.data(), Small::kSmallWidth, Small::kSmallHeight);
    change(frame);
    ExpectFailure(code, "QetVenc::SendFrame", message, [&] { return small.venc->SendFrame(frame); });
  };
  refused(Ormis::kQetInvalidArgument,
          "frame with buffer mode 2, expected 0, the caller's memory, or 1, the platform's memory",
          [](ImageData& frame) { frame.bufferMode = 2; });
  refused(Ormis::kQetUnsupported, "image type 1, expected 2",
          [](ImageData& frame) { frame.imageType = Ormis::kQetImageBgr888; });
  refused(Ormis::kQetUnsupported, "image type 99, expected 2",
          [](ImageData& frame) { frame.imageType = 99; });
  refused(Ormis::kQetInvalidSize, "a frame of 66x48, expected 64x48",
          [](ImageData& frame) { frame.width += 2; });
  refused(Ormis::kQetInvalidSize, "a frame of 64x46, expected 64x48",
          [](ImageData& frame) { frame.height -= 2; });
  refused(Ormis::kQetInvalidSize, "a frame of 4607 bytes, expected at least 4608",
          [](ImageData& frame) { frame.dataSize -= 1; });
  refused(Ormis::kQetInvalidArgument, "a frame without data", [](ImageData& frame) { frame.data = nullptr; });
  ux_venc_stream stream{};
  ExpectFailure(Ormis::kQetNoStream, "QetVenc::GetStream", kNoStreamMessage,
                [&] { return small.venc->GetStream(stream); });
  ImageData larger = small.frame;
  larger.dataSize += 4096;
  EXPECT_EQ(small.venc->SendFrame(larger), Ormis::kQetOk);
}

ImageData AllocateFrame(std::size_t width, std::size_t height) {
  ImageData image = FrameOver(nullptr, width, height);
  image.dataSize = 0;
  image.bufferMode = Ormis::kQetBufferPlatform;
  EXPECT_EQ(Ormis::QetImageMallocAligned(image), Ormis::kQetOk);
  return image;
}

std::vector<std::uint8_t> Encoded(QetVenc& venc, const ImageData& frame) {
  EXPECT_EQ(venc.SendFrame(frame), Ormis::kQetOk);
  ux_venc_stream stream{};
  EXPECT_EQ(venc.GetStream(stream), Ormis::kQetOk);
  std::vector<std::uint8_t> bytes(stream.packets[0].data,
                                  stream.packets[0].data + stream.packets[0].sizeBytes);
  EXPECT_EQ(venc.ReleaseStream(stream), Ormis::kQetOk);
  return bytes;
}

TEST_F(VencTest, AnImageOfThePlatformIsEncodedLikeTheCallersMemory) {
  Small own;
  Small platform;
  ASSERT_EQ(own.venc->Init(), Ormis::kQetOk);
  ASSERT_EQ(platform.venc->Init(), Ormis::kQetOk);
  ImageData image = AllocateFrame(Small::kSmallWidth, Small::kSmallHeight);
  for (std::uint32_t i = 0; i < image.dataSize; ++i) {
    own.pixels[i] = image.data[i] = static_cast<std::uint8_t>(i * i);
  }
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Encoded(*platform.venc, image), Encoded(*own.venc, own.frame));
  EXPECT_EQ(Ormis::QetImageDestroy(image), Ormis::kQetOk);
}

TEST_F(VencTest, SendFrameAnswersACodeForMemoryThatIsNotThePlatforms) {
  Small small;
  ASSERT_EQ(small.venc->Init(), Ormis::kQetOk);
  const auto expectRefused = [&](const ImageData& frame, std::int32_t expected, const char* part) {
    std::int32_t code = 0;
    const std::string log = StandardErrorOf([&] { code = small.venc->SendFrame(frame); });
    EXPECT_EQ(code, expected) << log;
    EXPECT_EQ(LineCount(log), 1U) << log;
    EXPECT_NE(log.find("QetVenc::SendFrame: "), std::string::npos) << log;
    EXPECT_NE(log.find(part), std::string::npos) << log;
  };
  ImageData image = AllocateFrame(Small::kSmallWidth, Small::kSmallHeight);
  ImageData changed = image;
  changed.dataSize += 1;
  expectRefused(changed, Ormis::kQetInvalidSize, "as it was allocated");
  changed = image;
  changed.imageType = Ormis::kQetImageYvu420sp;
  expectRefused(changed, Ormis::kQetInvalidArgument, "as it was allocated");

  const ImageData stale = image;
  ASSERT_EQ(Ormis::QetImageDestroy(image), Ormis::kQetOk);
  expectRefused(stale, Ormis::kQetUnknownBuffer, ": frame without memory of the platform");
  ImageData foreign = small.frame;
  foreign.bufferMode = Ormis::kQetBufferPlatform;
  expectRefused(foreign, Ormis::kQetUnknownBuffer, ": frame without memory of the platform");
  for (const std::uint32_t mode : {2U, 0xffffffffU}) {
    ImageData frame = small.frame;
    frame.bufferMode = mode;
    expectRefused(frame, Ormis::kQetInvalidArgument, "buffer mode");
  }

  ImageData larger = AllocateFrame(Small::kSmallWidth + 2, Small::kSmallHeight);
  expectRefused(larger, Ormis::kQetInvalidSize, "a frame of 66x48, expected 64x48");
  EXPECT_EQ(Ormis::QetImageDestroy(larger), Ormis::kQetOk);
  ux_venc_stream stream{};
  EXPECT_EQ(small.venc->GetStream(stream), Ormis::kQetNoStream) << "a refused frame left a stream";
}

TEST_F(VencTest, AnImageThatIsDestroyedMeanwhileIsEncodedWholeOrRefused) {
  const auto venc = MakeEncoder();
  ASSERT_EQ(venc->Init(), Ormis::kQetOk);
  for (int i = 0; i < 12; ++i) {
    ImageData image = AllocateFrame(kWidth, kHeight);
    std::uint32_t state = 7;
    for (std::uint32_t at = 0; at < image.dataSize; ++at) {
      image.data[at] = static_cast<std::uint8_t>((state = state * 1664525U + 1U) >> 24);
    }
    const ImageData frame = image;
    std::atomic<bool> sending{false};
    std::thread destroyer = WithContext([&] {
      while (!sending) std::this_thread::yield();
      EXPECT_EQ(Ormis::QetImageDestroy(image), Ormis::kQetOk);
    });
    sending = true;
    const std::int32_t code = venc->SendFrame(frame);
    destroyer.join();
    if (code == Ormis::kQetOk) {
      ux_venc_stream stream{};
      ASSERT_EQ(venc->GetStream(stream), Ormis::kQetOk);
      EXPECT_EQ(venc->ReleaseStream(stream), Ormis::kQetOk);
    } else {
      EXPECT_EQ(code, Ormis::kQetUnknownBuffer);
    }
  }
}

TEST_F(VencTest, SizesChangedAfterInitHaveNoEffect) {
  Small small;
  ASSERT_EQ(small.venc->Init(), Ormis::kQetOk);
  small.venc->width = small.frame.width = 1920;
  small.venc->height = small.frame.height = 1080;
  small.frame.dataSize = 3110400;
  EXPECT_EQ(small.venc->SendFrame(small.frame), Ormis::kQetInvalidSize);
}

TEST_F(VencTest, FetchingWithoutAStreamLeavesTheRecordAsItWas) {
  Small small;
  ASSERT_EQ(small.venc->Init(), Ormis::kQetOk);
  ux_venc_stream stream;
  std::memset(&stream, 0x5a, sizeof stream);
  const ux_venc_stream before = stream;
  ExpectFailure(Ormis::kQetNoStream, "QetVenc::GetStream", kNoStreamMessage,
                [&] { return small.venc->GetStream(stream); });
  EXPECT_EQ(std::memcmp(&stream, &before, sizeof stream), 0);
}

TEST_F(VencTest, FetchingAStreamSetsTheWholeRecord) {
  Small small;
  ASSERT_EQ(small.venc->Init(), Ormis::kQetOk);
  ASSERT_EQ(small.venc->SendFrame(small.frame), Ormis::kQetOk);
  ux_venc_stream stream;
  std::memset(&stream, 0x5a, sizeof stream);
  ASSERT_EQ(small.venc->GetStream(stream), Ormis::kQetOk);
  ux_venc_stream expected{};
  expected.streamId = stream.streamId;
  expected.packetCount = 1;
  expected.channel = 25;
  expected.totalBytes = stream.totalBytes;
  expected.packets[0] = {stream.packets[0].data, stream.totalBytes, 0, 1, 0, {}};
  EXPECT_EQ(std::memcmp(&stream, &expected, sizeof stream), 0);
  EXPECT_EQ(small.venc->ReleaseStream(stream), Ormis::kQetOk);
}

TEST_F(VencTest, AStreamIsReleasedOnce) {
  Small small;
  ASSERT_EQ(small.venc->Init(), Ormis::kQetOk);
  ASSERT_EQ(small.venc->SendFrame(small.frame), Ormis::kQetOk);
  ux_venc_stream stream{};
  EXPECT_EQ(small.venc->ReleaseStream(stream), Ormis::kQetNoStream) << "nothing was fetched";
  ASSERT_EQ(small.venc->GetStream(stream), Ormis::kQetOk);
  ux_venc_stream copy = stream;
  EXPECT_EQ(small.venc->ReleaseStream(stream), Ormis::kQetOk);
  const ux_venc_stream empty{};
  EXPECT_EQ(std::memcmp(&stream, &empty, sizeof stream), 0);
  EXPECT_EQ(small.venc->ReleaseStream(stream), Ormis::kQetNoStream);
  EXPECT_EQ(small.venc->ReleaseStream(copy), Ormis::kQetNoStream);
  copy.streamId = 123456789;
  ExpectFailure(Ormis::kQetNoStream, "QetVenc::ReleaseStream", NotOutstandingMessage(123456789),
                [&] { return small.venc->ReleaseStream(copy); });
}

TEST_F(VencTest, AReleasedStreamTakesNoMemory) {
  // Its allocator stands in front of the one that mallinfo2 asks.
  if (kSanitized) GTEST_SKIP() << "a sanitizer does not count what is allocated";
  const auto bytesInUse = [] {
    const struct mallinfo2 all = mallinfo2();
    return all.uordblks + all.hblkhd;
  };
  Small small;
  small.venc->bitrateKbps = 20000;
  std::uint32_t state = 1;
  for (std::uint8_t& pixel : small.pixels) {
    state = state * 1664525U + 1013904223U;
    pixel = static_cast<std::uint8_t>(state >> 24U);
  }
  ASSERT_EQ(small.venc->Init(), Ormis::kQetOk);
  ASSERT_EQ(small.venc->SendFrame(small.frame), Ormis::kQetOk);
  ux_venc_stream stream{};
  ASSERT_EQ(small.venc->GetStream(stream), Ormis::kQetOk);
  const std::size_t bytes = stream.totalBytes;
  ASSERT_GT(bytes, 2048U) << "smaller memory may stay in use to be given out again";
  const std::size_t before = bytesInUse();
  ASSERT_EQ(small.venc->ReleaseStream(stream), Ormis::kQetOk);
  EXPECT_LE(bytesInUse() + bytes, before);
}

TEST_F(VencTest, AStreamOfAnotherEncoderIsRefused) {
  Small one;
  Small other;
  ASSERT_EQ(one.venc->Init(), Ormis::kQetOk);
  ASSERT_EQ(other.venc->Init(), Ormis::kQetOk);
  ASSERT_EQ(one.venc->SendFrame(one.frame), Ormis::kQetOk);
  ux_venc_stream stream{};
  ASSERT_EQ(one.venc->GetStream(stream), Ormis::kQetOk);
  EXPECT_EQ(other.venc->ReleaseStream(stream), Ormis::kQetNoStream);
  EXPECT_EQ(one.venc->ReleaseStream(stream), Ormis::kQetOk);
}

TEST_F(VencTest, StreamsNotReleasedAreLimitedAndFreedWithTheEncoder) {
  Small small;
  ASSERT_EQ(small.venc->Init(), Ormis::kQetOk);
  std::vector<ux_venc_stream> streams;
  std::int32_t code = Ormis::kQetOk;
  while ((code = small.venc->SendFrame(small.frame)) == Ormis::kQetOk) {
    ASSERT_LT(streams.size(), 1000U);
    streams.emplace_back();
    if (streams.size() % 2 == 0) ASSERT_EQ(small.venc->GetStream(streams.back()), Ormis::kQetOk);
  }
  EXPECT_EQ(code, Ormis::kQetBusy);
  EXPECT_EQ(streams.size(), 16U);
  // One release makes room for one frame.
  ASSERT_EQ(small.venc->ReleaseStream(streams[1]), Ormis::kQetOk);
  EXPECT_EQ(small.venc->SendFrame(small.frame), Ormis::kQetOk);
  EXPECT_EQ(small.venc->SendFrame(small.frame), Ormis::kQetBusy);
}

TEST_F(VencTest, TheBytesOfStreamsThatAreKeptAreLimitedToTheBuffer) {
  Small small;
  ASSERT_EQ(small.venc->Init(), Ormis::kQetOk);
  ASSERT_EQ(small.venc->SendFrame(small.frame), Ormis::kQetOk);
  ux_venc_stream first{};
  ASSERT_EQ(small.venc->GetStream(first), Ormis::kQetOk);
  const auto bytes = static_cast<std::uint32_t>(first.totalBytes);

  // The first frame of another encoder has as many bytes. They may be one less than the buffer has, not as
  // many.
  for (const auto& [room, code] : {std::pair{bytes, Ormis::kQetBusy}, {bytes + 1, Ormis::kQetOk}}) {
    Small other;
    other.venc->streamBufferBytes = room;
    ASSERT_EQ(other.venc->Init(), Ormis::kQetOk);
    ASSERT_EQ(other.venc->SendFrame(other.frame), Ormis::kQetOk);
    if (code == Ormis::kQetOk) {
      EXPECT_EQ(other.venc->SendFrame(other.frame), code);
      continue;
    }
    ExpectFailure(code, "QetVenc::SendFrame",
                  "streams of " + std::to_string(bytes) +
                      " bytes are outstanding, expected fewer than 16 streams and " + std::to_string(room) +
                      " bytes: release some first",
                  [&] { return other.venc->SendFrame(other.frame); });
  }
}

TEST_F(VencTest, BytesNotReleasedAreLimited) {
  Small small;
  small.venc->streamBufferBytes = 1;
  ASSERT_EQ(small.venc->Init(), Ormis::kQetOk);
  ux_venc_stream stream{};
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(small.venc->SendFrame(small.frame), Ormis::kQetOk);
    EXPECT_EQ(small.venc->SendFrame(small.frame), Ormis::kQetBusy);
    ASSERT_EQ(small.venc->GetStream(stream), Ormis::kQetOk);
    ASSERT_EQ(small.venc->ReleaseStream(stream), Ormis::kQetOk);
  }
}

TEST_F(VencTest, TheDestructorWorksInEveryState) {
  {
    Small neverInitialised;
  }
  {
    Small failed;
    failed.venc->bitrateKbps = 0;
    ASSERT_NE(failed.venc->Init(), Ormis::kQetOk);
  }
  {
    Small unfetched;
    ASSERT_EQ(unfetched.venc->Init(), Ormis::kQetOk);
    ASSERT_EQ(unfetched.venc->SendFrame(unfetched.frame), Ormis::kQetOk);
  }
  Small withoutContext;
  ASSERT_EQ(withoutContext.venc->Init(), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDestroyContext(context_), Ormis::kQetOk);
  withoutContext.venc.reset();
  // The destructor has freed it: the platform finds no encoder that was left.
  EXPECT_EQ(StandardErrorOf([&] { ReleasePlatform(); }), "");
}

TEST_F(VencTest, ReleasingThePlatformFreesEncodersAndSaysSo) {
  Small first;
  Small second;
  ASSERT_EQ(first.venc->Init(), Ormis::kQetOk);
  ASSERT_EQ(second.venc->Init(), Ormis::kQetOk);
  ASSERT_EQ(first.venc->SendFrame(first.frame), Ormis::kQetOk);
  const std::string log = StandardErrorOf([&] { ReleasePlatform(); });
  EXPECT_EQ(Ormis::test::MessageOf(log), "QetRelease: gave back what was left: 2 encoders, 1 context");
  ux_venc_stream stream{};
  EXPECT_EQ(first.venc->SendFrame(first.frame), Ormis::kQetNotInitialized);
  EXPECT_EQ(first.venc->GetStream(stream), Ormis::kQetNotInitialized);
  EXPECT_EQ(first.venc->ReleaseStream(stream), Ormis::kQetNotInitialized);
  first.venc.reset();
  // After a restart the platform does not know the old encoder. Its owner may open it again.
  StartPlatform();
  EXPECT_EQ(second.venc->SendFrame(second.frame), Ormis::kQetEncoderNotReady);
  EXPECT_EQ(second.venc->Init(), Ormis::kQetOk);
  EXPECT_EQ(second.venc->SendFrame(second.frame), Ormis::kQetOk);
}

TEST_F(VencTest, TenEncodersInTenThreadsMakeTheSameStream) {
  constexpr std::uint32_t kThreads = 10;
  constexpr std::size_t kSmallWidth = 320;
  constexpr std::size_t kSmallHeight = 240;
  std::vector<std::vector<std::uint8_t>> streams(kThreads);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (std::uint32_t index = 0; index < kThreads; ++index) {
    threads.push_back(WithContext([&, index] {
      const auto venc = MakeEncoder(kSmallWidth, kSmallHeight);
      venc->channel = index;
      ASSERT_EQ(venc->Init(), Ormis::kQetOk);
      std::vector<std::uint8_t> pixels(FrameBytes(kSmallWidth, kSmallHeight));
      std::uint32_t state = 5;
      for (int i = 0; i < 40; ++i) {
        for (std::uint8_t& pixel : pixels) {
          pixel = static_cast<std::uint8_t>((state = state * 1664525U + 1013904223U) >> 26);
        }
        ASSERT_EQ(venc->SendFrame(FrameOver(pixels.data(), kSmallWidth, kSmallHeight)), Ormis::kQetOk);
        ux_venc_stream stream{};
        ASSERT_EQ(venc->GetStream(stream), Ormis::kQetOk);
        EXPECT_EQ(stream.channel, index);
        streams[index].insert(streams[index].end(), stream.packets[0].data,
                              stream.packets[0].data + stream.packets[0].sizeBytes);
        ASSERT_EQ(venc->ReleaseStream(stream), Ormis::kQetOk);
      }
    }));
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(streams[0].empty());
  for (const auto& stream : streams) EXPECT_EQ(stream, streams[0]);
}

}  // namespace
