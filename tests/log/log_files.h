#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace log_test {

/// A folder of its own for one test, removed with what is in it.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  std::string File(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

/// The columns of a log line.
struct Line {
  std::string time;
  std::string level;
  std::string appId;
  std::string contextId;
  std::string threadId;
  std::string text;  ///< with what follows it
};

/// The file's content; empty when there is no such file.
std::string ReadFile(const std::string& path);

/// The text's lines; a last line without its newline is a failure of the test.
std::vector<std::string> SplitLines(const std::string& text);

/// Takes a line apart; a line that is not shaped like one is a failure of the test.
Line ParseLine(const std::string& line);

/// SplitLines and ParseLine of a file.
std::vector<Line> ReadLog(const std::string& path);

}  // namespace log_test
