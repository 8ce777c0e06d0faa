// SPDX-License-Identifier: Apache-2.0
#include <vector>

#include "check.h"
#include "picture.h"
#include "worker.h"

namespace conformance {

namespace {

std::uint8_t Pattern(std::size_t at, unsigned int seed) {
  return static_cast<std::uint8_t>(at * 31 + at / 4096 + seed);
}

void Fill(const Ormis::ImageData& image, std::size_t bytes, unsigned int seed) {
  for (std::size_t at = 0; at < bytes; ++at) image.data[at] = Pattern(at, seed);
}

void RequirePattern(const Ormis::ImageData& image, std::size_t bytes, unsigned int seed, const char* what) {
  for (std::size_t at = 0; at < bytes; ++at) {
    if (image.data[at] == Pattern(at, seed)) continue;
    throw Failure(std::string(what) + ": byte " + std::to_string(at) + " is " +
                  std::to_string(image.data[at]) + ", not " + std::to_string(Pattern(at, seed)));
  }
}

void DataFilled(Session& session) {
  const Device device;
  for (const auto& [width, height] : {std::pair{1920U, 1080U}, std::pair{416U, 234U}}) {
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    Ormis::ImageData image = EmptyImage(width, height);
    RequireOk(Ormis::QetImageMallocAligned(image), ("QetImageMallocAligned of " + size).c_str());
    Require(image.data != nullptr, "QetImageMallocAligned of " + size + " returned 0 and left data null");
    Require(image.width == width && image.height == height && image.imageType == Ormis::kQetImageBgr888 &&
                image.bufferMode == Ormis::kQetBufferPlatform,
            "QetImageMallocAligned of " + size + " changed width, height, imageType or bufferMode");
    const std::size_t bytes = RowBytes(width, session.settings) * height;
    Fill(image, bytes, 1);
    RequirePattern(image, bytes, 1, ("memory of " + size).c_str());
    (void)Ormis::QetImageDestroy(image);
  }
}

void MemoryOfItsOwn(Session& session) {
  constexpr std::uint32_t kWidth = 640;
  constexpr std::uint32_t kHeight = 360;
  const Device device;
  const Image first(kWidth, kHeight);
  const Image second(kWidth, kHeight);
  const std::size_t bytes = RowBytes(kWidth, session.settings) * kHeight;
  Fill(first.record, bytes, 1);
  Fill(second.record, bytes, 2);
  RequirePattern(first.record, bytes, 1, "the first of two images, after the second was written");
}

void Destroy(Session&) {
  const Device device;
  Ormis::ImageData source = EmptyImage(1920, 1080);
  Ormis::ImageData destination = EmptyImage(416, 234);
  for (int round = 0; round < 3; ++round) {
    source.data = nullptr;
    destination.data = nullptr;
    source.dataSize = 0;
    destination.dataSize = 0;
    RequireOk(Ormis::QetImageMallocAligned(source), "QetImageMallocAligned");
    RequireOk(Ormis::QetImageMallocAligned(destination), "QetImageMallocAligned");
    RequireOk(Ormis::QetImageDestroy(destination), "QetImageDestroy");
    RequireOk(Ormis::QetImageDestroy(source), "QetImageDestroy");
  }
}

void CopyOfTheSameRecord(Session& session) {
  constexpr std::uint32_t kWidth = 640;
  constexpr std::uint32_t kHeight = 360;
  const Device device;
  Image image(kWidth, kHeight);
  const std::size_t bytes = RowBytes(kWidth, session.settings) * kHeight;
  Fill(image.record, bytes, 3);
  RequireOk(Ormis::QetMemcpyToKivu(image.record, image.record),
            "QetMemcpyToKivu with one record as source and destination");
  RequirePattern(image.record, bytes, 3, "the image after a copy onto itself");

  const Channel channel(0);
  const Image smaller(kWidth / 2, kHeight / 2);
  RequireOk(
      Ormis::QetImageResize(channel.Number(), image.record, smaller.record, Ormis::kQetInterpolationArea, -1),
      "QetImageResize of an image that was copied onto itself");
}

void CopyOfPixels(Session& session) {
  constexpr std::uint32_t kWidth = 640;
  constexpr std::uint32_t kHeight = 360;
  const Device device;
  const Image source(kWidth, kHeight);
  Image destination(kWidth, kHeight);
  const std::size_t bytes = RowBytes(kWidth, session.settings) * kHeight;
  Fill(source.record, bytes, 4);
  Fill(destination.record, bytes, 5);
  RequireOk(Ormis::QetMemcpyToKivu(source.record, destination.record), "QetMemcpyToKivu");
  RequirePattern(destination.record, bytes, 4, "the destination of a copy");
  RequirePattern(source.record, bytes, 4, "the source of a copy");
}

void CopySeenByResize(Session& session) {
  constexpr std::uint32_t kWidth = 640;
  constexpr std::uint32_t kHeight = 360;
  const Device device;
  const Channel channel(0);
  const Picture picture(kWidth, kHeight);
  Image from(kWidth, kHeight);
  Image source(kWidth, kHeight);
  const Image destination(kWidth / 2, kHeight / 2);
  for (const Picture& next : {picture, picture.Inverted()}) {
    next.PutInto(from.record, session.settings);
    RequireOk(Ormis::QetMemcpyToKivu(from.record, source.record), "QetMemcpyToKivu");
    RequireOk(Ormis::QetImageResize(channel.Number(), source.record, destination.record,
                                    Ormis::kQetInterpolationArea, -1),
              "QetImageResize of an image that was copied from another");
    next.RequireScaled(destination.record, session.settings);
  }
}

}  // namespace

std::vector<Check> ImageChecks() {
  return {
      {"image.data-filled",
       "QetImageMallocAligned returns 0 and fills data, and every byte of the image holds what is written to "
       "it",
       DataFilled},
      {"image.memory-of-its-own", "two images that live at the same time share no memory", MemoryOfItsOwn},
      {"image.destroy", "QetImageDestroy of the destination, then of the source, returns 0, again and again",
       Destroy},
      {"copy.same-record",
       "QetMemcpyToKivu accepts one record as source and destination, keeps its pixels and leaves it usable "
       "for a resize",
       CopyOfTheSameRecord},
      {"copy.copies-pixels",
       "QetMemcpyToKivu puts the source's pixels into the destination and leaves the source", CopyOfPixels},
      {"copy.seen-by-resize", "QetImageResize shows what the last QetMemcpyToKivu put into its source",
       CopySeenByResize},
  };
}

}  // namespace conformance
