// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "folder_lock.h"
#include "plan.h"

/// Where a cell is recorded, in the folder `root` of all cells. An attempt is recorded in
/// `root`/attempts/CELL/1, 2, ... The one that is done becomes `root`/CELL in one step. The others stay.
namespace scope {

constexpr const char* kAttemptsName = "attempts";

/// The number of the last attempt in `root`; 0 if there is none.
int LastAttempt(const std::string& root, const std::string& cellFolder);

/// "attempts/cell-0001/2", within the folder of all cells.
std::string AttemptFolder(const std::string& cellFolder, int number);

/// Keeps other runners away from a cell while it exists, and moves its folders. Every operation throws
/// UserError if the file system fails. Threads: one.
class CellFolders {
 public:
  /// Makes the folder of the attempts and locks it. Throws UserError, which names the process that has the
  /// cell, if another runner has it, and if one of the folders is a link.
  CellFolders(std::string root, std::string cellFolder);
  /// The folder of the cell when it is done.
  std::string Final() const { return root_ + "/" + cellFolder_; }

  /// Makes `root`/plan.json with this text. Throws UserError if there is one with another text: these are the
  /// cells of another plan.
  void PutPlan(const std::string& text);

  /// An attempt of the plan with the id `plan` that is done, but was not moved into place because its
  /// recorder was killed. None if there is none.
  std::optional<std::string> Done(const std::string& plan) const;

  /// Makes the folder of a new attempt and returns it.
  std::string NewAttempt();

  /// Removes an attempt in which nothing was recorded.
  void Discard(const std::string& attempt);

  /// Writes cell.json into `attempt` when everything else in it is on the disk.
  void Finish(const std::string& attempt, const CellRecord& record);

  /// Makes the finished `attempt` the folder of the cell, in one step that is on the disk when this returns.
  /// What is there already becomes an attempt. Calls RemoveAttemptsIfEmpty.
  void Publish(const std::string& attempt);

  /// Removes the folder of the attempts if there is none in it. Only when the cell is done: what was locked
  /// is gone, and a runner that comes later locks a new folder.
  void RemoveAttemptsIfEmpty();

 private:
  std::string Attempts() const { return root_ + "/" + kAttemptsName + "/" + cellFolder_; }

  std::string root_;
  std::string cellFolder_;
  std::unique_ptr<FolderLock> lock_;
};

}  // namespace scope
