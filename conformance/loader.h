// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "check.h"

// Only for a check's own process: loading the checks loads the platform under test.
namespace conformance {

/// Loads the checks and leaves what ConformanceDescribe says as the result.
int DescribeHere();

/// Loads the checks and runs the one of that name, as ConformanceRun does.
int RunHere(const std::string& name, const Settings& settings);

}  // namespace conformance
