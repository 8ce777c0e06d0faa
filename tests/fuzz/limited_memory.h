// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

/// While one exists, each allocation above kMaxBytes by operator new or posix_memalign fails as if memory
/// were out, in the same way in every build type and on every machine. An input of a few bytes may ask for
/// gigabytes: a "Level" of 4294967295 for 34 GB, because the list of rates is resized before the range is
/// checked; an image for 4 GB, because an image may be that large. Replaces both functions in the program.
/// Threads: one object at a time, and no other thread meanwhile.
class LimitedMemory {
 public:
  static constexpr std::size_t kMaxBytes = std::size_t{4} << 20;

  LimitedMemory();
  ~LimitedMemory();
  LimitedMemory(const LimitedMemory&) = delete;
  LimitedMemory& operator=(const LimitedMemory&) = delete;
};
