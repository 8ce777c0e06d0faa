// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "stream_copy.h"

namespace measure {

/// Threads that copy buffers of the CPU stress's size, over and over.
class Copies {
 public:
  enum class Reach {
    kNear,  ///< each thread has two buffers, as in the CPU stress: large caches hold them
    kFar,   ///< each thread goes through so many pairs that no cache holds them
  };

  Copies(std::size_t threads, Reach reach);

  /// Copies for `seconds`. Returns GB/s: 10^9 bytes a second, read + written, of all threads together.
  double Rate(const Ormis::portable::CopyRoutine& routine, double seconds) const;

 private:
  struct Pair {
    std::unique_ptr<std::uint8_t[]> source;
    std::unique_ptr<std::uint8_t[]> destination;
  };
  static std::vector<Pair> MakePairs(std::size_t count);

  std::vector<std::vector<Pair>> pairs_;  ///< of each thread
};

}  // namespace measure
