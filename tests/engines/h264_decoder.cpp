// SPDX-License-Identifier: Apache-2.0
#include "h264_decoder.h"

#include <cstring>
#include <stdexcept>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace {

void Require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(what);
}

std::vector<std::uint8_t> Plane(const AVFrame& frame, int index, int width, int height) {
  std::vector<std::uint8_t> plane;
  plane.reserve(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
  for (int row = 0; row < height; ++row) {
    const std::uint8_t* from = frame.data[index] + static_cast<std::ptrdiff_t>(row) * frame.linesize[index];
    plane.insert(plane.end(), from, from + width);
  }
  return plane;
}

}  // namespace

H264Decoder::H264Decoder()
    : codec_(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264))),
      frame_(av_frame_alloc()),
      packet_(av_packet_alloc()) {
  codec_->thread_count = 1;
  codec_->err_recognition = AV_EF_EXPLODE;
  Require(avcodec_open2(codec_, nullptr, nullptr) == 0, "the decoder cannot be opened");
}

H264Decoder::~H264Decoder() {
  av_packet_free(&packet_);
  av_frame_free(&frame_);
  avcodec_free_context(&codec_);
}

std::vector<Picture> H264Decoder::Decode(const std::uint8_t* data, std::uint64_t sizeBytes) {
  // Copied, because the decoder reads a little beyond the end and needs zeros there.
  Require(av_new_packet(packet_, static_cast<int>(sizeBytes)) == 0, "out of memory");
  std::memcpy(packet_->data, data, sizeBytes);
  const int error = avcodec_send_packet(codec_, packet_);
  av_packet_unref(packet_);
  Require(error == 0, "a packet does not decode");
  return Receive();
}

std::vector<Picture> H264Decoder::Flush() {
  Require(avcodec_send_packet(codec_, nullptr) == 0, "the decoder does not flush");
  return Receive();
}

std::vector<Picture> H264Decoder::Receive() {
  std::vector<Picture> pictures;
  int error = 0;
  while ((error = avcodec_receive_frame(codec_, frame_)) == 0) {
    Require(frame_->format == AV_PIX_FMT_YUV420P, "the picture is not 4:2:0");
    Picture picture;
    picture.width = frame_->width;
    picture.height = frame_->height;
    picture.isKeyFrame = frame_->pict_type == AV_PICTURE_TYPE_I;
    picture.luma = Plane(*frame_, 0, frame_->width, frame_->height);
    picture.chromaU = Plane(*frame_, 1, frame_->width / 2, frame_->height / 2);
    picture.chromaV = Plane(*frame_, 2, frame_->width / 2, frame_->height / 2);
    pictures.push_back(std::move(picture));
    av_frame_unref(frame_);
  }
  Require(error == AVERROR(EAGAIN) || error == AVERROR_EOF, "a picture does not decode");
  return pictures;
}
