// SPDX-License-Identifier: Apache-2.0

// An encoder that takes its frames in a device's memory. The linker replaces the calls of libavcodec that
// need the device (--wrap); the software engine encodes in its place.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "h264_encoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/hwcontext.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

namespace {

using Ormis::host::H264Encoder;
using Ormis::host::H264Engine;
using Ormis::host::H264Packet;
using Ormis::host::H264Settings;
using testing::ElementsAre;

/// The scripted device, and what it saw.
struct Device {
  int onCreate = 0;  ///< result of each step, 0 or an error
  int onFrames = 0;
  int onFrame = 0;
  int onTransfer = 0;
  int onSend = 0;
  int onReceive = 0;

  AVHWDeviceType type = AV_HWDEVICE_TYPE_NONE;
  AVHWFramesContext frames{};  ///< the description of its frames
  AVPixelFormat pixelFormat = AV_PIX_FMT_NONE;
  int bFrames = -1;
  int threads = -1;
  bool lowDelay = false;
  std::string rates;  ///< times, bits and key frames
  std::string rateControl;
  std::vector<std::int64_t> times;  ///< of the frames that were sent
  int framesHeld = 0;               ///< frames of the device that were not given back before the next

  int allocations = 0;     ///< of packets, codecs, frames and descriptions of frames
  int failAllocation = 0;  ///< the number of the one for which there is no memory, from 1; 0: none

  std::string message;  ///< what the library says before it sends a frame
  int messageLevel = AV_LOG_ERROR;
  bool messageOfCodec = false;
};
Device* device = nullptr;        // null: calls go to libavcodec
bool sentWithReference = false;  // the last frame that was sent had a buffer reference

bool OutOfMemory() {
  return device != nullptr && ++device->allocations == device->failAllocation;
}

constexpr H264Settings kSettings{64, 48, 30, 60, 200000};
constexpr H264Engine kEngine{"h264_vaapi", "/dev/null", "rc_mode=CBR,async_depth=1"};
const std::vector<std::uint8_t> grey(64 * 48 * 3 / 2, 90);

}  // namespace

// The linker's names for what it redirects.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_av_hwdevice_ctx_create(AVBufferRef** context, AVHWDeviceType type, const char* name,
                                  AVDictionary* options, int flags);
AVBufferRef* __real_av_hwframe_ctx_alloc(AVBufferRef* context);
int __real_av_hwframe_ctx_init(AVBufferRef* frames);
int __real_av_hwframe_get_buffer(AVBufferRef* frames, AVFrame* frame, int flags);
int __real_av_hwframe_transfer_data(AVFrame* to, const AVFrame* from, int flags);
const AVCodec* __real_avcodec_find_encoder_by_name(const char* name);
int __real_avcodec_open2(AVCodecContext* codec, const AVCodec* description, AVDictionary** options);
int __real_avcodec_send_frame(AVCodecContext* codec, const AVFrame* frame);
int __real_avcodec_receive_packet(AVCodecContext* codec, AVPacket* packet);
AVPacket* __real_av_packet_alloc(void);
AVFrame* __real_av_frame_alloc(void);
AVCodecContext* __real_avcodec_alloc_context3(const AVCodec* description);

AVPacket* __wrap_av_packet_alloc(void) {
  return OutOfMemory() ? nullptr : __real_av_packet_alloc();
}

AVFrame* __wrap_av_frame_alloc(void) {
  return OutOfMemory() ? nullptr : __real_av_frame_alloc();
}

AVCodecContext* __wrap_avcodec_alloc_context3(const AVCodec* description) {
  return OutOfMemory() ? nullptr : __real_avcodec_alloc_context3(description);
}

const AVCodec* __wrap_avcodec_find_encoder_by_name(const char* name) {
  return __real_avcodec_find_encoder_by_name(device != nullptr ? "libx264" : name);
}

int __wrap_av_hwdevice_ctx_create(AVBufferRef** context, AVHWDeviceType type, const char* name,
                                  AVDictionary* options, int flags) {
  if (device == nullptr) return __real_av_hwdevice_ctx_create(context, type, name, options, flags);
  EXPECT_EQ(options, nullptr);
  EXPECT_EQ(flags, 0);
  device->type = type;
  if (device->onCreate == 0) *context = av_buffer_allocz(1);
  return device->onCreate;
}

AVBufferRef* __wrap_av_hwframe_ctx_alloc(AVBufferRef* context) {
  if (device == nullptr) return __real_av_hwframe_ctx_alloc(context);
  EXPECT_NE(context, nullptr);
  if (OutOfMemory()) return nullptr;
  return av_buffer_allocz(sizeof(AVHWFramesContext));
}

int __wrap_av_hwframe_ctx_init(AVBufferRef* frames) {
  if (device == nullptr) return __real_av_hwframe_ctx_init(frames);
  std::memcpy(&device->frames, frames->data, sizeof device->frames);
  return device->onFrames;
}

int __wrap_avcodec_open2(AVCodecContext* codec, const AVCodec* description, AVDictionary** options) {
  if (device == nullptr) return __real_avcodec_open2(codec, description, options);
  device->pixelFormat = codec->pix_fmt;
  device->bFrames = codec->max_b_frames;
  device->threads = codec->thread_count;
  device->lowDelay = (codec->flags & AV_CODEC_FLAG_LOW_DELAY) != 0;
  std::ostringstream rates;
  rates << "time " << codec->time_base.num << '/' << codec->time_base.den << " frames "
        << codec->framerate.num << '/' << codec->framerate.den << " bits " << codec->bit_rate << ' '
        << codec->rc_max_rate << ' ' << codec->rc_buffer_size << " keys " << codec->gop_size << ' '
        << codec->keyint_min;
  device->rates = rates.str();
  const AVDictionaryEntry* const mode = av_dict_get(*options, "rc_mode", nullptr, 0);
  device->rateControl = mode != nullptr ? mode->value : "";
  EXPECT_GE(av_dict_set(options, "tune", "zerolatency", 0), 0);
  AVBufferRef* const frames = codec->hw_frames_ctx;
  codec->hw_frames_ctx = nullptr;
  codec->pix_fmt = AV_PIX_FMT_NV12;
  const int result = __real_avcodec_open2(codec, description, options);
  codec->hw_frames_ctx = frames;
  return result;
}

int __wrap_av_hwframe_get_buffer(AVBufferRef* frames, AVFrame* frame, int flags) {
  if (device == nullptr) return __real_av_hwframe_get_buffer(frames, frame, flags);
  EXPECT_NE(frames, nullptr);
  EXPECT_EQ(flags, 0);
  if (device->onFrame != 0) return device->onFrame;
  device->framesHeld += frame->buf[0] != nullptr ? 1 : 0;
  frame->format = AV_PIX_FMT_NV12;
  frame->width = device->frames.width;
  frame->height = device->frames.height;
  return av_frame_get_buffer(frame, 0);
}

int __wrap_av_hwframe_transfer_data(AVFrame* to, const AVFrame* from, int flags) {
  if (device == nullptr) return __real_av_hwframe_transfer_data(to, from, flags);
  EXPECT_EQ(flags, 0);
  return device->onTransfer != 0 ? device->onTransfer : av_frame_copy(to, from);
}

int __wrap_avcodec_send_frame(AVCodecContext* codec, const AVFrame* frame) {
  sentWithReference = frame->buf[0] != nullptr;
  if (device == nullptr) return __real_avcodec_send_frame(codec, frame);
  device->times.push_back(frame->pts);
  if (!device->message.empty()) {
    av_log(device->messageOfCodec ? codec : nullptr, device->messageLevel, "%s", device->message.c_str());
  }
  return device->onSend != 0 ? device->onSend : __real_avcodec_send_frame(codec, frame);
}

int __wrap_avcodec_receive_packet(AVCodecContext* codec, AVPacket* packet) {
  if (device != nullptr && device->onReceive != 0) return device->onReceive;
  return __real_avcodec_receive_packet(codec, packet);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace {

class DeviceEncoder : public testing::Test {
 protected:
  DeviceEncoder() {
    device = &scripted_;
    // The library has one receiver of messages. Another test may have taken it from this copy of the encoder.
    Ormis::host::GiveMessagesBack();
  }
  ~DeviceEncoder() override { device = nullptr; }

  /// Expects that the engine is not taken, for this reason.
  void ExpectRefused(const std::string& expected) {
    std::string reason;
    EXPECT_EQ(H264Encoder::Open(kSettings, {kEngine}, reason), nullptr);
    EXPECT_EQ(reason, "h264_vaapi: " + expected);
  }

  Device scripted_;
};

TEST_F(DeviceEncoder, EncodesFramesInTheMemoryOfTheDevice) {
  std::string reason;
  const auto encoder = H264Encoder::Open(kSettings, {kEngine}, reason);
  ASSERT_NE(encoder, nullptr) << reason;
  EXPECT_EQ(scripted_.type, AV_HWDEVICE_TYPE_VAAPI);
  EXPECT_EQ(scripted_.frames.format, AV_PIX_FMT_VAAPI);
  EXPECT_EQ(scripted_.frames.sw_format, AV_PIX_FMT_NV12);
  EXPECT_EQ(scripted_.frames.width, 64);
  EXPECT_EQ(scripted_.frames.height, 48);
  EXPECT_EQ(scripted_.frames.initial_pool_size, 4);
  EXPECT_EQ(scripted_.pixelFormat, AV_PIX_FMT_VAAPI);
  EXPECT_EQ(scripted_.rateControl, "CBR");
  EXPECT_EQ(scripted_.bFrames, 0);
  EXPECT_EQ(scripted_.threads, 1);
  EXPECT_TRUE(scripted_.lowDelay);
  EXPECT_EQ(scripted_.rates, "time 1/30 frames 30/1 bits 200000 200000 200000 keys 60 60");
  H264Packet packet;
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(encoder->Encode(grey.data(), packet), "");
    EXPECT_GT(packet.SizeBytes(), 0U);
    EXPECT_EQ(packet.FrameIndex(), i);
    EXPECT_EQ(packet.IsKeyFrame(), i == 0);
  }
  EXPECT_THAT(scripted_.times, ElementsAre(0, 0, 1, 2)) << "the trial's frame, and the caller's";
  EXPECT_EQ(scripted_.framesHeld, 0);
}

TEST_F(DeviceEncoder, EachStepThatFailsIsNamedWithItsReason) {
  scripted_.onCreate = AVERROR(EACCES);
  ExpectRefused("its device cannot be opened: Permission denied");
  scripted_.onCreate = 0;
  scripted_.onFrames = AVERROR(ENOMEM);
  ExpectRefused("its frames cannot be made: Cannot allocate memory");
  scripted_.onFrames = 0;
  scripted_.onFrame = AVERROR(ENOSPC);
  ExpectRefused("the frame cannot be sent to the device: No space left on device");
  EXPECT_THAT(scripted_.times, ElementsAre()) << "nothing is encoded that is not on the device";
  scripted_.onFrame = 0;
  scripted_.onTransfer = AVERROR(EIO);
  ExpectRefused("the frame cannot be sent to the device: Input/output error");
  EXPECT_THAT(scripted_.times, ElementsAre());
  scripted_.onTransfer = 0;
  scripted_.onSend = AVERROR(EBUSY);
  ExpectRefused("the frame was refused: Device or resource busy");
  scripted_.onSend = 0;
  scripted_.onReceive = AVERROR(EIO);
  ExpectRefused("encoding failed: Input/output error");
  scripted_.onReceive = AVERROR(EAGAIN);
  ExpectRefused("the frame was kept back, expected one packet for each frame");
}

TEST_F(DeviceEncoder, WithoutMemoryThereIsNoEncoder) {
  std::string reason;
  ASSERT_NE(H264Encoder::Open(kSettings, {kEngine}, reason), nullptr) << reason;
  // Those of the trial's encoder and packet. The encoder after it has no packet.
  const int all = scripted_.allocations;
  EXPECT_EQ(all, 2 * 4 + 1);
  for (int number = 1; number <= all; ++number) {
    scripted_.allocations = 0;
    scripted_.failAllocation = number;
    EXPECT_THROW((void)H264Encoder::Open(kSettings, {kEngine}, reason), std::bad_alloc) << number;
    EXPECT_GE(scripted_.allocations, number);
  }
}

TEST_F(DeviceEncoder, TheLibrarysErrorIsPartOfTheReason) {
  const std::string refused = "the frame was refused: Device or resource busy";
  scripted_.onSend = AVERROR(EBUSY);
  scripted_.message = "the reason\n";
  ExpectRefused(refused + " (the reason)");
  scripted_.message = "x";
  ExpectRefused(refused + " (x)");
  scripted_.messageLevel = AV_LOG_WARNING;
  ExpectRefused(refused);
  scripted_.messageLevel = AV_LOG_ERROR;
  scripted_.message = std::string(255, 'a') + "b";
  ExpectRefused(refused + " (" + std::string(255, 'a') + ")");
  scripted_.message = "the reason";
  scripted_.messageOfCodec = true;
  std::string reason;
  EXPECT_EQ(H264Encoder::Open(kSettings, {kEngine}, reason), nullptr);
  EXPECT_THAT(reason, testing::ContainsRegex(" \\(\\[libx264 @ 0x[0-9a-f]+\\] the reason\\)$"));
}

TEST_F(DeviceEncoder, AnErrorOfAnEarlierCallIsNoReason) {
  std::string reason;
  const auto encoder = H264Encoder::Open(kSettings, {kEngine}, reason);
  ASSERT_NE(encoder, nullptr) << reason;
  H264Packet packet;
  scripted_.onSend = AVERROR(EBUSY);
  scripted_.message = "the reason";
  EXPECT_EQ(encoder->Encode(grey.data(), packet),
            "the frame was refused: Device or resource busy (the reason)");
  scripted_.message.clear();
  EXPECT_EQ(encoder->Encode(grey.data(), packet), "the frame was refused: Device or resource busy");
  scripted_.message = "the reason";
  EXPECT_EQ(encoder->Encode(grey.data(), packet),
            "the frame was refused: Device or resource busy (the reason)");
  scripted_.onCreate = AVERROR(EACCES);
  ExpectRefused("its device cannot be opened: Permission denied");
}

TEST_F(DeviceEncoder, OnlyADeviceGetsACopyOfTheFrame) {
  device = nullptr;
  for (const char* const node : {static_cast<const char*>(nullptr), "/dev/null"}) {
    std::string reason = "of another call";
    const auto encoder =
        H264Encoder::Open(kSettings, {{"libx264", node, "preset=ultrafast,tune=zerolatency"}}, reason);
    ASSERT_NE(encoder, nullptr);
    EXPECT_EQ(reason, "");
    H264Packet packet;
    EXPECT_EQ(encoder->Encode(grey.data(), packet), "");
    EXPECT_EQ(sentWithReference, node == nullptr);
  }
}

}  // namespace
