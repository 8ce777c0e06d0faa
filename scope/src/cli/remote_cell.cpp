// SPDX-License-Identifier: Apache-2.0
#include "remote_cell.h"

#include <filesystem>
#include <iostream>
#include <optional>
#include <system_error>
#include <vector>

#include "board_cells.h"
#include "board_shell.h"
#include "cell_file.h"
#include "durable_file.h"
#include "errors.h"
#include "plan_file.h"
#include "printable.h"
#include "run_reader.h"
#include "series.h"
#include "text_format.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

// What a run takes beyond its own time, on a slow board.
constexpr double kSlackS = 300;
constexpr int kInterruptedStatus = 1;
constexpr int kRefusedStatus = 2;

class RemoteCell {
 public:
  RemoteCell(const RemoteBoard& board, const Plan& plan, const PlanCell& cell, std::size_t number,
             const CellOptions& options, CellFolders& folders, Signals& signals)
      : board_(board),
        plan_(plan),
        cell_(cell),
        number_(number),
        options_(options),
        folders_(folders),
        shell_(board.host, board.sshConfig, signals),
        there_(shell_, board.folder, plan.id, signals),
        incoming_(options.root + "/" + kAttemptsName + "/" + cell.folder + "/incoming") {}
  ~RemoteCell() {
    std::error_code ignored;
    fs::remove_all(incoming_, ignored);
    fs::remove(incoming_ + ".tar", ignored);
  }
  RemoteCell(const RemoteCell&) = delete;
  RemoteCell& operator=(const RemoteCell&) = delete;

  CellOutcome Run() {
    const std::string started = UtcNow();
    try {
      there_.Prepare(board_.bundle, options_.root + "/" + kPlanName, PatienceS());
    } catch (const BoardLost& lost) {
      if (lost.IsAway()) throw BoardAway(lost.what());
      throw;
    }
    try {
      const BoardShell::Result result = there_.Run(number_, RemoteOptions(), LimitS());
      ShowErrors(result);
      there_.Fetch(cell_.folder, incoming_);
      const bool isRefused = result.status == kRefusedStatus;
      if (isRefused && !HasBrought()) throw UserError(Reason(result));
      const CellOutcome outcome = Import(started, Reason(result));
      Remove();
      // For example a disk that the run has filled.
      if (isRefused && outcome.state != CellState::kDone)
        throw UserError(outcome.reason + ". What it had measured is in " + options_.root + "/" +
                        kAttemptsName + "/" + cell_.folder);
      return outcome;
    } catch (const BoardLost& lost) {
      CellOutcome outcome =
          Keep(started, std::string(lost.what()) + ". What it has measured is there, in " + board_.folder +
                            "/plan-" + plan_.id + ", and comes here with the next try");
      outcome.isBoardAway = lost.IsAway();
      return outcome;
    }
  }

 private:
  // A message of the stress_scope there, without its name.
  static std::string Message(const std::string& line) {
    const std::string name = "stress_scope: ";
    return line.rfind(name, 0) == 0 ? line.substr(name.size()) : line;
  }

  // What is here is on the disk. What stays there comes once more when the cell is recorded again.
  void Remove() {
    try {
      there_.Remove(cell_.folder);
    } catch (const UserError& error) {
      std::cerr << "stress_scope: " << Printable(error.what()) << std::endl;
    }
  }

  void ShowErrors(const BoardShell::Result& result) const {
    const std::string own =
        "stress_scope: cell " + std::to_string(number_) + " ";  // this program says it, too
    for (const std::string& line : result.errors) {
      if (result.status == kRefusedStatus && &line == &result.errors.back()) continue;
      if (line.rfind(own, 0) != 0) std::cerr << board_.host << ": " << Printable(line) << std::endl;
    }
  }

  std::vector<std::string> RemoteOptions() const {
    std::vector<std::string> options;
    const auto add = [&options](const char* name, const std::string& value) {
      if (!value.empty()) options.insert(options.end(), {name, value});
    };
    add("--board", options_.board);
    add("--model", options_.model);
    add("--apply", options_.apply);
    add("--benchmark", plan_.settings.benchmark);
    add("--meter", plan_.settings.meter);
    add("--sysfs-root", plan_.settings.systemRoot);
    // An earlier try may still run there, if only the connection ended.
    add("--wait", Format("%.0f", PatienceS()));
    return options;
  }

  // How long another run may have the cell or the board.
  double PatienceS() const { return options_.waitS + RunS() + plan_.settings.graceS; }

  double RunS() const {
    const std::string path = incoming_ + ".yaml";
    ReplaceFile(path, plan_.configText, Durability::kNone);
    const double runS = RunSeconds(path, plan_.settings);
    std::error_code ignored;
    fs::remove(path, ignored);
    return runS;
  }

  double LimitS() const { return options_.waitS + 2 * (RunS() + plan_.settings.graceS) + kSlackS; }

  std::string Reason(const BoardShell::Result& result) const {
    if (result.status == kRefusedStatus)
      return board_.host + ": " + (result.errors.empty() ? "refused" : Message(result.errors.back()));
    if (result.stopped) return "interrupted by a signal";
    if (result.late) return board_.host + " had not ended the run after " + Format("%.0f s", LimitS());
    if (result.status > 128)
      return "its recorder on " + board_.host + " was ended by signal " + std::to_string(result.status - 128);
    return result.status > kInterruptedStatus
               ? "its recorder on " + board_.host + " ended with status " + std::to_string(result.status)
               : "";
  }

  bool HasBrought() const {
    return LastAttempt(incoming_, cell_.folder) > 0 || fs::is_directory(incoming_ + "/" + cell_.folder);
  }

  // Moves what came to where it belongs. `reason`: why the run has no end; may be empty.
  CellOutcome Import(const std::string& started, const std::string& reason) {
    std::optional<CellRecord> last;
    std::string lastFolder;
    const int attempts = LastAttempt(incoming_, cell_.folder);
    for (int attempt = 1; attempt <= attempts; ++attempt) {
      const std::string folder = incoming_ + "/" + AttemptFolder(cell_.folder, attempt);
      if (!fs::is_directory(folder)) continue;
      lastFolder = Take(folder);
      last = ReadCell(lastFolder);
    }
    const std::string final = incoming_ + "/" + cell_.folder;
    if (fs::is_directory(final)) {
      const bool isWhole = IsWholeCell(final, plan_.id, number_);
      const std::string attempt = Take(final);
      if (!isWhole) {
        // Otherwise it would be sent with each try.
        Remove();
        throw UserError("what " + board_.host + " sent of " + cell_.folder + " is not complete; see " +
                        attempt);
      }
      fs::remove_all(incoming_);
      return {CellState::kDone, "", folders_.Final(), folders_.Publish(attempt, plan_.id, number_)};
    }
    if (!last || !reason.empty())
      return Keep(started, reason.empty() ? board_.host + " has measured nothing" : reason,
                  FoundIn(last, lastFolder));
    return {last->state, last->reason, lastFolder, true};
  }

  // Makes the folder an attempt, which is on the disk on return.
  std::string Take(const std::string& folder) {
    SyncFiles(folder);
    SyncFolder(folder);
    const std::string attempt = folders_.NewAttempt();
    MoveFolder(folder, attempt);
    return attempt;
  }

  // What the last attempt that was brought has found before it ended.
  static SourceErrors FoundIn(const std::optional<CellRecord>& last, const std::string& folder) {
    if (last && last->errors) return *last->errors;
    return folder.empty() ? SourceErrors() : ReadFoundErrors(folder).counts;
  }

  // An attempt that only says how it ended, and what the run before has found.
  CellOutcome Keep(const std::string& started, const std::string& reason, const SourceErrors& errors = {}) {
    CellRecord record;
    record.plan = plan_.id;
    record.number = number_;
    record.cell = cell_;
    record.board = options_.board;
    record.started = started;
    record.ended = UtcNow();
    record.state = CellState::kInterrupted;
    record.reason = reason;
    record.errors = errors;
    const std::string attempt = folders_.NewAttempt();
    folders_.Finish(attempt, record);
    return {record.state, record.reason, attempt, true};
  }

  const RemoteBoard& board_;
  const Plan& plan_;
  const PlanCell& cell_;
  std::size_t number_;
  const CellOptions& options_;
  CellFolders& folders_;
  BoardShell shell_;
  BoardCells there_;
  std::string incoming_;  // in the locked folder of the attempts
};

}  // namespace

CellOutcome RunCellOn(const RemoteBoard& board, const Plan& plan, const PlanCell& cell, std::size_t number,
                      const CellOptions& options, Signals& signals) {
  RequireHost(board.host);
  RequireThisBoard(cell, number, options);
  CellFolders folders = LockCell(cell, options, signals);
  folders.PutPlan(options.planPath, plan.id);
  if (const auto before = DoneBefore(folders, plan, cell, number, options)) return *before;
  return RemoteCell(board, plan, cell, number, options, folders, signals).Run();
}

}  // namespace scope
