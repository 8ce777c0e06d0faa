// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace Ormis::host {

struct H264Settings {
  int width = 0;   ///< pixels, even
  int height = 0;  ///< pixels, even
  int frameRate = 0;
  int gopSize = 0;  ///< frames from one key frame to the next
  int bitsPerSecond = 0;
};

/// Bytes of an NV12 picture without padding between rows.
constexpr std::uint64_t Nv12Bytes(std::uint32_t width, std::uint32_t height) {
  return std::uint64_t{width} * height * 3 / 2;
}

/// An encoder of libavcodec, with the options that make it encode at a constant bit rate and return one
/// packet for each frame.
struct H264Engine {
  const char* name;     ///< as libavcodec knows it
  const char* device;   ///< shell pattern of its device nodes; null: the software engine, which needs none
  const char* options;  ///< its own options, "key=value,key=value"
};

/// The engines to try, best first. "auto": the hardware engines for whose device `exists` is true, then the
/// software engine. The name of an engine: that one alone, whatever devices there are.
std::vector<H264Engine> H264EnginesToTry(const std::string& encoder,
                                         const std::function<bool(const char* pattern)>& exists);

/// True when this machine has a device node that matches the shell pattern.
bool DeviceExists(const char* pattern);

/// Lets libavcodec write its messages to standard error again, as it does by itself. While an encoder works,
/// they are kept for the reasons of failures. Called when the platform ends.
void GiveMessagesBack() noexcept;

/// One encoded frame. The next Encode into it reuses its memory.
class H264Packet {
 public:
  H264Packet();
  ~H264Packet();
  H264Packet(const H264Packet&) = delete;
  H264Packet& operator=(const H264Packet&) = delete;

  const std::uint8_t* Data() const;
  std::uint64_t SizeBytes() const;
  std::int64_t FrameIndex() const;
  bool IsKeyFrame() const;
  void Clear();

 private:
  friend class H264Encoder;
  AVPacket* packet_;
};

/// An open H.264 encoder. It works on the calling thread and starts no thread; a hardware driver may.
/// Threads: one at a time.
class H264Encoder {
 public:
  /// Opens the first of `engines` that works. `reason` then says why those before it do not; it is empty for
  /// the first. Returns null when none works, with every engine's reason in `reason`.
  static std::unique_ptr<H264Encoder> Open(const H264Settings& settings,
                                           const std::vector<H264Engine>& engines, std::string& reason);
  ~H264Encoder();
  H264Encoder(const H264Encoder&) = delete;
  H264Encoder& operator=(const H264Encoder&) = delete;

  const char* EngineName() const { return engine_.name; }

  /// Encodes one NV12 picture without padding between rows. Has read it when the call returns. Returns the
  /// empty string and fills `packet`, or returns the reason of the failure.
  std::string Encode(const std::uint8_t* nv12, H264Packet& packet);

 private:
  H264Encoder(const H264Settings& settings, const H264Engine& engine);
  std::string OpenCodec();
  std::string UseHardwareFrames();
  std::string EncodeFrame(AVFrame* frame, AVPacket* packet);
  std::size_t FrameBytes() const;

  H264Settings settings_;
  H264Engine engine_;
  AVCodecContext* codec_ = nullptr;
  AVFrame* frame_ = nullptr;
  AVFrame* hardwareFrame_ = nullptr;  ///< null unless the engine takes only frames in its device's memory
  std::int64_t frameCount_ = 0;
};

}  // namespace Ormis::host
