// SPDX-License-Identifier: Apache-2.0
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
}

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "cache_flush.h"
#include "measure.h"
#include "ormis/ormis.h"
#include "program.h"

namespace {

using measure::Require;

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr int kFrameRate = 30;
constexpr int kGopSize = 60;
constexpr int kBitsPerSecond = 2'000'000;

/// libavcodec as an application would use it: one frame around the caller's pixels, made once.
class DirectEncoder {
 public:
  explicit DirectEncoder(std::vector<std::uint8_t>& pixels)
      : frame_(av_frame_alloc()), packet_(av_packet_alloc()) {
    const AVCodec* const description = avcodec_find_encoder_by_name("libx264");
    Require(description != nullptr, "finding libx264");
    codec_ = avcodec_alloc_context3(description);
    Require(codec_ != nullptr && frame_ != nullptr && packet_ != nullptr, "allocating the encoder");
    codec_->width = kWidth;
    codec_->height = kHeight;
    codec_->pix_fmt = AV_PIX_FMT_NV12;
    codec_->time_base = {1, kFrameRate};
    codec_->framerate = {kFrameRate, 1};
    codec_->bit_rate = kBitsPerSecond;
    codec_->rc_max_rate = kBitsPerSecond;
    codec_->rc_buffer_size = kBitsPerSecond;
    codec_->gop_size = kGopSize;
    codec_->keyint_min = kGopSize;
    codec_->max_b_frames = 0;
    codec_->thread_count = 1;
    codec_->flags |= AV_CODEC_FLAG_LOW_DELAY;
    AVDictionary* options = nullptr;
    Require(av_dict_set(&options, "preset", "ultrafast", 0) >= 0 &&
                av_dict_set(&options, "tune", "zerolatency", 0) >= 0 &&
                av_dict_set(&options, "x264-params", "scenecut=0:nal-hrd=cbr", 0) >= 0 &&
                avcodec_open2(codec_, description, &options) == 0,
            "opening libx264");
    av_dict_free(&options);
    frame_->format = AV_PIX_FMT_NV12;
    frame_->width = kWidth;
    frame_->height = kHeight;
    frame_->buf[0] = av_buffer_create(
        pixels.data(), pixels.size(), [](void*, std::uint8_t*) {}, nullptr, AV_BUFFER_FLAG_READONLY);
    Require(frame_->buf[0] != nullptr && av_image_fill_arrays(frame_->data, frame_->linesize, pixels.data(),
                                                              AV_PIX_FMT_NV12, kWidth, kHeight, 1) > 0,
            "describing the frame");
  }
  ~DirectEncoder() {
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&codec_);
  }
  DirectEncoder(const DirectEncoder&) = delete;
  DirectEncoder& operator=(const DirectEncoder&) = delete;

  void Encode() {
    frame_->pts = next_++;
    Require(avcodec_send_frame(codec_, frame_) == 0 && avcodec_receive_packet(codec_, packet_) == 0,
            "encoding directly");
    bytes_ += static_cast<std::uint64_t>(packet_->size);
    av_packet_unref(packet_);
    Ormis::portable::FlushFromCaches(frame_->data[0], std::size_t{kWidth} * kHeight * 3 / 2);
  }

  std::uint64_t Bytes() const { return bytes_; }

 private:
  AVCodecContext* codec_ = nullptr;
  AVFrame* frame_;
  AVPacket* packet_;
  std::int64_t next_ = 0;
  std::uint64_t bytes_ = 0;
};

const char* const kUsage = R"(usage: encode_bench [ROUNDS]
Compares QetVenc with direct use of libavcodec, in turns within one run: the encode stress's picture and
settings, each on one thread.

The direct use opens libx264, as the platform does on a machine without a hardware encoder. On a machine that
has one, the two sides use different engines, and the platform's log says so. A second direct use, which differs
only in where its memory lies, shows the noise. After each frame every side removes it from the caches, as the
platform does.
)";

/// The encode stress's settings.
void SetUp(Ormis::QetVenc& encoder) {
  encoder.width = kWidth;
  encoder.height = kHeight;
  encoder.maxWidth = 4096;
  encoder.maxHeight = 4096;
  encoder.bitrateKbps = kBitsPerSecond / 1000;
  encoder.frameRate = kFrameRate;
  encoder.gopSize = kGopSize;
  encoder.streamBufferBytes = 9 * 1048576;
  Require(encoder.Init() == 0, "QetVenc::Init");
}

Ormis::ImageData FrameOf(std::vector<std::uint8_t>& pixels) {
  Ormis::ImageData frame;
  frame.width = kWidth;
  frame.height = kHeight;
  frame.dataSize = static_cast<std::uint32_t>(pixels.size());
  frame.bufferMode = Ormis::kQetBufferUser;
  frame.imageType = Ormis::kQetImageYuv420sp;
  frame.data = pixels.data();
  return frame;
}

struct Measured {
  std::uint64_t bytes = 0;  ///< of QetVenc's streams
  std::vector<double> ownMs;
  std::vector<double> directMs;
  std::vector<double> againMs;
};

/// Lets the three sides take turns. A turn is one group of pictures, so all encode the same number of key
/// frames.
Measured Measure(std::vector<std::uint8_t>& pixels, DirectEncoder& direct, DirectEncoder& again, int rounds) {
  Measured measured;
  Ormis::QetVenc encoder;
  SetUp(encoder);
  const Ormis::ImageData frame = FrameOf(pixels);
  const auto ownTurn = [&] {
    for (int i = 0; i < kGopSize; ++i) {
      ux_venc_stream stream{};
      Require(encoder.SendFrame(frame) == 0 && encoder.GetStream(stream) == 0, "QetVenc");
      measured.bytes += stream.totalBytes;
      Require(encoder.ReleaseStream(stream) == 0, "QetVenc::ReleaseStream");
    }
  };
  const auto directTurn = [&] {
    for (int i = 0; i < kGopSize; ++i) direct.Encode();
  };
  const auto againTurn = [&] {
    for (int i = 0; i < kGopSize; ++i) again.Encode();
  };
  struct Side {
    std::function<void()> turn;
    std::vector<double>& ms;
  };
  std::vector<Side> sides = {
      {ownTurn, measured.ownMs}, {directTurn, measured.directMs}, {againTurn, measured.againMs}};
  for (const Side& side : sides) side.turn();  // warms up
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < sides.size(); ++i) {  // each comes first, second and third
      const Side& side = sides[(static_cast<std::size_t>(round) + i) % sides.size()];
      side.ms.push_back(measure::Milliseconds(side.turn) / kGopSize);
    }
  }
  return measured;
}

/// `share` is the rate as a share of the direct use's.
void PrintRow(const char* name, const std::vector<double>& ms, double bytesAFrame, const char* share) {
  (void)std::printf("| %s | %.3f | %.1f | %.0f | %s |\n", name, measure::Median(ms),
                    1000.0 / measure::Median(ms), bytesAFrame, share);
}

std::string ShareText(const std::vector<double>& directMs, const std::vector<double>& ms) {
  char text[16];
  (void)std::snprintf(text, sizeof text, "%.4f", measure::MedianRatio(directMs, ms));
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  measure::AnswerOptions(argc, argv, "encode_bench", kUsage);
  const int rounds = measure::CountArgument(argc, argv, 1, "ROUNDS", 31);
  // Black, like the encode stress's picture.
  std::vector<std::uint8_t> pixels(std::size_t{kWidth} * kHeight * 3 / 2);
  Ormis::QetContext process;
  Ormis::QetContext context;
  Require(Ormis::QetInitialize(process, {}) == 0 && Ormis::QetCreateContext(context) == 0 &&
              Ormis::QetSetCurrentContext(context) == 0,
          "starting the platform");
  DirectEncoder direct(pixels);
  DirectEncoder again(pixels);
  const Measured measured = Measure(pixels, direct, again, rounds);
  Require(Ormis::QetDestroyContext(context) == 0 && Ormis::QetRelease(process) == 0, "stopping the platform");
  Require(measured.bytes == direct.Bytes(),
          "encoding the same: the streams' lengths differ, so this comparison");

  (void)std::printf(
      "| 1920 x 1080 NV12 | ms a frame | frames/s | bytes a frame | rate / direct use "
      "|\n|---|---|---|---|---|\n");
  const double frames = static_cast<double>(rounds + 1) * kGopSize;
  PrintRow("QetVenc", measured.ownMs, static_cast<double>(measured.bytes) / frames,
           ShareText(measured.directMs, measured.ownMs).c_str());
  PrintRow("libavcodec, used directly", measured.directMs, static_cast<double>(direct.Bytes()) / frames, "1");
  PrintRow("the same once more", measured.againMs, static_cast<double>(again.Bytes()) / frames,
           ShareText(measured.directMs, measured.againMs).c_str());
}
