// SPDX-License-Identifier: Apache-2.0
#include "encoder.h"

#include <algorithm>

#include "check.h"

namespace conformance {

namespace {

constexpr std::uint32_t kFrameWidth = 1920;
constexpr std::uint32_t kFrameHeight = 1080;
constexpr std::uint32_t kFirstChannel = 25;

void Paint(std::vector<std::uint8_t>& pixels, std::uint32_t row, std::uint32_t rows, std::uint8_t value) {
  std::fill_n(pixels.data() + std::size_t{row} * kFrameWidth, std::size_t{rows} * kFrameWidth, value);
}

}  // namespace

void Configure(Ormis::QetVenc& encoder, unsigned int index) {
  encoder.offsetBC = 46;
  encoder.offsetC0 = 25;
  encoder.offsetC4 = 0;
  encoder.width = kFrameWidth;
  encoder.height = kFrameHeight;
  encoder.channel = index + kFirstChannel;
  encoder.offsetD4 = 1;
  encoder.bitrateKbps = 2000;
  encoder.offsetDC = 0;
  encoder.maxWidth = 4096;
  encoder.maxHeight = 4096;
  encoder.offsetE8 = 128;
  encoder.streamBufferBytes = 9U * 1024 * 1024;
  encoder.offsetF0 = 0;
  encoder.offsetF4 = 8;
  encoder.offsetF8 = 16;
  encoder.offset118 = 15;
  encoder.offset120 = 0;
  encoder.offset128 = 1;
  encoder.offset12C = 0;
  encoder.frameRate = 30;
  encoder.gopSize = 60;
}

Frame::Frame() : pixels_(kFrameWidth * kFrameHeight * 3 / 2, 128) {
  for (std::uint32_t y = 0; y < kFrameHeight; ++y) {
    for (std::uint32_t x = 0; x < kFrameWidth; ++x) {
      pixels_[y * kFrameWidth + x] =
          static_cast<std::uint8_t>(16 + (x + y) * 200 / (kFrameWidth + kFrameHeight));
    }
  }
  record_.width = kFrameWidth;
  record_.height = kFrameHeight;
  record_.dataSize = static_cast<std::uint32_t>(pixels_.size());
  record_.bufferMode = Ormis::kQetBufferUser;
  record_.imageType = Ormis::kQetImageYuv420sp;
  record_.data = pixels_.data();
}

void Frame::Next() {
  constexpr std::uint32_t kStep = 16;
  Paint(pixels_, row_, kStep, 60);
  row_ = (row_ + kStep) % (kFrameHeight - kStep);
  Paint(pixels_, row_, kStep, 220);
}

void Frame::ChangeAll() {
  for (std::uint8_t& value : pixels_) value = static_cast<std::uint8_t>(value + 100);
}

void EncodeOne(Ormis::QetVenc& encoder, Frame& frame) {
  RequireOk(encoder.SendFrame(frame.Record()), "SendFrame");
  ux_venc_stream stream{};
  RequireOk(encoder.GetStream(stream), "GetStream after one frame");
  RequireOk(encoder.ReleaseStream(stream), "ReleaseStream");
  frame.Next();
}

}  // namespace conformance
