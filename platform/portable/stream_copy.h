// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "cache_flush.h"
#include "routine_list.h"

namespace Ormis::portable {

/// A way to copy. Buffers must not overlap. Where `flush` is not null, neither buffer is in a cache when the
/// copy returns. Threads: any.
struct CopyRoutine {
  const char* name;
  void (*copy)(void* destination, const void* source, std::size_t bytes, FlushLines flush);
};

using CopyRoutineList = RoutineList<CopyRoutine>;

/// The routines that this processor can run. The first is the C library's memcpy. The others write past the
/// caches with streaming stores, so that every byte of the destination crosses the memory controller; the
/// narrowest stores come first.
const CopyRoutineList& CopyRoutines();

/// The smallest copy that is streamed. A smaller destination is likely to be read again at once; streamed, it
/// would have to come back from memory.
constexpr std::size_t kStreamFromBytes = std::size_t{1} << 20;

/// The routine for a copy of that size: the first below kStreamFromBytes, else the last.
const CopyRoutine& RoutineFor(std::size_t bytes);

/// Copies `bytes` with RoutineFor(bytes). From kStreamFromBytes on, neither buffer is in a cache afterwards,
/// unless FlushCaches(false) was called. Other threads see what it wrote as they see what memcpy writes.
void CopyToMemory(void* destination, const void* source, std::size_t bytes);

}  // namespace Ormis::portable
