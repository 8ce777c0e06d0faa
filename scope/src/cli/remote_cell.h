// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>

#include "cell_runner.h"

namespace scope {

/// Where a cell runs that does not run here.
struct RemoteBoard {
  std::string host;                   ///< as ssh takes it
  std::string sshConfig;              ///< ssh's configuration file; empty: the user's
  std::string bundle;                 ///< tar file of programs to copy there; empty: the board has them
  std::string folder = "stress-lab";  ///< for all of this, there
};

/// Runs the cell on a board that is reached by ssh, unless it is done, and brings what it measured back:
/// otherwise as RunCell, with the programs, the model and the command for the settings on that board. What an
/// earlier try left there comes as well. If the connection ends, an attempt here says so, and what was
/// measured stays there. Throws UserError, with what is wrong, if the run could not begin or be saved there
/// (what was measured is here then, as an attempt), and BoardAway if the board cannot be reached now or
/// another run has it.
CellOutcome RunCellOn(const RemoteBoard& board, const Plan& plan, const PlanCell& cell, std::size_t number,
                      const CellOptions& options, Signals& signals);

}  // namespace scope
