// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "run.h"

namespace scope {

/// The largest number of different engines, and of different stresses. Work on a run grows with this number
/// times that of its rows.
constexpr std::size_t kMostEngines = 64;

// Both throw DamagedFolder, which names file and line, and says what was expected.

/// Checks that the rows that were read can be rows of a run:
/// - Engines and stresses have short names, and there are not too many of them.
/// - The rows of a thread, and those of an engine, are one a second: numbers rise, and times do not go back.
/// - Latencies are in order, not longer than the run, and 0 without operations.
void CheckRows(const Run& run);

/// Checks that the histogram has each thread's operations, and the rows of each engine those of its threads,
/// no more and no less. Only for a complete run without missing rows.
void CheckTotals(const Run& run);

}  // namespace scope
