// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>

namespace Ormis::portable {

/// A way to copy. Buffers must not overlap. Threads: any.
struct CopyRoutine {
  const char* name;
  void (*copy)(void* destination, const void* source, std::size_t bytes);
};

/// A list of routines that uses no heap, so that a copy cannot fail for want of memory.
class CopyRoutineList {
 public:
  void Add(CopyRoutine routine) { routines_.at(size_++) = routine; }
  const CopyRoutine* begin() const { return routines_.data(); }
  const CopyRoutine* end() const { return begin() + size_; }
  std::size_t size() const { return size_; }
  const CopyRoutine& front() const { return *begin(); }
  const CopyRoutine& back() const { return *(end() - 1); }

 private:
  std::array<CopyRoutine, 4> routines_{};
  std::size_t size_ = 0;
};

/// The routines that this processor can run. The first is the C library's memcpy. The others write past the
/// caches with streaming stores, so that every byte of the destination crosses the memory controller; the
/// narrowest stores come first.
const CopyRoutineList& CopyRoutines();

/// The smallest copy that is streamed. A smaller destination is likely to be read again at once; streamed, it
/// would have to come back from memory.
constexpr std::size_t kStreamFromBytes = std::size_t{1} << 20;

/// The routine for a copy of that size: the first below kStreamFromBytes, else the last.
const CopyRoutine& RoutineFor(std::size_t bytes);

/// Copies `bytes` with RoutineFor(bytes). Other threads see what it wrote as they see what memcpy writes.
void CopyToMemory(void* destination, const void* source, std::size_t bytes);

}  // namespace Ormis::portable
