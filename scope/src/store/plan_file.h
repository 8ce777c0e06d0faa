// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>

#include "plan.h"

/// The file of a plan (scope/FORMAT-BOARDS.md). It holds all that its cells need on another machine.
namespace scope {

/// The copy of the plan in the folder of its cells.
constexpr const char* kPlanName = "plan.json";

/// The longest name of a board, a setting or its value, in bytes.
constexpr std::size_t kMostNameBytes = 64;

/// The folder of a finished cell: "cell-0001". Numbers begin with 1.
std::string CellFolder(std::size_t number);

/// Throws UserError, which begins with `where`, if `text` cannot be the name of a board or a setting:
/// letters, digits, "_", "-", "+" and "."; not "-" at first. The values of settings may also have "/" and
/// ":".
void RequireBoardName(const std::string& text, const std::string& where);
void RequireSettingName(const std::string& text, const std::string& where);
void RequireSettingValue(const std::string& text, const std::string& where);

/// Throws UserError, which names the file and what was expected.
Plan ReadPlan(const std::string& path);

/// What its cells check and fill, as the plan's file has it; empty if nothing.
std::string ChecksText(const Plan& plan);

/// The text of the plan's file. Throws UserError if it is larger than ReadPlan reads.
std::string PlanFileText(const Plan& plan);

}  // namespace scope
