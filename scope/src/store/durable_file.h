#pragma once

#include <cstdio>
#include <string>

/// Writing files so that what was written is kept. Failures are UserErrors that name the file and the reason.
namespace scope {

/// A file that is written anew.
class OutputFile {
 public:
  explicit OutputFile(std::string path);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  /// When it returns, `text` is in the file, not in this program alone. After a failure the next call may
  /// succeed.
  void Write(const std::string& text);
  /// When it returns, everything is on the disk.
  void Close();

 private:
  [[noreturn]] void Fail(int error) const;

  std::string path_;
  std::FILE* file_;
};

/// Puts `text` in the place of the file as a whole or not at all: where the disk is full, the file that was
/// there stays. Throws UserError.
void ReplaceFile(const std::string& path, const std::string& text);

/// Makes the folder and its parents.
void MakeFolder(const std::string& path);

/// True where `path` is there and is something else than an empty folder.
bool IsTaken(const std::string& path);

}  // namespace scope
