// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "run.h"

/// What commands share that record several runs into one folder.
namespace scope {

/// The copy of the benchmark's configuration in the folder of a series, and in that of each run.
constexpr const char* kSeriesConfig = "config.yaml";

/// Makes the paths of programs and libraries absolute: a series may be continued from another folder.
void MakeAbsolute(RunSettings& settings);

/// The length of one run, in seconds. Throws UserError as ReadConfiguration does.
double RunSeconds(const std::string& config, const RunSettings& settings);

/// Throws UserError if so little of a run is left after the warm-up that there is nothing to compare.
void CheckRunLength(double runS, double warmupS);

}  // namespace scope
