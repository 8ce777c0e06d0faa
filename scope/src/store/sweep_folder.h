// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "sweep.h"

/// sweep.json: what a sweep records and how much of it is done (scope/FORMAT.md).
namespace scope {

constexpr const char* kSweepName = "sweep.json";
/// The copy that KeepSweep makes; it is in the folder while a run over settings is recorded.
constexpr const char* kKeptSweepName = "sweep.json.before";

bool IsSweepFolder(const std::string& folder);
/// Throws UserError, which names the file and what was expected.
Sweep ReadSweep(const std::string& folder);
/// Replaces sweep.json as a whole. Throws UserError.
void WriteSweep(const std::string& folder, const Sweep& sweep);

/// Keeps `sweep` beside sweep.json, for TakeBackSweep. Throws UserError.
void KeepSweep(const std::string& folder, const Sweep& sweep);
/// Makes what was kept sweep.json again. That needs no room on the disk. Throws UserError.
void TakeBackSweep(const std::string& folder);
/// Removes what was kept, if there is something.
void DropKeptSweep(const std::string& folder);

}  // namespace scope
