// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "protocol.h"
#include "recorder.h"

/// Counts the operations that take longer than their engine's deadline.
namespace scope {

/// Reads the deadlines that the environment names. False if it names none. Called once, before main.
bool PrepareDeadlines();

/// Counts an operation of `ns` of the thread that `counters` belong to. Takes no lock and allocates nothing.
void CountDeadline(const ThreadCounters& counters, std::uint64_t ns);

/// The engine's counts so far. `deadlineNs` is 0 if the engine has no deadline. The header is not set.
DeadlinePacket DeadlineCounts(Engine engine);

}  // namespace scope
