// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "sweep.h"

/// sweep.json: what a sweep records and how much of it is done (scope/FORMAT.md).
namespace scope {

constexpr const char* kSweepName = "sweep.json";

bool IsSweepFolder(const std::string& folder);
/// Throws UserError, which names the file and what was expected.
Sweep ReadSweep(const std::string& folder);
/// Replaces sweep.json as a whole. Throws UserError.
void WriteSweep(const std::string& folder, const Sweep& sweep);

}  // namespace scope
