// SPDX-License-Identifier: Apache-2.0
#include "cell_folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <system_error>
#include <utility>

#include "cell_file.h"
#include "durable_file.h"
#include "errors.h"
#include "folder_file.h"
#include "plan_file.h"
#include "system_files.h"
#include "text_hash.h"

namespace scope {

namespace fs = std::filesystem;

std::vector<int> AttemptsOf(const std::string& root, const std::string& cellFolder) {
  std::set<int> numbers;
  for (const std::string& name : ListFolder(root + "/" + kAttemptsName + "/" + cellFolder)) {
    const bool isNumber =
        !name.empty() && name.size() < 9 && name.find_first_not_of("0123456789") == std::string::npos;
    if (isNumber) numbers.insert(std::atoi(name.c_str()));
  }
  return {numbers.upper_bound(0), numbers.end()};
}

int LastAttempt(const std::string& root, const std::string& cellFolder) {
  const std::vector<int> numbers = AttemptsOf(root, cellFolder);
  return numbers.empty() ? 0 : numbers.back();
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

void CellFolders::PutPlan(const std::string& planPath, const std::string& plan) {
  const std::string path = root_ + "/" + kPlanName;
  RequireNoLink(path);
  std::optional<std::string> there = HashFolderFile(path, kMostJsonBytes);
  if (!there) {
    const std::string text = ReadFolderFile(planPath, kMostJsonBytes).value_or("");
    if (HashOf(text) != plan) throw UserError("the plan " + planPath + " was changed a moment ago");
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
    there = HashFolderFile(path, kMostJsonBytes);
  }
  if (there == plan) return;
  throw UserError(root_ + " has the cells of another plan, " + path + ": choose another folder");
}

std::optional<std::string> CellFolders::Done(const std::string& plan, std::size_t number) const {
  for (int attempt = LastAttempt(root_, cellFolder_); attempt > 0; --attempt) {
    std::string folder = root_ + "/" + AttemptFolder(cellFolder_, attempt);
    if (IsWholeCell(folder, plan, number)) return folder;
  }
  return std::nullopt;
}

std::string MakeAttempt(const std::string& root, const std::string& cellFolder) {
  for (int number = LastAttempt(root, cellFolder) + 1;; ++number) {
    std::string attempt = root + "/" + AttemptFolder(cellFolder, number);
    if (mkdir(attempt.c_str(), 0777) == 0) return attempt;
    if (errno != EEXIST) throw UserError("cannot make the folder " + attempt + ": " + std::strerror(errno));
  }
}

void CellFolders::Discard(const std::string& attempt) {
  std::error_code ignored;
  fs::remove_all(attempt, ignored);
}

void CellFolders::Finish(const std::string& attempt, CellRecord record) {
  SyncFiles(attempt);
  record.files = FilesOf(attempt);
  ReplaceFile(attempt + "/" + kCellName, CellText(record));
  SyncFolder(attempt);
}

bool CellFolders::Publish(const std::string& attempt, const std::string& plan, std::size_t number) {
  std::error_code error;
  const bool isTaken = fs::exists(fs::symlink_status(Final(), error));
  if (isTaken && IsWholeCell(Final(), plan, number)) return false;
  try {
    if (isTaken) {
      MoveFolder(Final(), root_ + "/" + AttemptFolder(cellFolder_, LastAttempt(root_, cellFolder_) + 1));
    }
    MoveFolder(attempt, Final());
  } catch (const UserError&) {
    // A folder is replaced only if it is empty: one of another machine stays.
    if (IsWholeCell(Final(), plan, number)) return false;
    throw;
  }
  RemoveAttemptsIfEmpty();
  return true;
}

void CellFolders::RemoveAttemptsIfEmpty() {
  // Whoever has opened it to lock it finds the cell done.
  (void)rmdir(Attempts().c_str());
}

}  // namespace scope
