// SPDX-License-Identifier: Apache-2.0
#pragma once

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

/// The work of the guard's process, which has `socket`: guards `bytes` of memory and checks at most
/// `bytesPerS` of them a second. When the recorder sends nothing more, it ends its walk, makes one more as
/// fast as it can, says so, and returns.
void RunGuard(int socket, std::uint64_t bytes, double bytesPerS);

}  // namespace scope
