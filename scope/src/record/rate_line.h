// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "run.h"

namespace scope {

/// Reads a rate line ("cpuStress : 431.034483 fps. ispStress : 30.0 fps."), without its line feed. Every line
/// must end with the entry ispStress. It is a constant of the benchmark, and the result leaves it out. Throws
/// UserError for any other line; what() says what was expected and at which character, counted from 1.
std::vector<Rate> ParseRateLine(const std::string& line, double timeS);

}  // namespace scope
