// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "child_process.h"
#include "record.h"

namespace scope {

/// How `program` is started as the benchmark of a run. `preload`: the meter's path; empty: without it.
/// `meterEnd`: the descriptor to which the meter writes.
ChildProcess::Options BenchmarkCommand(const RecordOptions& options, const std::string& program,
                                       const std::string& preload, int meterEnd);

}  // namespace scope
