// SPDX-License-Identifier: Apache-2.0
#include "cell_folder.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "cell_file.h"
#include "durable_file.h"
#include "errors.h"
#include "folder_file.h"
#include "plan_file.h"
#include "run_reader.h"
#include "system_files.h"

namespace scope {

namespace fs = std::filesystem;

int LastAttempt(const std::string& root, const std::string& cellFolder) {
  int last = 0;
  for (const std::string& name : ListFolder(root + "/" + kAttemptsName + "/" + cellFolder)) {
    const bool isNumber =
        !name.empty() && name.size() < 9 && name.find_first_not_of("0123456789") == std::string::npos;
    if (isNumber) last = std::max(last, std::atoi(name.c_str()));
  }
  return last;
}

std::string AttemptFolder(const std::string& cellFolder, int number) {
  return std::string(kAttemptsName) + "/" + cellFolder + "/" + std::to_string(number);
}

CellFolders::CellFolders(std::string root, std::string cellFolder)
    : root_(std::move(root)), cellFolder_(std::move(cellFolder)) {
  // The folder may come from elsewhere: nothing is written or moved through a link.
  RequireNoLink(root_ + "/" + kAttemptsName);
  RequireNoLink(Attempts());
  RequireNoLink(Final());
  for (int tries = 1; lock_ == nullptr; ++tries) {
    MakeFolder(Attempts());
    try {
      lock_ = std::make_unique<FolderLock>(Attempts());
    } catch (const UserError&) {
      // Gone between the two calls: another runner has just finished the cell.
      if (tries == 3 || fs::exists(Attempts())) throw;
    }
  }
}

void CellFolders::PutPlan(const std::string& text) {
  const std::string path = root_ + "/" + kPlanName;
  RequireNoLink(path);
  std::optional<std::string> there = ReadFolderFile(path, kMostJsonBytes);
  if (!there) {
    // Many runners may begin at once: each writes a file of its own, and the first one stays.
    const std::string own = Attempts() + "/" + kPlanName;
    ReplaceFile(own, text);
    const bool linked = link(own.c_str(), path.c_str()) == 0 || errno == EEXIST;
    // Without links, on some file systems of memory cards, the last one stays.
    if (!linked && std::rename(own.c_str(), path.c_str()) != 0) {
      throw UserError("cannot write " + path + ": " + std::strerror(errno));
    }
    (void)std::remove(own.c_str());
    SyncFolder(root_);
    there = ReadFolderFile(path, kMostJsonBytes);
  }
  if (there == text) return;
  throw UserError(root_ + " has the cells of another plan, " + path + ": choose another folder");
}

std::optional<std::string> CellFolders::Done(const std::string& plan) const {
  for (int number = LastAttempt(root_, cellFolder_); number > 0; --number) {
    const std::string attempt = root_ + "/" + AttemptFolder(cellFolder_, number);
    try {
      const std::optional<CellRecord> record = ReadCell(attempt);
      const bool isDone = record && record->plan == plan && record->state == CellState::kDone;
      if (isDone && ReadRunInfo(attempt).complete) return attempt;
    } catch (const UserError&) {
      // An attempt that cannot be read is kept as it is.
    }
  }
  return std::nullopt;
}

std::string CellFolders::NewAttempt() {
  const std::string attempt = root_ + "/" + AttemptFolder(cellFolder_, LastAttempt(root_, cellFolder_) + 1);
  MakeFolder(attempt);
  return attempt;
}

void CellFolders::Discard(const std::string& attempt) {
  std::error_code ignored;
  fs::remove_all(attempt, ignored);
}

void CellFolders::Finish(const std::string& attempt, const CellRecord& record) {
  SyncFiles(attempt);
  ReplaceFile(attempt + "/" + kCellName, CellText(record));
  SyncFolder(attempt);
}

void CellFolders::Publish(const std::string& attempt) {
  std::error_code error;
  if (fs::exists(fs::symlink_status(Final(), error))) {
    MoveFolder(Final(), root_ + "/" + AttemptFolder(cellFolder_, LastAttempt(root_, cellFolder_) + 1));
  }
  MoveFolder(attempt, Final());
  RemoveAttemptsIfEmpty();
}

void CellFolders::RemoveAttemptsIfEmpty() {
  // Whoever has opened it to lock it finds the cell done.
  (void)rmdir(Attempts().c_str());
}

}  // namespace scope
