// SPDX-License-Identifier: Apache-2.0

// What each operation asks to be removed from the caches. The platform's objects are linked with the routines
// of this file in place of those of cache_flush.cpp.
#include <algorithm>
#include <cstdint>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "cache_flush.h"
#include "model_test.h"
#include "stream_copy.h"

namespace {

/// The ranges that were flushed, and whether EndFlush came after the last of them.
struct Flushes {
  std::mutex mutex;
  std::map<std::uintptr_t, std::uintptr_t> ranges;  // begin to end
  bool on = true;
  bool ended = true;
};

Flushes& flushes() {
  static Flushes all;
  return all;
}

void NoteFlush(const void* memory, std::size_t bytes) {
  Flushes& all = flushes();
  const std::lock_guard<std::mutex> lock(all.mutex);
  const auto begin = reinterpret_cast<std::uintptr_t>(memory);
  std::uintptr_t& end = all.ranges[begin];
  end = std::max(end, begin + bytes);
  all.ended = false;
}

}  // namespace

namespace Ormis::portable {

const RoutineList<FlushRoutine>& FlushRoutines() {
  static const RoutineList<FlushRoutine> routines = [] {
    RoutineList<FlushRoutine> list;
    list.Add({"noted", NoteFlush});
    return list;
  }();
  return routines;
}

void EndFlush() {
  const std::lock_guard<std::mutex> lock(flushes().mutex);
  flushes().ended = true;
}

void FlushCaches(bool on) {
  flushes().on = on;
}

FlushLines CurrentFlush() {
  return flushes().on ? NoteFlush : nullptr;
}

}  // namespace Ormis::portable

namespace {

using Ormis::ImageData;

constexpr std::uint32_t kWidth = 192;
constexpr std::uint32_t kHeight = 108;

/// With true: what `memory: device` does. With false: `memory: cached`.
class FlushTest : public ModelTest, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    ModelTest::SetUp();
    ReleasePlatform();
    const std::string settings = folder_ / "host.yaml";
    std::ofstream(settings) << "encoder: libx264\nmemory: " << (GetParam() ? "device" : "cached") << '\n';
    StartPlatform(settings);
    Forget();
  }

  static void Forget() { flushes().ranges.clear(); }

  /// Expects that every byte was flushed since Forget, or none where the caches are left alone.
  static void ExpectFlushed(const void* memory, std::size_t bytes, const char* what) {
    Flushes& all = flushes();
    const std::lock_guard<std::mutex> lock(all.mutex);
    if (!GetParam()) {
      EXPECT_TRUE(all.ranges.empty()) << what;
      return;
    }
    auto at = reinterpret_cast<std::uintptr_t>(memory);
    const std::uintptr_t end = at + bytes;
    for (const auto& [rangeBegin, rangeEnd] : all.ranges) {
      if (rangeBegin <= at) at = std::max(at, rangeEnd);
    }
    EXPECT_GE(at, end) << what << ": " << end - at << " bytes of " << bytes << " were not flushed";
    EXPECT_TRUE(all.ended) << what;
  }

  static ImageData Image(std::uint32_t width, std::uint32_t height) {
    ImageData image;
    image.width = width;
    image.height = height;
    image.bufferMode = Ormis::kQetBufferPlatform;
    image.imageType = Ormis::kQetImageBgr888;
    EXPECT_EQ(Ormis::QetImageMallocAligned(image), Ormis::kQetOk);
    return image;
  }
};

TEST_P(FlushTest, CopiesOfImagesLeaveBothImagesInMemory) {
  const ImageData from = Image(kWidth, kHeight);
  ImageData to = Image(kWidth, kHeight);
  ASSERT_EQ(Ormis::QetMemcpyToKivu(from, to), Ormis::kQetOk);
  ExpectFlushed(from.data, from.dataSize, "the source of a copy");
  ExpectFlushed(to.data, to.dataSize, "the destination of a copy");
  Forget();
  ASSERT_EQ(Ormis::QetMemcpyToKivu(to, to), Ormis::kQetOk);
  ExpectFlushed(to.data, to.dataSize, "an image that was copied onto itself");
  Forget();
  std::vector<std::uint8_t> pixels(to.dataSize);
  ImageData users = from;
  users.bufferMode = Ormis::kQetBufferUser;
  users.data = pixels.data();
  ASSERT_EQ(Ormis::QetMemcpyToKivu(users, to), Ormis::kQetOk);
  ExpectFlushed(pixels.data(), pixels.size(), "a source in the caller's memory");
  ExpectFlushed(to.data, to.dataSize, "its destination");
}

TEST_P(FlushTest, ResizesLeaveTheSourceAndTheEndsOfTheDestinationInMemory) {
  const ImageData from = Image(kWidth, kHeight);
  const ImageData to = Image(kWidth / 2, kHeight / 2);
  int channel = 0;
  ASSERT_EQ(Ormis::QetCreateChannel(channel), Ormis::kQetOk);
  Forget();
  ASSERT_EQ(Ormis::QetImageResize(channel, from, to, Ormis::kQetInterpolationArea, -1), Ormis::kQetOk);
  ExpectFlushed(from.data, from.dataSize, "the source of a resize");
  // The rest is written past the caches.
  ExpectFlushed(to.data, 1, "the first byte of the destination");
  ExpectFlushed(to.data + to.dataSize - 1, 1, "the last byte of the destination");
}

TEST_P(FlushTest, EncodersLeaveTheFrameInMemory) {
  std::vector<std::uint8_t> pixels(std::size_t{kWidth} * kHeight * 3 / 2, 128);
  ImageData frame;
  frame.width = kWidth;
  frame.height = kHeight;
  frame.dataSize = static_cast<std::uint32_t>(pixels.size());
  frame.bufferMode = Ormis::kQetBufferUser;
  frame.imageType = Ormis::kQetImageYuv420sp;
  frame.data = pixels.data();
  Ormis::QetVenc encoder;
  encoder.width = encoder.maxWidth = kWidth;
  encoder.height = encoder.maxHeight = kHeight;
  encoder.bitrateKbps = 2000;
  encoder.streamBufferBytes = 9437184;
  encoder.frameRate = 30;
  encoder.gopSize = 60;
  ASSERT_EQ(encoder.Init(), Ormis::kQetOk);
  for (int number = 1; number <= 2; ++number) {
    Forget();
    ASSERT_EQ(encoder.SendFrame(frame), Ormis::kQetOk);
    ExpectFlushed(pixels.data(), pixels.size(), "a frame");
  }
}

TEST_P(FlushTest, ModelsLeaveInputsAndOutputsInMemory) {
  Ormis::QetDNNHandle handle;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, Write(TinyNetwork())), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
  ASSERT_FALSE(handle.inputs.empty() || handle.outputs.empty());
  for (int run = 1; run <= 2; ++run) {
    Forget();
    ASSERT_EQ(Ormis::QetDNNModelProcess(handle), Ormis::kQetOk);
    for (const Ormis::QetDNNBuffer& input : handle.inputs) {
      ExpectFlushed(input.data, input.sizeBytes, "an input");
    }
    for (const Ormis::QetDNNBuffer& output : handle.outputs) {
      ExpectFlushed(output.data, output.sizeBytes, "an output");
    }
  }
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

TEST_P(FlushTest, CopiesFromAMebibyteOnLeaveBothBuffersInMemory) {
  constexpr std::size_t kMebibyte = std::size_t{1} << 20;
  const std::vector<std::uint8_t> source(kMebibyte);
  std::vector<std::uint8_t> destination(kMebibyte);
  ASSERT_EQ(memcpy_s(destination.data(), kMebibyte, source.data(), kMebibyte - 1), 0);
  EXPECT_TRUE(flushes().ranges.empty()) << "a smaller copy";
  ASSERT_EQ(memcpy_s(destination.data(), kMebibyte, source.data(), kMebibyte), 0);
  ExpectFlushed(source.data(), kMebibyte, "the source of a copy");
  ExpectFlushed(destination.data(), 1, "the first byte of the destination");
  ExpectFlushed(destination.data() + kMebibyte - 1, 1, "the last byte of the destination");
}

TEST(CopyRoutineTest, EachEndsWhatItHasFlushed) {
  const std::vector<std::uint8_t> source(10'000);
  std::vector<std::uint8_t> destination(10'000);
  for (const Ormis::portable::CopyRoutine& routine : Ormis::portable::CopyRoutines()) {
    flushes().ranges.clear();
    routine.copy(destination.data(), source.data(), source.size(), NoteFlush);
    EXPECT_FALSE(flushes().ranges.empty()) << routine.name;
    EXPECT_TRUE(flushes().ended) << routine.name;
  }
}

INSTANTIATE_TEST_SUITE_P(, FlushTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "Device" : "Cached"; });

}  // namespace
