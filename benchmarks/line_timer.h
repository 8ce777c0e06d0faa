// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace measure {

struct Range {
  const void* memory = nullptr;
  std::size_t bytes = 0;
};

using Random = std::mt19937;
using Line = const unsigned char*;  ///< the first byte of a cache line

/// Draws lines of a range, `count` at most, each from another page, in random order. Only whole pages are
/// drawn from: a range without one gives no line.
std::vector<Line> DrawLines(const Range& range, std::size_t count, Random& random);

/// Loads each line once and adds the time of the load to `ticks`, in ticks of the processor's counter. Before
/// that, touches another line of the same page, so that no load waits for the translation of its address.
/// Adds nothing where there is no such counter.
void TimeLines(const std::vector<Line>& lines, std::vector<std::uint32_t>& ticks);

/// Reads a range once, from beginning to end.
void ReadAll(const Range& range);

/// A buffer whose lines are put into a known state.
class KnownLines {
 public:
  explicit KnownLines(std::size_t bytes);

  /// Times `count` lines after the whole buffer has been read.
  void TimeRead(std::size_t count, Random& random, std::vector<std::uint32_t>& ticks) const;

  /// Times `count` lines which were flushed just before.
  void TimeFlushed(std::size_t count, Random& random, std::vector<std::uint32_t>& ticks) const;

  Range All() const { return {bytes_.data(), bytes_.size()}; }

 private:
  std::vector<unsigned char> bytes_;
};

/// Where the line lies between loads from a cache and loads from memory, and how well it parts them.
struct Threshold {
  std::uint32_t ticks = 0;          ///< a load that takes more comes from memory
  std::uint32_t readMedian = 0;     ///< of lines that were just read
  std::uint32_t flushedMedian = 0;  ///< of lines that were just flushed
  double readAbove = 0.0;           ///< share of the lines just read that it takes for lines from memory
  double flushedBelow = 0.0;        ///< share of the lines just flushed that it takes for lines from a cache
  bool tells = false;               ///< false: times tell nothing here, and no figure may be made of them
};

/// The threshold is 0.9 times the time that 95 % of the flushed lines exceed. It tells where both times
/// exist, at most 5 % of the lines that were read exceed it, and the median of the flushed lines is 1.5 times
/// that of the others, or more.
Threshold FindThreshold(std::vector<std::uint32_t> read, std::vector<std::uint32_t> flushed);

/// The share of times that are from memory.
double ShareFromMemory(const std::vector<std::uint32_t>& ticks, const Threshold& threshold);

}  // namespace measure
