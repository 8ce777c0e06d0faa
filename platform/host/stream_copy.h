#pragma once

#include <cstddef>
#include <vector>

namespace Ormis::host {

/// A way to copy. Buffers must not overlap. Threads: any.
struct CopyRoutine {
  const char* name;
  void (*copy)(void* destination, const void* source, std::size_t bytes);
};

/// The ways that this processor knows, the narrowest stores first. The first is the C library's own memcpy;
/// the others write past the caches ("streaming stores"), so that every byte of the destination crosses the
/// memory controller.
const std::vector<CopyRoutine>& CopyRoutines();

/// Counts from here on are copied past the caches. Below it a destination is likely to be read again at once,
/// from the cache, and a streamed one would have to come back from memory.
constexpr std::size_t kStreamFromBytes = std::size_t{1} << 20;

/// Copies `bytes` with the C library's memcpy, and from kStreamFromBytes on with the widest streaming stores
/// there are. What it wrote is visible to other threads as memcpy's would be.
void CopyToMemory(void* destination, const void* source, std::size_t bytes);

}  // namespace Ormis::host
