// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "ormis/qet_image.h"

namespace Ormis::host {

/// One plane of an image: `height` rows of `width` x `channels` bytes without padding.
struct PlaneShape {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t channels = 0;

  std::uint64_t Bytes() const { return std::uint64_t{width} * height * channels; }
};

/// An image's planes in the order of memory, without a gap between them.
struct ImageShape {
  std::uint32_t planeCount = 0;
  PlaneShape planes[2];
  std::uint32_t bytes = 0;  ///< of all planes
};

/// Computes the planes from the record's type, width and height. Returns 0. Otherwise logs in the name of
/// `operation` what is wrong and returns kQetUnsupported (type) or kQetInvalidSize.
std::int32_t DescribeImage(const char* operation, const ImageData& record, ImageShape& shape);

/// The memory of one QetImageMallocAligned.
struct Image {
  struct Free {
    void operator()(std::uint8_t* memory) const { std::free(memory); }
  };

  Image() = default;
  ~Image();
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t type = 0;
  ImageShape shape;
  std::uint64_t countedBytes = 0;  ///< what it adds to the sum of all images
  std::unique_ptr<std::uint8_t, Free> pixels;
};

/// Finds the memory of a record and checks that the record's fields are those of the allocation. Returns 0
/// and fills `image`. Otherwise logs in the name of `operation` what is wrong with the `role` ("source", ...)
/// and returns the code. The memory stays while `image` is held, even if another thread destroys the record.
std::int32_t RequireImage(const char* operation, const char* role, const ImageData& record,
                          std::shared_ptr<Image>& image);

}  // namespace Ormis::host
