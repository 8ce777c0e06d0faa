// SPDX-License-Identifier: Apache-2.0
#include "durable_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <system_error>
#include <utility>

#include "errors.h"

namespace scope {

namespace fs = std::filesystem;

namespace {

// Why `path` was not written, and what to do where that is known.
[[noreturn]] void FailToWrite(const std::string& path, int error) {
  const bool isFull = error == ENOSPC || error == EDQUOT;
  throw UserError("cannot write " + path + ": " + std::strerror(error) +
                  (isFull ? "; free some space, or choose a folder on another disk" : ""));
}

void SyncPath(const std::string& path, int flags) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | flags);
  // EINVAL: this file system, or a device, has no fsync.
  const bool saved = descriptor >= 0 && (fsync(descriptor) == 0 || errno == EINVAL);
  const int error = errno;
  if (descriptor >= 0) (void)close(descriptor);
  if (!saved) FailToWrite(path, error);
}

}  // namespace

OutputFile::OutputFile(std::string path, Existing existing)
    : path_(std::move(path)),
      file_(std::fopen(path_.c_str(), existing == Existing::kReplace ? "we" : "wxe")) {
  if (file_ == nullptr) Fail(errno);
}

OutputFile::~OutputFile() {
  if (file_ != nullptr) (void)std::fclose(file_);
}

void OutputFile::Write(const std::string& text) {
  errno = 0;
  if (std::fwrite(text.data(), 1, text.size(), file_) != text.size() || std::fflush(file_) != 0) {
    const int error = errno;
    // Without this the stream stays in its error state.
    std::clearerr(file_);
    Fail(error);
  }
}

void OutputFile::Close() {
  errno = 0;
  // EINVAL: this file system has no fsync.
  const bool saved = fsync(fileno(file_)) == 0 || errno == EINVAL;
  const int error = errno;
  CloseUnsynced();
  if (!saved) Fail(error);
}

void OutputFile::CloseUnsynced() {
  std::FILE* const file = std::exchange(file_, nullptr);
  errno = 0;
  if (std::fclose(file) != 0) Fail(errno);
}

void OutputFile::Fail(int error) const {
  FailToWrite(path_, error);
}

void ReplaceFile(const std::string& path, const std::string& text, Durability durability) {
  const std::string next = path + ".new";
  (void)std::remove(next.c_str());  // of a program that was killed here
  try {
    OutputFile file(next, OutputFile::Existing::kRefuse);
    file.Write(text);
    if (durability == Durability::kDisk) {
      file.Close();
    } else {
      file.CloseUnsynced();
    }
    if (std::rename(next.c_str(), path.c_str()) != 0) FailToWrite(path, errno);
  } catch (const UserError&) {
    (void)std::remove(next.c_str());
    throw;
  }
}

void SyncFiles(const std::string& folder) {
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    std::error_code ignored;
    if (entry->is_regular_file(ignored) && !entry->is_symlink(ignored)) SyncPath(entry->path().string(), 0);
  }
  if (error) throw UserError("cannot read the folder " + folder + ": " + error.message());
}

void SyncFolder(const std::string& folder) {
  SyncPath(folder, O_DIRECTORY);
}

void MoveFolder(const std::string& from, const std::string& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0) {
    throw UserError("cannot move " + from + " to " + to + ": " + std::strerror(errno));
  }
  for (const std::string& path : {from, to}) SyncFolder(fs::path(path).parent_path().string());
}

std::string UtcNow() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  (void)gmtime_r(&now, &parts);
  std::array<char, 32> text{};
  (void)std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text.data();
}

std::string TimedFolder(const std::string& prefix) {
  std::string time = UtcNow();
  time.erase(std::remove(time.begin(), time.end(), ':'), time.end());
  return prefix + time;
}

void MakeFolder(const std::string& path) {
  std::error_code error;
  fs::create_directories(path, error);
  if (error)
    throw UserError("cannot make the folder " + path + ": " + error.message() + ". Choose another one.");
}

void RequireNoLink(const std::string& path) {
  std::error_code error;
  if (!fs::is_symlink(fs::symlink_status(path, error))) return;
  throw UserError(path + " is a link, and is not followed: replace it by what it leads to");
}

bool IsTaken(const std::string& path) {
  std::error_code error;
  return fs::exists(path, error) && (!fs::is_directory(path, error) || !fs::is_empty(path, error));
}

}  // namespace scope
