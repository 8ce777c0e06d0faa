// SPDX-License-Identifier: Apache-2.0

// What the settings of the platform make of the encoder and of models.
#include <dlfcn.h>
#include <glob.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "expect_failure.h"
#include "model_test.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

namespace {

using Ormis::ImageData;
using Ormis::QetVenc;
using testing::HasSubstr;
using testing::StartsWith;

/// How many searches for device nodes have found one that does not exist.
int pretendedDevices = 0;
bool pretendsDevices = false;
int freedSearches = 0;

/// The result of fetching a packet from the engine's library; 0: the library's own.
int onReceive = 0;
int failedReceives = 0;

}  // namespace

extern "C" __attribute__((visibility("default"))) int glob(const char* pattern, int flags,
                                                           int (*onError)(const char*, int), glob_t* found) {
  if (pretendsDevices && std::strncmp(pattern, "/dev/", 5) == 0) {
    ++pretendedDevices;
    return 0;
  }
  static const auto real = reinterpret_cast<decltype(&glob)>(dlsym(RTLD_NEXT, "glob"));
  return real(pattern, flags, onError, found);
}

extern "C" __attribute__((visibility("default"))) void globfree(glob_t* found) noexcept {
  ++freedSearches;
  static const auto real = reinterpret_cast<decltype(&globfree)>(dlsym(RTLD_NEXT, "globfree"));
  real(found);
}

extern "C" __attribute__((visibility("default"))) int avcodec_receive_packet(AVCodecContext* codec,
                                                                             AVPacket* packet) {
  static const auto real =
      reinterpret_cast<decltype(&avcodec_receive_packet)>(dlsym(RTLD_NEXT, "avcodec_receive_packet"));
  if (onReceive == 0) return real(codec, packet);
  ++failedReceives;
  return onReceive;
}

namespace {

class EngineSettingsTest : public ModelTest {
 protected:
  void SetUp() override {
    ModelTest::SetUp();
    pretendedDevices = freedSearches = failedReceives = 0;
  }
  void TearDown() override {
    pretendsDevices = false;
    onReceive = 0;
    ModelTest::TearDown();
  }

  /// Starts the platform anew with this text as its settings.
  void Restart(const std::string& settings) {
    ReleasePlatform();
    const std::string path = folder_ / "host.yaml";
    std::ofstream(path) << settings;
    StartPlatform(path);
  }

  static void Configure(QetVenc& venc) {
    venc.width = 64;
    venc.height = 48;
    venc.channel = 27;
    venc.bitrateKbps = 2000;
    venc.maxWidth = venc.maxHeight = 4096;
    venc.streamBufferBytes = 9437184;
    venc.frameRate = 30;
    venc.gopSize = 60;
  }

  static std::string LogOfInit(QetVenc& venc) {
    Configure(venc);
    return StandardErrorOf([&] { EXPECT_EQ(venc.Init(), Ormis::kQetOk); });
  }
};

TEST_F(EngineSettingsTest, AnEncoderThatFallsBackWarns) {
  pretendsDevices = true;
  QetVenc venc;
  const std::string log = LogOfInit(venc);
  // Not for any other log: a platform that does not name its engine has to fail here.
  if (log.find("engine h264_") != std::string::npos) GTEST_SKIP() << "this machine has an encoder: " << log;
  EXPECT_EQ(pretendedDevices, 3);
  EXPECT_EQ(freedSearches, 3);
  ASSERT_EQ(LineCount(log), 2U) << log;
  const std::string warning = log.substr(0, log.find('\n') + 1);
  EXPECT_THAT(warning, HasSubstr("Z WARN - QET "));
  const std::string text = Ormis::test::MessageOf(warning);
  EXPECT_THAT(text, StartsWith("QetVenc::Init: channel 27 falls back to libx264: h264_nvenc: "));
  EXPECT_THAT(text, HasSubstr("; h264_vaapi: "));
  EXPECT_THAT(text, HasSubstr("; h264_v4l2m2m: "));
  const std::string record = log.substr(log.find('\n') + 1);
  EXPECT_THAT(record, HasSubstr("Z INFO - QET "));
  EXPECT_EQ(Ormis::test::MessageOf(record), "QetVenc::Init: channel 27, 64x48, engine libx264");
}

TEST_F(EngineSettingsTest, TheSoftwareEncoderCanBeAskedFor) {
  Restart("encoder: libx264");
  pretendsDevices = true;
  QetVenc venc;
  const std::string log = LogOfInit(venc);
  EXPECT_EQ(LineCount(log), 1U) << log;
  EXPECT_EQ(Ormis::test::MessageOf(log), "QetVenc::Init: channel 27, 64x48, engine libx264");
}

TEST_F(EngineSettingsTest, AnEncoderThatIsAskedForAndDoesNotWorkIsAFailure) {
  Restart("encoder: h264_nvenc");
  QetVenc venc;
  Configure(venc);
  std::int32_t code = -1;
  const std::string log = StandardErrorOf([&] { code = venc.Init(); });
  // Not for status 0 alone: a platform that took another engine has to fail here.
  if (log.find("engine h264_nvenc") != std::string::npos) {
    GTEST_SKIP() << "this machine has that encoder: " << log;
  }
  EXPECT_EQ(code, Ormis::kQetEncoderFailure);
  EXPECT_EQ(LineCount(log), 1U) << log;
  const std::string text = Ormis::test::MessageOf(log);
  EXPECT_THAT(text, StartsWith("QetVenc::Init: no engine encodes 64x48 at 30 frames/s and 2000 kbit/s: "
                               "h264_nvenc: "));
  EXPECT_THAT(text, testing::EndsWith(" (settings: encoder h264_nvenc)"));
}

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kFrameBytes = std::size_t{64} * 48 * 3 / 2;

/// A frame of 64 x 48 pixels over these bytes.
ImageData FrameOf(Bytes& pixels) {
  ImageData frame;
  frame.width = 64;
  frame.height = 48;
  frame.dataSize = static_cast<std::uint32_t>(pixels.size());
  frame.imageType = Ormis::kQetImageYuv420sp;
  frame.data = pixels.data();
  return frame;
}

// libx264 writes the settings that it uses into its first packet.
TEST_F(EngineSettingsTest, TheSoftwareEncoderGetsTheSettings) {
  Restart("encoder: libx264");
  QetVenc venc;
  (void)LogOfInit(venc);
  Bytes pixels(kFrameBytes);
  const ImageData frame = FrameOf(pixels);

  // A frame of which the engine makes nothing.
  onReceive = AVERROR(EAGAIN);
  Ormis::test::ExpectFailure(Ormis::kQetEncoderFailure, "QetVenc::SendFrame",
                             "libx264: the frame was kept back, expected one packet for each frame",
                             [&] { return venc.SendFrame(frame); });
  EXPECT_EQ(failedReceives, 1);
  onReceive = 0;

  ASSERT_EQ(venc.SendFrame(frame), Ormis::kQetOk);
  ux_venc_stream stream{};
  ASSERT_EQ(venc.GetStream(stream), Ormis::kQetOk);
  const std::string packet(reinterpret_cast<const char*>(stream.packets[0].data), stream.totalBytes);
  for (const char* const setting :
       {" bitrate=2000 ", " vbv_maxrate=2000 ", " vbv_bufsize=2000 ", " nal_hrd=cbr ", " filler=1",
        " keyint=60 ", " scenecut=0 ", " bframes=0 ", " threads=1 ", " rc_lookahead=0 "}) {
    EXPECT_THAT(packet, HasSubstr(setting));
  }
  EXPECT_EQ(venc.ReleaseStream(stream), Ormis::kQetOk);
}

/// The streams of a few frames of noise.
Bytes Encoded(QetVenc& venc) {
  EXPECT_EQ(venc.Init(), Ormis::kQetOk);
  Bytes pixels(kFrameBytes);
  Bytes streams;
  std::uint32_t state = 7;
  for (int i = 0; i < 3; ++i) {
    for (std::uint8_t& pixel : pixels) {
      state = state * 1664525U + 1U;
      pixel = static_cast<std::uint8_t>(state >> 24U);
    }
    const ImageData frame = FrameOf(pixels);
    EXPECT_EQ(venc.SendFrame(frame), Ormis::kQetOk);
    ux_venc_stream stream{};
    EXPECT_EQ(venc.GetStream(stream), Ormis::kQetOk);
    streams.insert(streams.end(), stream.packets[0].data, stream.packets[0].data + stream.totalBytes);
    EXPECT_EQ(venc.ReleaseStream(stream), Ormis::kQetOk);
  }
  return streams;
}

/// The outputs of a few inferences.
Bytes Inferred(const std::string& path) {
  Ormis::QetDNNHandle handle;
  EXPECT_EQ(Ormis::QetDNNModelInitialize(handle, path), Ormis::kQetOk);
  EXPECT_EQ(Ormis::QetDNNModelCreateInput(handle), Ormis::kQetOk);
  EXPECT_EQ(Ormis::QetDNNModelCreateOutput(handle), Ormis::kQetOk);
  const Ormis::QetDNNBuffer& input = handle.inputs.at(0);
  const Ormis::QetDNNBuffer& output = handle.outputs.at(0);
  Bytes outputs;
  for (int round = 0; round < 3; ++round) {
    auto* const values = static_cast<float*>(input.data);
    for (std::size_t i = 0; i < input.sizeBytes / sizeof(float); ++i) {
      values[i] = static_cast<float>((i * 7 + static_cast<std::size_t>(round)) % 23) / 23.0F;
    }
    EXPECT_EQ(Ormis::QetDNNModelProcess(handle), Ormis::kQetOk);
    const auto* const bytes = static_cast<const std::uint8_t*>(output.data);
    outputs.insert(outputs.end(), bytes, bytes + output.sizeBytes);
  }
  EXPECT_EQ(Ormis::QetDNNRelease(handle), Ormis::kQetOk);
  return outputs;
}

std::string WrittenByTheLibrary() {
  return StandardErrorOf([] { av_log(nullptr, AV_LOG_ERROR, "words of libavcodec\n"); });
}

TEST_F(EngineSettingsTest, TheMessagesOfTheEncodersLibraryAreKeptUntilThePlatformEnds) {
  {
    QetVenc venc;
    (void)LogOfInit(venc);
    EXPECT_EQ(WrittenByTheLibrary(), "");
  }
  EXPECT_EQ(WrittenByTheLibrary(), "") << "another encoder may be in use";
  ReleasePlatform();
  EXPECT_THAT(WrittenByTheLibrary(), HasSubstr("words of libavcodec"));
  StartPlatform();
  QetVenc venc;
  (void)LogOfInit(venc);
  EXPECT_EQ(WrittenByTheLibrary(), "");
}

TEST_F(EngineSettingsTest, TheResultsAreTheSameWithAndWithoutTheCaches) {
  const std::string path = Write(TinyNetwork());
  std::vector<Bytes> streams;
  std::vector<Bytes> outputs;
  for (const std::string memory : {"device", "cached"}) {
    Restart("memory: " + memory + "\nencoder: libx264\n");
    QetVenc venc;
    Configure(venc);
    streams.push_back(Encoded(venc));
    outputs.push_back(Inferred(path));
  }
  EXPECT_GT(streams[0].size(), 1000U);
  EXPECT_TRUE(streams[0] == streams[1]);
  EXPECT_GT(outputs[0].size(), 0U);
  EXPECT_TRUE(outputs[0] == outputs[1]);
}

}  // namespace
