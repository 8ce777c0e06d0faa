// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "check.h"
#include "ormis/ormis.h"

namespace conformance {

/// Bytes from one row of a packed image of 3 bytes a pixel to the next.
std::size_t RowBytes(std::uint32_t width, const Settings& settings);

/// A test picture with 3 bytes a pixel. The first channel rises from left to right, the second from top to
/// bottom, and the third has hard edges. So a result that is mirrored, turned, cut or shifted, has swapped
/// channels or covers only a part of the destination differs from the right one.
class Picture {
 public:
  Picture(std::uint32_t width, std::uint32_t height);

  /// The picture in which every value is 255 less this one's.
  Picture Inverted() const;

  /// Writes the picture into the platform's memory of `image`, which has the same size, and copies the image
  /// onto itself as the resize worker does.
  void PutInto(Ormis::ImageData& image, const Settings& settings) const;

  /// Throws Failure unless `image` is this picture, scaled to the image's size.
  void RequireScaled(const Ormis::ImageData& image, const Settings& settings) const;

 private:
  int At(std::int64_t x, std::int64_t y, std::size_t channel) const;

  std::uint32_t width_;
  std::uint32_t height_;
  std::vector<std::uint8_t> pixels_;
};

}  // namespace conformance
