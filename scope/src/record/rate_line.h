#pragma once

#include <string>
#include <vector>

#include "run.h"

namespace scope {

/// Reads a rate line ("cpuStress : 431.034483 fps. ispStress : 30.0 fps."), without its line feed. The entry
/// that ends every line, ispStress, is a constant of the benchmark: it must be there and is left out of the
/// result. Throws UserError for a line that is no rate line; what() says at which character, from 1, and what
/// was expected there.
std::vector<Rate> ParseRateLine(const std::string& line, double timeS);

}  // namespace scope
