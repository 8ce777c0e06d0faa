// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

#include "contents.h"
#include "recorder.h"

/// Checks the results of operations as they pass. What is right is learnt: a copy has to be as its source, a
/// result as what the same source gave before and gives on other threads, a stream as that of the same frame
/// on other channels. Each function is called after an operation that succeeded and took `ns`, on its thread.
namespace scope {

/// Before an operation: a source that was filled with the pattern just now. It has to hold it.
void CheckFilled(ThreadCounters& counters, const Spans& source);

/// A copy of `bytes`.
void CheckCopy(ThreadCounters& counters, const void* destination, const void* source, std::size_t bytes,
               std::uint64_t ns);

/// An operation that makes `results` of `sources`. Equal `kind` and equal sources must give equal results.
void CheckResults(ThreadCounters& counters, const Spans& sources, const Spans& results, std::uint64_t kind,
                  std::uint64_t ns);

/// A frame that an encoder was given. Encoders with equal `settings` and equal frames must make equal
/// streams.
void CheckFrame(ThreadCounters& counters, const Spans& frame, std::uint64_t settings);

/// The stream of frame `number` of an encoder, which was last given `frame`.
void CheckStream(ThreadCounters& counters, const Spans& frame, const Spans& stream, std::uint64_t number,
                 std::uint64_t ns);

/// An operation whose results are in records that only the platform knows.
void LeaveUnchecked(ThreadCounters& counters, std::uint64_t ns);

}  // namespace scope
