// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

#include "protocol.h"
#include "words.h"

/// Fills the sources of operations with a pattern. Every buffer gets the same bytes, from its start on, so
/// that threads whose sources have one size have the same source.
namespace scope {

/// Prepares the pattern that the environment names. False if it names none, or there is no memory for it.
/// Called once, before main.
bool PrepareFill();

/// Fills `bytes` at `source`, of an operation of `engine`, when this is seen for the first time. Leaves
/// memory alone that cannot be written, or that an operation has written: there a result would be lost.
/// Threads: any; only the thread whose operation reads the source may call. True if this call has filled it.
bool FillSource(Engine engine, const void* source, std::size_t bytes);

/// Compares filled memory with the pattern, past the caches. Memory that an operation writes holds what it
/// has to.
bool HoldsPattern(Span filled, Difference& difference);

/// Remembers that an operation writes here.
void NoteDestination(const void* destination, std::size_t bytes);

/// The engine's counts so far: a buffer that two engines read counts for both. The header is not set.
FillPacket FillCounts(Engine engine);

}  // namespace scope
