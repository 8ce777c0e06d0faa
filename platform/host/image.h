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

/// An image's planes in the order in which they lie in memory, one right behind the other.
struct ImageShape {
  std::uint32_t planeCount = 0;
  PlaneShape planes[2];
  std::uint32_t bytes = 0;  ///< of all planes
};

/// Works out the planes from the record's type, width and height. Returns 0; or says in the name of
/// `operation` what is wrong with them, and returns kQetUnsupported (type) or kQetInvalidSize.
std::int32_t DescribeImage(const char* operation, const ImageData& record, ImageShape& shape);

/// The memory of one QetImageMallocAligned.
struct Image {
  struct Free {
    void operator()(std::uint8_t* memory) const { std::free(memory); }
  };

  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t type = 0;
  ImageShape shape;
  std::unique_ptr<std::uint8_t, Free> pixels;
};

/// Finds the memory behind a record and checks that the record still says what was allocated. Returns 0 with
/// `image`; or says what is wrong with the `role` ("source", ...) in the name of `operation`, and returns the
/// code. The memory stays while `image` is held, even if another thread destroys the record meanwhile.
std::int32_t RequireImage(const char* operation, const char* role, const ImageData& record,
                          std::shared_ptr<Image>& image);

}  // namespace Ormis::host
