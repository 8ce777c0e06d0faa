// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "guard_memory.h"

namespace scope {

/// What the guard's process tells the recorder, as one packet each.
struct GuardPacket {
  enum class Type : std::uint32_t {
    kReady,     ///< the memory is filled; `counts` are zero
    kNoMemory,  ///< the system gives no such memory
    kCounts,    ///< each second
    kError,
    kEnd  ///< the last walk is done
  };

  Type type = Type::kCounts;
  std::uint32_t isLocked = 0;
  std::uint64_t timeNs = 0;  ///< monotonic
  std::uint64_t cpuNs = 0;   ///< processor time of the guard since it is ready
  std::uint64_t bytes = 0;   ///< guarded
  GuardCounts counts;
  GuardedError error;
};

/// Starts a process that guards `bytes` of memory and checks at most `bytesPerS` of them a second.
/// `descriptor` gets the recorder's end of a socket of packets. When the recorder shuts down its writing
/// side, the guard ends its walk, makes one more as fast as it can, says so, and ends. It ends at once when
/// this program dies, and ignores the signals that ask a program to end. Throws std::runtime_error if there
/// is no process.
pid_t StartGuardProcess(std::uint64_t bytes, double bytesPerS, int& descriptor);

}  // namespace scope
