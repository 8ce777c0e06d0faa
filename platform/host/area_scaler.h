// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "area_kernels.h"
#include "image.h"
#include "stream_copy.h"

namespace Ormis::host {

/// Scales planes by area average: a pixel of the result is the mean of the source area that it covers, with
/// exact fractions of pixels at the borders, rounded to nearest (a half upwards). Enlarging follows the same
/// rule. Reads every source pixel. Works on the calling thread alone. Keeps its scratch memory between calls,
/// so that a call with the sizes of the last one allocates nothing. Threads: one at a time.
class AreaScaler {
 public:
  /// Largest side of a source or a result for which the arithmetic does not overflow.
  static constexpr std::uint32_t kMaxSide = 1U << 24;

  /// `kernel` has what is done most; null: nothing but plain loops, the reference. The results are the same.
  /// `writer` writes the result where caches are flushed.
  explicit AreaScaler(const AreaKernel* kernel = &AreaKernels().back(),
                      const portable::CopyRoutine& writer = portable::CopyRoutines().back())
      : kernel_(kernel), writer_(&writer) {}

  /// `from` and `to` have the same number of channels, 1 to 4, and sides of 1 to kMaxSide. The planes must
  /// not overlap. Where `flush` is not null, no line of both planes is in a cache at the end, after
  /// portable::EndFlush, which is left to the caller. Throws std::bad_alloc.
  void Scale(const PlaneShape& from, const std::uint8_t* source, const PlaneShape& to,
             std::uint8_t* destination, portable::FlushLines flush);

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

  /// What a call is about.
  struct Job {
    PlaneShape from;
    const std::uint8_t* source;
    PlaneShape to;
    std::uint8_t* destination;
    portable::FlushLines flush;
    Ratio rows;
    Ratio columns;
    std::uint64_t area;  ///< of a pixel of the result, in units
  };

  struct PlainRows;
  struct KernelRows;

  static Ratio ReducedRatio(std::uint32_t from, std::uint32_t to);
  static Span SpanAt(const Ratio& ratio, std::uint32_t index);
  static std::int16_t WeightAt(const Span& span, std::uint32_t index, const Ratio& ratio);
  bool PrepareKernel(const Job& job);

  template <typename Rows>
  void ScaleRows(const Job& job, Rows rows);

  const AreaKernel* kernel_;
  const portable::CopyRoutine* writer_;
  std::vector<Span> spans_;
  AreaColumns columns_;
  std::array<std::uint32_t, 4> columnsSizes_{};  ///< what columns_ is made for; zeros: nothing
  std::vector<std::uint16_t> narrowSums_;
  std::vector<std::uint32_t> wideSums_;
  std::vector<std::uint8_t> result_;  ///< a row
  std::vector<std::uint8_t> rows_;    ///< rows of the result that are not yet written
};

}  // namespace Ormis::host
