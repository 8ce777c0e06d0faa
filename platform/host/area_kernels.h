// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "routine_list.h"

namespace Ormis::host {

/// How the pixels of a result row are made of a row of sums, in the form that kernels read. A result pixel is
/// a weighted sum over neighbouring source pixels, which are taken in pairs.
struct AreaColumns {
  std::uint32_t width = 0;  ///< pixels of the result row
  std::uint32_t channels = 0;
  std::uint32_t pairs = 0;           ///< for each result pixel; where it has fewer, the weights are 0
  std::uint32_t period = 0;          ///< result pixels after which the weights repeat; even
  std::uint32_t periodSamples = 0;   ///< source samples of a period
  std::vector<std::uint32_t> first;  ///< of each result pixel of a period: the first sample that it reads
  /// Each two neighbouring result pixels have 16 weights for each of their pairs: left and right, four times,
  /// for the first pixel, then the same for the second.
  std::vector<std::int16_t> weights;
  std::uint32_t offset = 0;   ///< added to each weighted sum; modulo 2^32
  double inverse = 0;         ///< of the area: what a sum is multiplied with
  bool floatIsExact = false;  ///< a float has enough bits for the division
  bool quarters = false;      ///< each result pixel is the mean of 2 x 2 source pixels
};

/// Kernels store sums of pixels less this, so that they fit into 16 bits with a sign.
constexpr std::uint32_t kSumBias = 32768;

/// The two steps of an area average, for one kind of processor. All kernels have the same results.
struct AreaKernel {
  const char* name;
  /// Set sums[i] to weight * row[i] - kSumBias, or add weight * row[i]. Modulo 2^16. They fetch lines ahead,
  /// but none behind `sourceEnd`, the end of the memory that `row` is in.
  void (*setRow)(const std::uint8_t* row, std::uint16_t weight, std::size_t length,
                 const std::uint8_t* sourceEnd, std::uint16_t* sums);
  void (*addRow)(const std::uint8_t* row, std::uint16_t weight, std::size_t length,
                 const std::uint8_t* sourceEnd, std::uint16_t* sums);
  /// Makes a result row. Reads up to AreaSumsBeyond(columns) sums behind the last of the row, whose values do
  /// not matter, and writes up to kResultBeyond bytes behind the result row.
  void (*finishRow)(const AreaColumns& columns, const std::uint16_t* sums, std::uint8_t* result);
};

inline std::size_t AreaSumsBeyond(const AreaColumns& columns) {
  return std::size_t{2} * columns.pairs * columns.channels + 16;
}
constexpr std::size_t kResultBeyond = 15;

/// The kernels that this processor can run, slowest first. There is always one.
const portable::RoutineList<AreaKernel>& AreaKernels();

}  // namespace Ormis::host
