// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "folder_lock.h"
#include "plan.h"

/// Where a cell is recorded, in the folder `root` of all cells. An attempt is recorded in
/// `root`/attempts/CELL/1, 2, ... The one that is done becomes `root`/CELL in one step. The others stay.
namespace scope {

constexpr const char* kAttemptsName = "attempts";

/// What a job scheduler's jobs wrote: `root`/logs/CELL.log. The scope only reads it.
constexpr const char* kLogsName = "logs";

/// The numbers of the attempts in `root`, from the first one on.
std::vector<int> AttemptsOf(const std::string& root, const std::string& cellFolder);

/// The number of the last one; 0 if there is none.
int LastAttempt(const std::string& root, const std::string& cellFolder);

/// "attempts/cell-0001/2", within the folder of all cells.
std::string AttemptFolder(const std::string& cellFolder, int number);

/// Makes the folder of a new attempt and returns it. No other caller gets the same one, also where locks do
/// not hold, between machines. Throws UserError.
std::string MakeAttempt(const std::string& root, const std::string& cellFolder);

/// Keeps other runners of this machine away from a cell while it exists, and moves its folders. Every
/// operation throws UserError if the file system fails. Threads: one.
class CellFolders {
 public:
  /// Makes the folder of the attempts and locks it. Throws FolderInUse, which names the process that has the
  /// cell, if another runner has it, and UserError if one of the folders is a link.
  CellFolders(std::string root, std::string cellFolder);
  /// The folder of the cell when it is done.
  std::string Final() const { return root_ + "/" + cellFolder_; }

  /// Copies the file `planPath`, whose Plan::id is `plan`, to `root`/plan.json. Throws UserError if there is
  /// another one: these are the cells of another plan.
  void PutPlan(const std::string& planPath, const std::string& plan);

  /// An attempt that holds the complete run of this cell, but was not moved into place because its recorder
  /// was killed. None if there is none.
  std::optional<std::string> Done(const std::string& plan, std::size_t number) const;

  /// Makes the folder of a new attempt at this cell, as MakeAttempt does.
  std::string NewAttempt() { return MakeAttempt(root_, cellFolder_); }

  /// Removes an attempt in which nothing was recorded.
  void Discard(const std::string& attempt);

  /// Writes cell.json into `attempt` when everything else in it is on the disk.
  void Finish(const std::string& attempt, CellRecord record);

  /// Makes the finished `attempt` the folder of the cell, in one step that is on the disk when this returns.
  /// A folder that is there and not complete becomes an attempt. If it is complete, because another machine
  /// has recorded the cell meanwhile, it stays, and so does the attempt; false is returned. Calls
  /// RemoveAttemptsIfEmpty.
  bool Publish(const std::string& attempt, const std::string& plan, std::size_t number);

  /// Removes the folder of the attempts if it is empty. Only when the cell is done: what was locked
  /// is gone, and a runner that comes later locks a new folder.
  void RemoveAttemptsIfEmpty();

 private:
  std::string Attempts() const { return root_ + "/" + kAttemptsName + "/" + cellFolder_; }

  std::string root_;
  std::string cellFolder_;
  std::unique_ptr<FolderLock> lock_;
};

}  // namespace scope
