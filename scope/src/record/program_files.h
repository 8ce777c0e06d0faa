// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace scope {

/// The path of the benchmark: `given`, or if that is empty stress_benchmark beside this program. Throws
/// UserError if it cannot be run.
std::string FindBenchmark(const std::string& given);

/// The absolute path of the meter: `given`, or if that is empty libstress_scope.so in the lib folder beside
/// this program's. Throws UserError if it cannot be read.
std::string FindMeter(const std::string& given);

}  // namespace scope
