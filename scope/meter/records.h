// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

#include "contents.h"
#include "ormis/qet_image.h"
#include "ormis/qet_venc.h"

/// The memory that the platform's records name.
namespace scope {

/// Bytes of the image's pixels. 0 if the type is unknown and the record has no size.
inline std::uint64_t PixelBytes(const Ormis::ImageData& image) {
  const std::uint64_t pixels = std::uint64_t{image.width} * image.height;
  switch (image.imageType) {
    case Ormis::kQetImageRgb888:
    case Ormis::kQetImageBgr888:
      return pixels * 3;
    case Ormis::kQetImageYuv420sp:
    case Ormis::kQetImageYvu420sp:
      return pixels * 3 / 2;
    case Ormis::kQetImageYuv422sp:
    case Ormis::kQetImageYvu422sp:
      return pixels * 2;
    case Ormis::kQetImageArgb8888:
    case Ormis::kQetImageAbgr8888:
    case Ormis::kQetImageRgba8888:
    case Ormis::kQetImageBgra8888:
      return pixels * 4;
    default:
      return image.dataSize;
  }
}

/// What is read or written of an image. Empty if the program cannot see its memory.
inline Spans PixelsOf(const Ormis::ImageData& image) {
  const std::uint64_t bytes = PixelBytes(image);
  if (image.data == nullptr) return {};
  return {image.data,
          static_cast<std::size_t>(image.dataSize != 0 && image.dataSize < bytes ? image.dataSize : bytes)};
}

/// Combines several numbers into one.
template <typename... Numbers>
std::uint64_t KindOf(Numbers... numbers) {
  const std::uint64_t values[] = {static_cast<std::uint64_t>(numbers)...};
  return HashOf({reinterpret_cast<const std::uint8_t*>(values), sizeof(values)}, sizeof...(numbers));
}

template <typename Buffers>
Spans SpansOf(const Buffers& buffers) {
  Spans spans;
  for (const auto& buffer : buffers) spans.Add(buffer.data, buffer.sizeBytes);
  return spans;
}

inline Spans SpansOf(const ux_venc_stream& stream) {
  constexpr std::uint32_t kMostPackets = sizeof(stream.packets) / sizeof(stream.packets[0]);
  Spans spans;
  for (std::uint32_t i = 0; i < stream.packetCount && i < kMostPackets; ++i) {
    spans.Add(stream.packets[i].data, stream.packets[i].sizeBytes);
  }
  return spans;
}

}  // namespace scope
