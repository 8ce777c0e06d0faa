// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "routine_list.h"

namespace Ormis::portable {

/// Removes the lines of a range from all caches; changed ones are written to memory first. The content stays
/// as it is. Lines that the range covers in part are removed, too. Threads: any, also while others use the
/// memory. Needs EndFlush afterwards.
using FlushLines = void (*)(const void* memory, std::size_t bytes);

struct FlushRoutine {
  const char* name;
  FlushLines flush;
};

/// The routines that user programs can run on this processor, slowest first. The first, "none", does nothing
/// and is always there.
const RoutineList<FlushRoutine>& FlushRoutines();

/// Waits until the lines that this thread flushed before are out of the caches. Its later loads and stores
/// come after that. A line comes back when a thread uses it, or the processor fetches it ahead.
void EndFlush();

/// Whether operations remove what they have read and written from the caches, as if a unit with no part in
/// them had worked. They do until this is called with false.
void FlushCaches(bool on);

/// The fastest routine, or null where operations leave the caches alone.
FlushLines CurrentFlush();

/// Flushes the range with CurrentFlush and waits for it. Takes no lock and allocates nothing.
inline void FlushFromCaches(const void* memory, std::size_t bytes) {
  const FlushLines flush = CurrentFlush();
  if (flush == nullptr) return;
  flush(memory, bytes);
  EndFlush();
}

}  // namespace Ormis::portable
