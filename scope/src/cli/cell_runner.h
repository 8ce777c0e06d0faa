// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "cell_folder.h"
#include "live_figures.h"
#include "plan.h"
#include "signals.h"

namespace scope {

/// How a cell of a plan is run here. The programs are those of Plan::settings.
struct CellOptions {
  std::string root;         ///< the folder of the cells
  std::string board;        ///< the name of this board; may be empty
  std::string model;        ///< in place of the model that the plan names; empty: that one
  std::string apply;        ///< shell command that makes the cell's settings of the board
  std::string planPath;     ///< the plan's file, which `root` gets a copy of; empty: none
  bool showsApply = false;  ///< the output of `apply` goes to standard error
  double waitS = 0;         ///< seconds to wait until another process has finished the cell
  bool warns = true;        ///< print a warning if the cell is damaged and has to be recorded again
};

/// The shell command that makes `settings`: `command` with NAME=VALUE for each of them.
std::string ApplyCommand(const std::string& command, const BoardSettings& settings);

/// Throws UserError if the cell is for another board than `options.board`, or has settings of the board and
/// `options.apply` makes none.
void RequireThisBoard(const PlanCell& cell, std::size_t number, const CellOptions& options);

struct CellOutcome {
  CellState state = CellState::kFailed;  ///< kDone, kFailed or kInterrupted
  std::string reason;                    ///< why it is not done
  std::string folder;                    ///< of the run
  bool isNew = true;                     ///< false: the cell was done before, and nothing was recorded
  bool isHung = false;                   ///< it failed because something did not end
  bool isBoardAway = false;              ///< it is not done because the board can no longer be reached
  bool isRecorderFault = false;          ///< it failed because the recorder did, not the board
  bool isStuck = false;  ///< what ran does not end, even after SIGKILL: it disturbs what follows
};

/// The state of a run with this outcome.
SweepState StateAfter(const CellOutcome& outcome);

/// Which errors the run of this folder has found, as in "2 errors (edac 2)"; empty if there are none. Also of
/// a run that was cut off. Prints what cannot be read.
std::string ErrorsFoundIn(const std::string& runFolder);

/// `reason`, why the run in `folder` failed, after the errors that it has found.
std::string WithErrors(const std::string& reason, const std::string& folder);

/// True if the cell's run has found errors. Of a cell in another state than kDone: the last attempt at it.
bool HasErrors(const std::string& root, const std::string& cellFolder, SweepState state);

/// True if the cell's folder holds its complete recording. If that is damaged and `warns`, prints a warning.
bool IsCellDone(const std::string& root, const std::string& plan, const PlanCell& cell, std::size_t number,
                bool warns);

/// Locks the cell in `options.root`, as CellFolders. Waits up to `options.waitS` for another runner's end.
/// Throws UserError if a signal came meanwhile.
CellFolders LockCell(const PlanCell& cell, const CellOptions& options, Signals& signals);

/// If the cell was done before: its outcome. A complete attempt that was not moved into place is moved there.
std::optional<CellOutcome> DoneBefore(CellFolders& folders, const Plan& plan, const PlanCell& cell,
                                      std::size_t number, const CellOptions& options);

/// Runs the cell with this number, from 1, unless it is done. Its folder appears in one step, when everything
/// in it is on the disk. `plan` needs no cells: many would take memory that is to be measured. An attempt
/// that fails or is interrupted is kept beside it. Throws UserError for a cell that another runner has, that
/// is for another board, or that lacks something on this machine, before anything runs; and if the result
/// cannot be saved.
CellOutcome RunCell(const Plan& plan, const PlanCell& cell, std::size_t number, const CellOptions& options,
                    View& view, Signals& signals);

}  // namespace scope
