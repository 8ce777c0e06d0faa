// SPDX-License-Identifier: Apache-2.0
#include "folder_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace scope {
namespace {

namespace fs = std::filesystem;

bool HasLock(const fs::path& process, const std::string& descriptor) {
  std::ifstream info(process / "fdinfo" / descriptor);
  for (std::string line; std::getline(info, line);) {
    if (line.find("FLOCK") != std::string::npos) return true;
  }
  return false;
}

// The number of the process that has the lock on the folder; empty if this user may not see it.
std::string Holder(const struct stat& folder) {
  std::error_code error;
  for (fs::directory_iterator process("/proc", error), end; !error && process != end;
       process.increment(error)) {
    const std::string id = process->path().filename();
    if (id.find_first_not_of("0123456789") != std::string::npos) continue;
    std::error_code ignored;
    for (fs::directory_iterator at(process->path() / "fd", ignored); !ignored && at != end;
         at.increment(ignored)) {
      struct stat status{};
      if (stat(at->path().c_str(), &status) != 0) continue;
      if (status.st_dev != folder.st_dev || status.st_ino != folder.st_ino) continue;
      if (HasLock(process->path(), at->path().filename())) return id;
    }
  }
  return "";
}

}  // namespace

FolderLock::FolderLock(const std::string& folder)
    : folder_(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (folder_ < 0) throw UserError("cannot open the folder " + folder + ": " + std::strerror(errno));
  // Other failures mean that this file system has no locks.
  if (flock(folder_, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) return;
  struct stat status{};
  const std::string holder = fstat(folder_, &status) == 0 ? Holder(status) : "";
  (void)close(folder_);
  throw FolderInUse(folder + " is in use: another stress_scope records into it" +
                    (holder.empty() ? "" : ", process " + holder) +
                    ". Wait for its end, or choose another folder");
}

FolderLock::~FolderLock() {
  (void)close(folder_);
}

}  // namespace scope
