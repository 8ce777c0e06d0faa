// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "plan.h"

namespace scope {

/// What the cells of a plan are made of.
struct PlanGrid {
  std::vector<std::string> boards;  ///< empty: any board
  std::vector<SweepAxis> axes;
  std::vector<SettingAxis> settings;
};

/// Parses --boards: names separated by commas. Throws UserError for a name that is given twice or has other
/// characters.
std::vector<std::string> ParseBoards(const std::vector<std::string>& texts);

/// Parses --setting: "refresh=3900,7800". Throws UserError.
std::vector<SettingAxis> ParseSettings(const std::vector<std::string>& texts);

/// The cells of a plan, in the order of recording: each board, point and combination of settings `repeats`
/// times, as PlanRuns orders them. Throws UserError for more than 500,000.
std::vector<PlanCell> PlanCells(const PlanGrid& grid, int repeats, std::uint64_t seed);

/// A sweep as a plan. Its cell N is the N-th run in the order of recording.
Plan PlanOfSweep(const Sweep& sweep, std::string configText);

/// "board1: CPU=1 VENC=2, refresh=7800, repeat 1"; what the cell leaves open is left out.
std::string CellLabel(const PlanCell& cell);

}  // namespace scope
