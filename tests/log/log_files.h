// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace log_test {

/// An empty folder for one test. The destructor removes it with its content.
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
  std::string text;  ///< the text and everything after it
};

/// Returns the file's content; an empty text when there is no such file.
std::string ReadFile(const std::string& path);

/// Splits a text into its lines. Fails the test when the last line has no newline.
std::vector<std::string> SplitLines(const std::string& text);

/// Splits a log line into its columns. Fails the test when the line does not have the form of a log line.
Line ParseLine(const std::string& line);

/// Reads a log file and splits each of its lines into columns.
std::vector<Line> ReadLog(const std::string& path);

}  // namespace log_test
