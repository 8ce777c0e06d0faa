// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace conformance {

/// What this process has of the machine. 0 stands for what cannot be told here.
struct Usage {
  std::uint64_t descriptors = 0;
  std::uint64_t threads = 0;
  std::uint64_t heapBytes = 0;      ///< in use, of the C library's heap
  std::uint64_t residentBytes = 0;  ///< memory that is really there
  std::uint64_t mappedBytes = 0;    ///< addresses taken
};

Usage MeasureUsage();

/// Threads of this process; 0 where that cannot be told.
std::uint64_t ThreadCount();

}  // namespace conformance
