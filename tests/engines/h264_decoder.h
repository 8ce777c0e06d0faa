// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

/// One decoded picture, 4:2:0 with separate chroma planes.
struct Picture {
  int width = 0;
  int height = 0;
  bool isKeyFrame = false;
  std::vector<std::uint8_t> luma;
  std::vector<std::uint8_t> chromaU;
  std::vector<std::uint8_t> chromaV;
};

/// Decodes an encoder's packets with libavcodec's own decoder.
class H264Decoder {
 public:
  H264Decoder();
  ~H264Decoder();
  H264Decoder(const H264Decoder&) = delete;
  H264Decoder& operator=(const H264Decoder&) = delete;

  /// Takes one packet and returns the pictures that it completes. Throws on a packet that does not decode.
  std::vector<Picture> Decode(const std::uint8_t* data, std::uint64_t sizeBytes);
  /// Ends the stream and returns the pictures that the decoder still holds.
  std::vector<Picture> Flush();

 private:
  std::vector<Picture> Receive();

  AVCodecContext* codec_;
  AVFrame* frame_;
  AVPacket* packet_;
};
