// SPDX-License-Identifier: Apache-2.0
#include "h264_encoder.h"

#include <glob.h>

#include <cstdarg>
#include <cstring>
#include <mutex>
#include <new>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/hwcontext.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
}

namespace Ormis::host {

namespace {

// Best first. A device node may exist and still be no encoder: a camera is a video4linux device, too. Such an
// engine does not open, and the next one is tried.
constexpr H264Engine kEngines[] = {
    {"h264_nvenc", "/dev/nvidia[0-9]*", "preset=p1,tune=ull,rc=cbr,zerolatency=1,delay=0"},
    {"h264_vaapi", "/dev/dri/renderD*", "rc_mode=CBR,async_depth=1"},
    {"h264_v4l2m2m", "/dev/video*", ""},
    // nal-hrd=cbr pads with filler data: a still picture has the configured rate, too. scenecut=0: a key
    // frame comes every gopSize frames and at no other time.
    {"libx264", nullptr, "preset=ultrafast,tune=zerolatency,x264-params=scenecut=0:nal-hrd=cbr"},
};

// The last message of libavcodec on this thread. Its return codes alone say too little ("Generic error in an
// external library"). Engines work on the calling thread, so the message belongs to the current failure.
thread_local char lastMessage[256];

void KeepMessage(void* context, int level, const char* format, std::va_list arguments) {
  if (level > AV_LOG_ERROR) return;
  int printPrefix = 1;
  av_log_format_line2(context, level, format, arguments, lastMessage, sizeof lastMessage, &printPrefix);
  lastMessage[std::strcspn(lastMessage, "\n")] = '\0';
}

// libavcodec has one callback for the whole process.
std::mutex callbackMutex;
bool callbackIsOurs = false;

void KeepMessages() {
  const std::lock_guard<std::mutex> lock(callbackMutex);
  if (!callbackIsOurs) av_log_set_callback(KeepMessage);
  callbackIsOurs = true;
}

std::string Reason(const char* what, int error) {
  char text[AV_ERROR_MAX_STRING_SIZE];
  av_make_error_string(text, sizeof text, error);
  std::string reason = std::string(what) + ": " + text;
  if (*lastMessage != '\0') reason += std::string(" (") + lastMessage + ")";
  return reason;
}

void KeepCallersMemory(void*, std::uint8_t*) {}

}  // namespace

std::vector<H264Engine> H264EnginesToTry(const std::string& encoder,
                                         const std::function<bool(const char*)>& exists) {
  std::vector<H264Engine> engines;
  for (const H264Engine& engine : kEngines) {
    const bool found = engine.device == nullptr || exists(engine.device);
    if (encoder == engine.name || (encoder == "auto" && found)) engines.push_back(engine);
  }
  return engines;
}

bool DeviceExists(const char* pattern) {
  glob_t found{};
  const bool exists = glob(pattern, GLOB_NOSORT, nullptr, &found) == 0;
  globfree(&found);
  return exists;
}

void GiveMessagesBack() noexcept {
  const std::lock_guard<std::mutex> lock(callbackMutex);
  if (callbackIsOurs) av_log_set_callback(av_log_default_callback);
  callbackIsOurs = false;
}

H264Packet::H264Packet() : packet_(av_packet_alloc()) {
  if (packet_ == nullptr) throw std::bad_alloc();
}

H264Packet::~H264Packet() {
  av_packet_free(&packet_);
}

const std::uint8_t* H264Packet::Data() const {
  return packet_->data;
}

std::uint64_t H264Packet::SizeBytes() const {
  return static_cast<std::uint64_t>(packet_->size);
}

std::int64_t H264Packet::FrameIndex() const {
  return packet_->pts;
}

bool H264Packet::IsKeyFrame() const {
  return (packet_->flags & AV_PKT_FLAG_KEY) != 0;
}

void H264Packet::Clear() {
  av_packet_unref(packet_);
}

std::unique_ptr<H264Encoder> H264Encoder::Open(const H264Settings& settings,
                                               const std::vector<H264Engine>& engines, std::string& reason) {
  // One callback for the whole process: libavcodec has no other. Its own writes to standard error.
  KeepMessages();

  reason.clear();
  for (const H264Engine& engine : engines) {
    std::unique_ptr<H264Encoder> encoder(new H264Encoder(settings, engine));
    std::string failure = encoder->OpenCodec();
    if (failure.empty() && engine.device != nullptr) {
      // A device may open and still not encode, or keep frames back, so one frame is encoded on trial. The
      // trial has an encoder of its own: the caller's stream has to start with the caller's frame.
      H264Packet packet;
      const std::vector<std::uint8_t> picture(encoder->FrameBytes());
      failure = encoder->Encode(picture.data(), packet);
      encoder.reset(new H264Encoder(settings, engine));
      if (failure.empty()) failure = encoder->OpenCodec();
    }
    if (failure.empty()) return encoder;
    reason += (reason.empty() ? "" : "; ") + std::string(engine.name) + ": " + failure;
  }
  return nullptr;
}

H264Encoder::H264Encoder(const H264Settings& settings, const H264Engine& engine)
    : settings_(settings), engine_(engine) {}

H264Encoder::~H264Encoder() {
  av_frame_free(&hardwareFrame_);
  av_frame_free(&frame_);
  avcodec_free_context(&codec_);
}

std::size_t H264Encoder::FrameBytes() const {
  return Nv12Bytes(static_cast<std::uint32_t>(settings_.width), static_cast<std::uint32_t>(settings_.height));
}

std::string H264Encoder::OpenCodec() {
  *lastMessage = '\0';
  const AVCodec* description = avcodec_find_encoder_by_name(engine_.name);
  if (description == nullptr) return "this build of libavcodec does not have it";
  codec_ = avcodec_alloc_context3(description);
  frame_ = av_frame_alloc();
  if (codec_ == nullptr || frame_ == nullptr) throw std::bad_alloc();

  codec_->width = settings_.width;
  codec_->height = settings_.height;
  codec_->pix_fmt = AV_PIX_FMT_NV12;
  codec_->time_base = {1, settings_.frameRate};
  codec_->framerate = {settings_.frameRate, 1};
  codec_->bit_rate = settings_.bitsPerSecond;
  codec_->rc_max_rate = settings_.bitsPerSecond;
  codec_->rc_buffer_size = settings_.bitsPerSecond;  // one second
  codec_->gop_size = settings_.gopSize;
  codec_->keyint_min = settings_.gopSize;
  codec_->max_b_frames = 0;
  codec_->thread_count = 1;
  codec_->flags |= AV_CODEC_FLAG_LOW_DELAY;
  if (std::strcmp(engine_.name, "h264_vaapi") == 0) {
    if (std::string failure = UseHardwareFrames(); !failure.empty()) return failure;
  }

  AVDictionary* options = nullptr;
  int error = av_dict_parse_string(&options, engine_.options, "=", ",", 0);
  if (error == 0) error = avcodec_open2(codec_, description, &options);
  av_dict_free(&options);
  if (error < 0) return Reason("cannot be opened", error);

  frame_->format = AV_PIX_FMT_NV12;
  frame_->width = settings_.width;
  frame_->height = settings_.height;
  return {};
}

std::string H264Encoder::UseHardwareFrames() {
  AVBufferRef* device = nullptr;
  int error = av_hwdevice_ctx_create(&device, AV_HWDEVICE_TYPE_VAAPI, nullptr, nullptr, 0);
  if (error < 0) return Reason("its device cannot be opened", error);
  codec_->hw_frames_ctx = av_hwframe_ctx_alloc(device);
  av_buffer_unref(&device);
  hardwareFrame_ = av_frame_alloc();
  if (codec_->hw_frames_ctx == nullptr || hardwareFrame_ == nullptr) throw std::bad_alloc();
  auto* frames = reinterpret_cast<AVHWFramesContext*>(codec_->hw_frames_ctx->data);
  frames->format = AV_PIX_FMT_VAAPI;
  frames->sw_format = AV_PIX_FMT_NV12;
  frames->width = settings_.width;
  frames->height = settings_.height;
  frames->initial_pool_size = 4;
  error = av_hwframe_ctx_init(codec_->hw_frames_ctx);
  if (error < 0) return Reason("its frames cannot be made", error);
  codec_->pix_fmt = AV_PIX_FMT_VAAPI;
  return {};
}

std::string H264Encoder::Encode(const std::uint8_t* nv12, H264Packet& packet) {
  *lastMessage = '\0';
  // libavcodec's frames have no const pointers. This frame is marked read-only.
  auto* pixels = const_cast<std::uint8_t*>(nv12);
  // Cannot fail: a codec of this size was opened.
  (void)av_image_fill_arrays(frame_->data, frame_->linesize, pixels, AV_PIX_FMT_NV12, settings_.width,
                             settings_.height, 1);
  frame_->pts = frameCount_++;

  std::string failure;
  if (hardwareFrame_ != nullptr) {
    int error = av_hwframe_get_buffer(codec_->hw_frames_ctx, hardwareFrame_, 0);
    if (error == 0) error = av_hwframe_transfer_data(hardwareFrame_, frame_, 0);
    hardwareFrame_->pts = frame_->pts;
    failure = error < 0 ? Reason("the frame cannot be sent to the device", error)
                        : EncodeFrame(hardwareFrame_, packet.packet_);
    av_frame_unref(hardwareFrame_);
    return failure;
  }
  // libavcodec copies a frame that has no buffer reference. libx264 has read the frame when the call returns,
  // so it needs no copy. Whether a device has is unknown, so a device gets the copy. So does a frame for
  // whose reference there is no memory.
  AVBufferRef*& reference = *frame_->buf;
  if (engine_.device == nullptr) {
    reference = av_buffer_create(pixels, FrameBytes(), KeepCallersMemory, nullptr, AV_BUFFER_FLAG_READONLY);
  }
  failure = EncodeFrame(frame_, packet.packet_);
  av_buffer_unref(&reference);
  return failure;
}

std::string H264Encoder::EncodeFrame(AVFrame* frame, AVPacket* packet) {
  int error = avcodec_send_frame(codec_, frame);
  if (error < 0) return Reason("the frame was refused", error);
  error = avcodec_receive_packet(codec_, packet);
  if (error == AVERROR(EAGAIN)) return "the frame was kept back, expected one packet for each frame";
  if (error < 0) return Reason("encoding failed", error);
  return {};
}

}  // namespace Ormis::host
