#pragma once

#include <string>

#include "sweep.h"

/// sweep.json, which says what a sweep records and how far it has come (scope/FORMAT.md).
namespace scope {

bool IsSweepFolder(const std::string& folder);
/// Throws UserError, with the file and what was expected there.
Sweep ReadSweep(const std::string& folder);
/// Replaces sweep.json as a whole. Throws UserError.
void WriteSweep(const std::string& folder, const Sweep& sweep);

}  // namespace scope
