// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

#include "image.h"

namespace Ormis::host {

/// Scales planes by area average: a pixel of the result is the mean of the source area that it covers, with
/// exact fractions of pixels at the borders, rounded to nearest (a half upwards). Enlarging follows the same
/// rule. Reads every source pixel. Works on the calling thread alone. Keeps its scratch memory between calls,
/// so that a call with the sizes of the last one allocates nothing. Threads: one at a time.
class AreaScaler {
 public:
  /// Largest side of a source or a result for which the arithmetic does not overflow.
  static constexpr std::uint32_t kMaxSide = 1U << 24;

  /// `from` and `to` have the same number of channels, 1 to 4, and sides of 1 to kMaxSide. The planes must
  /// not overlap. Throws std::bad_alloc.
  void Scale(const PlaneShape& from, const std::uint8_t* source, const PlaneShape& to,
             std::uint8_t* destination);

 private:
  // A side of n source pixels becomes a side of m pixels. After a division of both by their greatest common
  // divisor, a source pixel is m units long and a pixel of the result n units. All borders then fall on whole
  // units, and all weights are integers.
  struct Ratio {
    std::uint32_t sourceUnits = 0;  ///< length of one source pixel
    std::uint32_t resultUnits = 0;  ///< length of one pixel of the result
  };

  /// The source pixels under one pixel of the result. Pixels between the first and the last count in full.
  struct Span {
    std::uint32_t first;
    std::uint32_t last;
    std::uint32_t firstWeight;
    std::uint32_t lastWeight;  ///< 0 when `first` equals `last`
  };

  static Ratio ReducedRatio(std::uint32_t from, std::uint32_t to);
  static Span SpanAt(const Ratio& ratio, std::uint32_t index);
  void PrepareColumns(const Ratio& ratio, std::uint32_t count);

  template <typename Sum, typename Total, typename Real>
  void ScaleWith(const PlaneShape& from, const std::uint8_t* source, const PlaneShape& to,
                 std::uint8_t* destination, const Ratio& rows, std::vector<Sum>& rowSums);

  Ratio columnRatio_;
  std::vector<Span> columns_;
  std::vector<std::uint16_t> narrowSums_;
  std::vector<std::uint32_t> wideSums_;
};

}  // namespace Ormis::host
