// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "plan.h"

namespace scope {

/// How closely a cell that says that it is done is looked at.
enum class CellCheck {
  kRecord,  ///< its cell.json
  kFiles    ///< also the sizes of its other files
};

/// How many cells have found errors, in their run or in an attempt before it.
std::size_t CountWithErrors(const std::vector<CellStatus>& cells);

/// True if its run, or an attempt before it, has found errors.
bool HasFoundErrors(const CellStatus& cell);

/// "done, with 2 errors (edac 2)".
std::string StateText(const CellStatus& cell);

/// "; an earlier attempt found 1 error (edac 1)"; empty if none did.
std::string EarlierText(const CellStatus& cell);

/// What is in the folder `root` for the cell with this number, from 1, of the plan with the id `plan`. For a
/// cell that is not done, also run.json of its last attempt is read, or the log of its job. Of attempts, what
/// their runs have found is read. Sets `record`, if
/// it is not null, to that of a cell that is done.
CellStatus StatusOf(const std::string& root, const std::string& plan, const PlanCell& cell,
                    std::size_t number, CellCheck check = CellCheck::kFiles, CellRecord* record = nullptr);

/// The same for every cell, in the order of the plan. The time is proportional to the number of cells.
std::vector<CellStatus> Collect(const std::string& root, const Plan& plan);

/// How many cells are in a state.
std::size_t CountOf(const std::vector<CellStatus>& cells, CellState state);

/// The numbers of the cells that are not done, as job schedulers take them: "2,5-9". Empty if all are done.
std::string NumbersToRun(const std::vector<CellStatus>& cells);

/// The same for each board, a line each: its name, or "-" for the cells of any board, and the numbers. If
/// `onlyLost`, without the cells that failed or are damaged: those that were not begun, or that ended because
/// a recorder or a machine did.
std::string NumbersToRunByBoard(const Plan& plan, const std::vector<CellStatus>& cells, bool onlyLost);

}  // namespace scope
