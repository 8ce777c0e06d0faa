// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <string>

/// Writes files so that what was written is kept. Failures are UserErrors that name the file and the reason.
namespace scope {

/// A new file, which replaces an existing one at once.
class OutputFile {
 public:
  enum class Existing { kReplace, kRefuse };
  /// kRefuse: fails if `path` exists, even as a link that leads nowhere.
  explicit OutputFile(std::string path, Existing existing = Existing::kReplace);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  /// On return, `text` has left this program's buffers. After a failure the next call may succeed.
  void Write(const std::string& text);
  /// On return, all data is on the disk.
  void Close();
  /// The same, without waiting for the disk.
  void CloseUnsynced();

 private:
  [[noreturn]] void Fail(int error) const;

  std::string path_;
  std::FILE* file_;
};

/// kDisk: the data is on the disk when a function returns. kNone: a power cut may lose it.
enum class Durability { kDisk, kNone };

/// Replaces the file's content with `text`, completely or not at all. If the disk is full, the old file
/// stays. Writes to `path`.new first, and follows no link there. Throws UserError.
void ReplaceFile(const std::string& path, const std::string& text, Durability durability = Durability::kDisk);

/// On return, the content of each file in the folder is on the disk. Throws UserError.
void SyncFiles(const std::string& folder);

/// On return, the names in the folder are on the disk. Throws UserError.
void SyncFolder(const std::string& folder);

/// Moves a folder within a file system in one step, which is on the disk on return. Throws UserError.
void MoveFolder(const std::string& from, const std::string& to);

/// The current time in UTC, ISO 8601, in whole seconds.
std::string UtcNow();

/// A folder name of `prefix` and the current time.
std::string TimedFolder(const std::string& prefix);

/// Makes the folder and its parents.
void MakeFolder(const std::string& path);

/// Throws UserError if `path` is a symbolic link.
void RequireNoLink(const std::string& path);

/// True if `path` exists and is not an empty folder.
bool IsTaken(const std::string& path);

}  // namespace scope
