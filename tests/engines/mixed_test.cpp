// SPDX-License-Identifier: Apache-2.0

// Every kind of work at once, in as many threads as the benchmark may start. Each thread must get its own
// results.
#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "model_test.h"

namespace {

using Ormis::ImageData;

constexpr std::uint32_t kThreadsOfAKind = 10;
constexpr int kRounds = 4;       ///< each creates and destroys everything
constexpr int kRepetitions = 5;  ///< of the work within a round
constexpr std::uint32_t kWidth = 64;
constexpr std::uint32_t kHeight = 48;

using Bytes = std::vector<std::uint8_t>;

ImageData Allocate(std::uint32_t width, std::uint32_t height, std::uint32_t imageType) {
  ImageData image;
  image.width = width;
  image.height = height;
  image.bufferMode = Ormis::kQetBufferPlatform;
  image.imageType = imageType;
  EXPECT_EQ(Ormis::QetImageMallocAligned(image), Ormis::kQetOk);
  return image;
}

bool HoldsOnly(const ImageData& image, std::uint8_t value) {
  return std::all_of(image.data, image.data + image.dataSize, [value](std::uint8_t b) { return b == value; });
}

void ResizeRound(std::uint32_t index) {
  const auto shade = static_cast<std::uint8_t>(10 + index * 20);
  int channel = static_cast<int>(index);
  ASSERT_EQ(Ormis::QetCreateChannel(channel), Ormis::kQetOk);
  ImageData source = Allocate(kWidth, kHeight, Ormis::kQetImageBgr888);
  ImageData destination = Allocate(kWidth / 3, kHeight / 3, Ormis::kQetImageBgr888);
  std::memset(source.data, shade, source.dataSize);
  for (int i = 0; i < kRepetitions; ++i) {
    std::memset(destination.data, 0, destination.dataSize);
    ASSERT_EQ(Ormis::QetImageResize(channel, source, destination, Ormis::kQetInterpolationArea, -1),
              Ormis::kQetOk);
    EXPECT_TRUE(HoldsOnly(destination, shade));
  }
  EXPECT_EQ(Ormis::QetImageDestroy(destination), Ormis::kQetOk);
  EXPECT_EQ(Ormis::QetImageDestroy(source), Ormis::kQetOk);
  EXPECT_EQ(Ormis::QetDestroyChannel(channel), Ormis::kQetOk);
}

/// Returns the streams of a round, joined. Every second round sends frames in the platform's memory.
void EncodeRound(std::uint32_t index, int round, Bytes& streams) {
  Ormis::QetVenc venc;
  venc.width = kWidth;
  venc.height = kHeight;
  venc.channel = index;
  venc.bitrateKbps = 200;
  venc.maxWidth = venc.maxHeight = 4096;
  venc.streamBufferBytes = 1U << 20;
  venc.frameRate = 30;
  venc.gopSize = 3;
  ASSERT_EQ(venc.Init(), Ormis::kQetOk);
  ImageData frame = Allocate(kWidth, kHeight, Ormis::kQetImageYuv420sp);
  Bytes own(frame.dataSize);
  ImageData ownFrame;
  ownFrame.width = kWidth;
  ownFrame.height = kHeight;
  ownFrame.dataSize = frame.dataSize;
  ownFrame.imageType = Ormis::kQetImageYuv420sp;
  ownFrame.data = own.data();
  const ImageData& sent = round % 2 == 0 ? ownFrame : frame;
  std::uint32_t state = 3;
  for (int i = 0; i < kRepetitions; ++i) {
    for (std::uint32_t at = 0; at < sent.dataSize; ++at) {
      sent.data[at] = static_cast<std::uint8_t>((state = state * 1664525U + 1013904223U) >> 27);
    }
    ASSERT_EQ(venc.SendFrame(sent), Ormis::kQetOk);
    ux_venc_stream stream{};
    ASSERT_EQ(venc.GetStream(stream), Ormis::kQetOk);
    EXPECT_EQ(stream.channel, index);
    const ux_venc_packet& packet = stream.packets[0];
    streams.insert(streams.end(), packet.data, packet.data + packet.sizeBytes);
    ASSERT_EQ(venc.ReleaseStream(stream), Ormis::kQetOk);
  }
  EXPECT_EQ(Ormis::QetImageDestroy(frame), Ormis::kQetOk);
}

void InferenceRound(const std::string& path, Bytes& outputs) {
  Ormis::QetDNNHandle handle;
  ASSERT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
  ASSERT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
  auto* const values = static_cast<float*>(handle.inputs.at(0).data);
  const std::size_t count = handle.inputs[0].sizeBytes / sizeof(float);
  for (int i = 0; i < kRepetitions; ++i) {
    for (std::size_t at = 0; at < count; ++at)
      values[at] = static_cast<float>(at % 7) - static_cast<float>(i);
    ASSERT_EQ(Ormis::QetDNNModelProcess(handle), Ormis::kQetOk);
    const auto* const output = static_cast<const std::uint8_t*>(handle.outputs.at(0).data);
    outputs.insert(outputs.end(), output, output + handle.outputs[0].sizeBytes);
  }
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
}

void CopyRound(std::uint32_t index) {
  for (int i = 0; i < kRepetitions; ++i) {
    ImageData source = Allocate(kWidth, kHeight, Ormis::kQetImageArgb8888);
    ImageData destination = Allocate(kWidth, kHeight, Ormis::kQetImageArgb8888);
    EXPECT_TRUE(HoldsOnly(source, 0));
    std::memset(source.data, static_cast<int>(index) + 1, source.dataSize);
    ASSERT_EQ(Ormis::QetMemcpyToKivu(source, destination), Ormis::kQetOk);
    ASSERT_EQ(Ormis::QetMemcpyToKivu(source, source), Ormis::kQetOk);
    EXPECT_TRUE(HoldsOnly(destination, static_cast<std::uint8_t>(index + 1)));
    ImageData stale = source;
    EXPECT_EQ(Ormis::QetImageDestroy(source), Ormis::kQetOk);
    EXPECT_EQ(Ormis::QetImageDestroy(destination), Ormis::kQetOk);
    EXPECT_EQ(Ormis::QetImageDestroy(stale), Ormis::kQetUnknownBuffer);
  }
}

/// Holds all threads until the last has arrived.
class StartingLine {
 public:
  explicit StartingLine(std::uint32_t count) : missing_(count) {}

  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (--missing_ == 0) everybodyIsHere_.notify_all();
    everybodyIsHere_.wait(lock, [this] { return missing_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable everybodyIsHere_;
  std::uint32_t missing_;
};

class MixedTest : public ModelTest {};

TEST_F(MixedTest, FortyThreadsOfAllKinds) {
  const std::string path = Write(TinyNetwork());
  std::array<Bytes, kThreadsOfAKind> streams;
  std::array<Bytes, kThreadsOfAKind> outputs;
  StartingLine start(4 * kThreadsOfAKind);
  std::vector<std::thread> threads;
  threads.reserve(std::size_t{4} * kThreadsOfAKind);
  const auto add = [&](auto round) {
    threads.push_back(WithContext([&start, round] {
      start.Wait();
      for (int i = 0; i < kRounds; ++i) round(i);
    }));
  };
  // Captured, so that the lines about stale records do not fill the test's output.
  const std::string log = StandardErrorOf([&] {
    for (std::uint32_t index = 0; index < kThreadsOfAKind; ++index) {
      add([index](int) { ResizeRound(index); });
      add([index, &streams](int round) { EncodeRound(index, round, streams[index]); });
      add([index, &path, &outputs](int) { InferenceRound(path, outputs[index]); });
      add([index](int) { CopyRound(index); });
    }
    for (std::thread& thread : threads) thread.join();
  });
  EXPECT_EQ(LineCount(log), std::size_t{kThreadsOfAKind} * kRounds * (kRepetitions + 1) + 1)
      << "expected a line for each stale record, each encoder and the trial of the model: " << log;
  EXPECT_FALSE(streams[0].empty());
  for (const Bytes& stream : streams) EXPECT_EQ(stream, streams[0]);
  EXPECT_FALSE(outputs[0].empty());
  for (const Bytes& output : outputs) EXPECT_EQ(output, outputs[0]);
  ASSERT_EQ(Ormis::QetDestroyContext(context_), Ormis::kQetOk);
  EXPECT_EQ(StandardErrorOf([&] { ReleasePlatform(); }), "") << "something was left";
}

}  // namespace
