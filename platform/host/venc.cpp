// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <array>
#include <climits>
#include <memory>
#include <mutex>
#include <string>

#include "cache_flush.h"
#include "diagnostics.h"
#include "h264_encoder.h"
#include "image.h"
#include "ormis/qet_venc.h"
#include "settings.h"
#include "state.h"

namespace Ormis {
namespace host {

namespace {

// A caller may send frames before it releases streams, but one that never releases any must not fill the
// memory.
constexpr std::size_t kMaxOutstanding = 16;
// libavcodec keeps the bits of the rate buffer in an int.
constexpr std::uint32_t kMaxBitrateKbps = INT_MAX / 1000;
// libx264 must not see settings that it refuses: each time it leaks what it has allocated, up to 20 MB.
constexpr std::uint32_t kMaxSide = 16384;
constexpr std::uint32_t kMaxFrameRate = 100'000;  // at high bit rates it refuses 380,000 and more

struct Slot {
  enum class State : std::uint8_t { kFree, kWaiting, kFetched };
  State state = State::kFree;
  std::uint64_t streamId = 0;  ///< ascending with the frames
  H264Packet packet;
};

struct Encoder {
  explicit Encoder(const QetVenc& venc)
      : width(venc.width),
        height(venc.height),
        channel(venc.channel),
        streamBufferBytes(venc.streamBufferBytes) {}

  std::mutex mutex;
  std::unique_ptr<H264Encoder> engine;
  const std::uint32_t width;
  const std::uint32_t height;
  const std::uint32_t channel;
  const std::uint64_t streamBufferBytes;
  std::uint64_t outstandingBytes = 0;
  std::array<Slot, kMaxOutstanding> slots;
};

Table<std::uint64_t, Encoder> encoders;

std::string Size(std::uint32_t width, std::uint32_t height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

std::int32_t CheckSettings(const QetVenc& venc) {
  constexpr const char* kInit = "QetVenc::Init";
  const std::string size = Size(venc.width, venc.height);
  if (venc.width == 0 || venc.height == 0 || venc.width % 2 != 0 || venc.height % 2 != 0) {
    return QET_FAIL(kInit, kQetInvalidSize, "size " << size << ", expected even width and height above 0");
  }
  if (venc.width > venc.maxWidth || venc.height > venc.maxHeight) {
    return QET_FAIL(kInit, kQetInvalidSize,
                    "size " << size << ", expected at most " << Size(venc.maxWidth, venc.maxHeight));
  }
  if (venc.width > kMaxSide || venc.height > kMaxSide) {
    return QET_FAIL(kInit, kQetInvalidSize,
                    "size " << size << ", expected at most " << Size(kMaxSide, kMaxSide));
  }
  if (venc.bitrateKbps == 0 || venc.bitrateKbps > kMaxBitrateKbps) {
    return QET_FAIL(kInit, kQetInvalidArgument,
                    "bit rate " << venc.bitrateKbps << " kbit/s, expected 1 to " << kMaxBitrateKbps);
  }
  if (venc.frameRate == 0 || venc.frameRate > kMaxFrameRate) {
    return QET_FAIL(kInit, kQetInvalidArgument,
                    "frame rate " << venc.frameRate << ", expected 1 to " << kMaxFrameRate);
  }
  if (venc.gopSize == 0 || venc.gopSize > INT_MAX) {
    return QET_FAIL(kInit, kQetInvalidArgument,
                    "key frame distance " << venc.gopSize << ", expected 1 to " << INT_MAX);
  }
  if (venc.streamBufferBytes == 0) {
    return QET_FAIL(kInit, kQetInvalidSize, "a stream buffer of 0 bytes, expected more");
  }
  return kQetOk;
}

/// Checks the frame. Where its pixels are in the platform's memory, `image` keeps them alive.
std::int32_t RequireFrame(const ImageData& frame, const Encoder& encoder, std::shared_ptr<Image>& image) {
  constexpr const char* kSendFrame = "QetVenc::SendFrame";
  if (frame.bufferMode == kQetBufferPlatform) {
    if (const std::int32_t status = RequireImage(kSendFrame, "frame", frame, image); status != kQetOk) {
      return status;
    }
  } else if (frame.bufferMode != kQetBufferUser) {
    return QET_FAIL(kSendFrame, kQetInvalidArgument,
                    "frame with buffer mode "
                        << frame.bufferMode
                        << ", expected 0, the caller's memory, or 1, the platform's memory");
  }
  if (frame.imageType != kQetImageYuv420sp) {
    return QET_FAIL(kSendFrame, kQetUnsupported,
                    "image type " << frame.imageType << ", expected " << unsigned{kQetImageYuv420sp});
  }
  if (frame.width != encoder.width || frame.height != encoder.height) {
    return QET_FAIL(kSendFrame, kQetInvalidSize,
                    "a frame of " << Size(frame.width, frame.height) << ", expected "
                                  << Size(encoder.width, encoder.height));
  }
  const std::uint64_t bytes = Nv12Bytes(encoder.width, encoder.height);
  if (frame.dataSize < bytes) {
    return QET_FAIL(kSendFrame, kQetInvalidSize,
                    "a frame of " << frame.dataSize << " bytes, expected at least " << std::to_string(bytes));
  }
  if (frame.data == nullptr) {
    return QET_FAIL(kSendFrame, kQetInvalidArgument, "a frame without data");
  }
  return kQetOk;
}

/// Returns the encoder. Otherwise logs why there is none, sets `status` and returns null.
std::shared_ptr<Encoder> RequireEncoder(const char* operation, const QetVenc& venc, std::int32_t& status) {
  status = RequireContext(operation);
  if (status != kQetOk) return nullptr;
  std::shared_ptr<Encoder> encoder = encoders.Find(venc.encoderId);
  if (encoder == nullptr) {
    status = QET_FAIL(operation, kQetEncoderNotReady, "the encoder is not initialised: call Init first");
  }
  return encoder;
}

}  // namespace

Leftover ReclaimEncoders() noexcept {
  const Leftover left{encoders.TakeAll().size(), 0};
  GiveMessagesBack();
  return left;
}

}  // namespace host

std::int32_t QetVenc::Init() {
  constexpr const char* kInit = "QetVenc::Init";
  return host::Guarded(kInit, [&]() -> std::int32_t {
    if (const std::int32_t status = host::RequireContext(kInit); status != kQetOk) return status;
    if (host::encoders.Find(encoderId) != nullptr) {
      return QET_FAIL(kInit, kQetAlreadyInitialized, "the encoder is initialised already");
    }
    if (const std::int32_t status = host::CheckSettings(*this); status != kQetOk) return status;

    const host::H264Settings settings{static_cast<int>(width), static_cast<int>(height),
                                      static_cast<int>(frameRate), static_cast<int>(gopSize),
                                      static_cast<int>(bitrateKbps * 1000)};
    auto encoder = std::make_shared<host::Encoder>(*this);
    std::string refused;
    const std::string& wanted = host::CurrentSettings().encoder;
    encoder->engine =
        host::H264Encoder::Open(settings, host::H264EnginesToTry(wanted, host::DeviceExists), refused);
    if (encoder->engine == nullptr) {
      return QET_FAIL(kInit, kQetEncoderFailure,
                      "no engine encodes " << host::Size(width, height) << " at " << frameRate
                                           << " frames/s and " << bitrateKbps << " kbit/s: " << refused
                                           << " (settings: encoder " << wanted << ")");
    }
    if (!refused.empty()) {
      host::Log().LogWarn({__FILE__, kInit, __LINE__})
          << kInit << ": channel " << channel << " falls back to " << encoder->engine->EngineName() << ": "
          << refused;
    }
    host::Log().LogInfo({__FILE__, kInit, __LINE__})
        << kInit << ": channel " << channel << ", " << host::Size(width, height) << ", engine "
        << encoder->engine->EngineName();
    const std::uint64_t id = host::NextId();
    host::encoders.Add(id, std::move(encoder));
    encoderId = id;
    return kQetOk;
  });
}

std::int32_t QetVenc::SendFrame(const ImageData& frame) {
  constexpr const char* kSendFrame = "QetVenc::SendFrame";
  return host::Guarded(kSendFrame, [&]() -> std::int32_t {
    std::int32_t status = kQetOk;
    const auto encoder = host::RequireEncoder(kSendFrame, *this, status);
    if (encoder == nullptr) return status;
    const std::lock_guard<std::mutex> lock(encoder->mutex);
    std::shared_ptr<host::Image> image;
    status = host::RequireFrame(frame, *encoder, image);
    if (status != kQetOk) return status;

    const auto slot = std::find_if(encoder->slots.begin(), encoder->slots.end(), [](const host::Slot& one) {
      return one.state == host::Slot::State::kFree;
    });
    if (slot == encoder->slots.end() || encoder->outstandingBytes >= encoder->streamBufferBytes) {
      return QET_FAIL(kSendFrame, kQetBusy,
                      "streams of " << std::to_string(encoder->outstandingBytes)
                                    << " bytes are outstanding, expected fewer than "
                                    << unsigned{host::kMaxOutstanding} << " streams and "
                                    << std::to_string(encoder->streamBufferBytes)
                                    << " bytes: release some first");
    }
    if (const std::string failure = encoder->engine->Encode(frame.data, slot->packet); !failure.empty()) {
      return QET_FAIL(kSendFrame, kQetEncoderFailure, encoder->engine->EngineName() << ": " << failure);
    }
    portable::FlushFromCaches(frame.data, host::Nv12Bytes(encoder->width, encoder->height));
    slot->state = host::Slot::State::kWaiting;
    slot->streamId = host::NextId();
    encoder->outstandingBytes += slot->packet.SizeBytes();
    return kQetOk;
  });
}

std::int32_t QetVenc::GetStream(ux_venc_stream& stream) {
  constexpr const char* kGetStream = "QetVenc::GetStream";
  return host::Guarded(kGetStream, [&]() -> std::int32_t {
    std::int32_t status = kQetOk;
    const auto encoder = host::RequireEncoder(kGetStream, *this, status);
    if (encoder == nullptr) return status;
    const std::lock_guard<std::mutex> lock(encoder->mutex);

    host::Slot* oldest = nullptr;
    for (host::Slot& slot : encoder->slots) {
      if (slot.state != host::Slot::State::kWaiting) continue;
      if (oldest == nullptr || slot.streamId < oldest->streamId) oldest = &slot;
    }
    if (oldest == nullptr) {
      return QET_FAIL(kGetStream, kQetNoStream, "no stream is waiting: call SendFrame first");
    }
    oldest->state = host::Slot::State::kFetched;

    stream = ux_venc_stream{};
    stream.streamId = oldest->streamId;
    stream.packetCount = 1;
    stream.channel = encoder->channel;
    stream.totalBytes = oldest->packet.SizeBytes();
    stream.packets[0].data = oldest->packet.Data();
    stream.packets[0].sizeBytes = oldest->packet.SizeBytes();
    stream.packets[0].frameIndex = oldest->packet.FrameIndex();
    stream.packets[0].isKeyFrame = oldest->packet.IsKeyFrame() ? 1 : 0;
    return kQetOk;
  });
}

std::int32_t QetVenc::ReleaseStream(ux_venc_stream& stream) {
  constexpr const char* kReleaseStream = "QetVenc::ReleaseStream";
  return host::Guarded(kReleaseStream, [&]() -> std::int32_t {
    std::int32_t status = kQetOk;
    const auto encoder = host::RequireEncoder(kReleaseStream, *this, status);
    if (encoder == nullptr) return status;
    const std::lock_guard<std::mutex> lock(encoder->mutex);

    const auto slot = std::find_if(encoder->slots.begin(), encoder->slots.end(), [&](const host::Slot& one) {
      return one.state == host::Slot::State::kFetched && one.streamId == stream.streamId;
    });
    if (slot == encoder->slots.end()) {
      return QET_FAIL(kReleaseStream, kQetNoStream,
                      "stream " << std::to_string(stream.streamId)
                                << " is not outstanding, expected one from GetStream, once");
    }
    encoder->outstandingBytes -= slot->packet.SizeBytes();
    slot->packet.Clear();
    slot->state = host::Slot::State::kFree;
    stream = ux_venc_stream{};
    return kQetOk;
  });
}

// Needs no context and no initialised platform: after QetRelease there is nothing left to free.
QetVenc::~QetVenc() {
  host::encoders.Take(encoderId);
}

}  // namespace Ormis
