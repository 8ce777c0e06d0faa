// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

/// Makes engines work a share of the time: their threads sleep between operations.
namespace scope {

/// Reads the share that the environment asks for. False if threads need not sleep. Called once, before main.
bool PrepareDuty();

/// After an operation of this thread that began at `startNs` and took `busyNs`: sleeps, so that operations
/// take the share of the thread's time. If a sleep takes too long, or the program pauses by itself, the next
/// sleeps are shorter.
/// The first sleep of a thread is longer, each by another share: threads do not sleep in step.
void Rest(std::uint64_t startNs, std::uint64_t busyNs);

}  // namespace scope
