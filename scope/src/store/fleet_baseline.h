// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "fleet.h"

/// The file that keeps what the boards of a fleet did (scope/FORMAT-BOARDS.md).
namespace scope {

/// Throws UserError, which names the file and what was expected.
FleetHistory ReadBaseline(const std::string& path);

/// Replaces the file as a whole. Throws UserError, also if it would be larger than ReadBaseline reads.
void WriteBaseline(const std::string& path, const FleetHistory& history);

}  // namespace scope
