#pragma once

#include <cstddef>

/// While one exists, a single allocation by operator new or posix_memalign above kMaxBytes fails as if memory
/// were out, in every build type and on every machine alike. An input of a few bytes may ask for gigabytes: a
/// "Level" of 4294967295 for 34 GB, because the list of rates is resized before the range is looked at; an
/// image for 4 GB, because that is a size it may have. Replaces both functions in the program. Threads: one
/// at a time, without others.
class LimitedMemory {
 public:
  static constexpr std::size_t kMaxBytes = std::size_t{4} << 20;

  LimitedMemory();
  ~LimitedMemory();
  LimitedMemory(const LimitedMemory&) = delete;
  LimitedMemory& operator=(const LimitedMemory&) = delete;
};
