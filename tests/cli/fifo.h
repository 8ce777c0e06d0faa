#pragma once

#include <filesystem>
#include <string>

/// A configuration file that holds its reader up until it is fed: the program stands still at a known place.
class Fifo {
 public:
  /// Throws std::runtime_error when it cannot be made.
  explicit Fifo(std::filesystem::path path);

  /// Waits for a reader to open the file, and leaves it waiting for content as long as the result lives.
  /// Returns a descriptor to close, or -1 when no reader came.
  int WaitForReader() const;
  /// Gives the next reader this content. Returns false when no reader came.
  bool Feed(const std::string& content) const;

 private:
  std::filesystem::path path_;
};
