// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace conformance {

/// The resources that this process uses. A value that the machine does not report is 0.
struct Usage {
  std::uint64_t descriptors = 0;
  std::uint64_t threads = 0;
  std::uint64_t heapBytes = 0;      ///< in use, of the C library's heap
  std::uint64_t residentBytes = 0;  ///< pages in memory
  std::uint64_t mappedBytes = 0;    ///< size of the address space in use
};

Usage MeasureUsage();

/// The number of threads of this process; 0 if the machine does not report it.
std::uint64_t ThreadCount();

}  // namespace conformance
