// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>

/// A configuration file that is a pipe. Its reader waits for the content, so a test can stop the program
/// where it reads the file.
class Fifo {
 public:
  /// Throws std::runtime_error when it cannot be made.
  explicit Fifo(std::filesystem::path path);

  /// Waits until a reader has opened the file. The reader waits for content until the returned descriptor is
  /// closed. Returns -1 when no reader came.
  int WaitForReader() const;
  /// Waits for a reader and gives it this content. Returns false when no reader came.
  bool Feed(const std::string& content) const;

 private:
  std::filesystem::path path_;
};
