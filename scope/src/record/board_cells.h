// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "board_shell.h"

namespace scope {

/// The cells of one plan on a board that is reached by ssh. They lie there in a folder `folder`:
/// bundle-SUM, the unpacked tar file of programs with this sum; plan-ID, the plan and its cells, as in any
/// folder of cells. Whoever changes or runs the programs, or brings cells back, has the folder `folder` for
/// itself there. Every operation throws UserError, with what is wrong on which board, BoardLost, and
/// BoardAway, also if another one has the folder.
/// Threads: one.
class BoardCells {
 public:
  /// `folder`: from the home folder there, or from the root folder. `plan`: Plan::id.
  BoardCells(BoardShell& shell, std::string folder, std::string plan, Signals& signals)
      : shell_(shell), folder_(std::move(folder)), plan_(std::move(plan)), signals_(signals) {}

  /// Makes sure that the board has what the tar file `bundle` holds (scripts/bundle makes one), checked by
  /// sums, and the plan of the file `planPath`. Copies what is missing or damaged. Empty `bundle`: the board
  /// has its own stress_scope. `patienceS`: how long each operation waits for another one that has the
  /// folder.
  void Prepare(const std::string& bundle, const std::string& planPath, double patienceS);

  /// Runs `stress_scope cell` on the board for this cell, with `options` added. Ends it after `limitS`, and
  /// when a signal comes; it then has the time that it needs to save.
  BoardShell::Result Run(std::size_t number, const std::vector<std::string>& options, double limitS);

  /// Copies the folder of the cell and those of its attempts into the new folder `to`. Afterwards `to` holds
  /// only folders and regular files.
  void Fetch(const std::string& cellFolder, const std::string& to);

  /// Removes there what Fetch has copied, and no attempt that came since.
  void Remove(const std::string& cellFolder);

 private:
  std::string Locked(const char* script) const;
  void ThrowIfBusy(const BoardShell::Result& result) const;
  BoardShell::Result Do(const char* what, BoardShell::Script script);
  void PutBundle(const std::string& bundle);

  BoardShell& shell_;
  std::string folder_;
  std::string plan_;
  std::string sum_;  ///< of the bundle; empty: none
  Signals& signals_;
  long patienceS_ = 0;
  std::vector<std::string> fetched_;  ///< folders of the cell there
};

}  // namespace scope
