// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "run.h"

/// What the benchmark logs.
namespace scope {

/// The error records in the benchmark's log, and what the platform says of itself there. It knows the format
/// of this project's log. Lines of another format are no records.
class BenchmarkLog {
 public:
  struct Error {
    std::string thread;  ///< the number of the thread that logged it
    std::string text;    ///< the record without time, level and names
  };

  /// `line` has no line feed.
  void Add(const std::string& line);

  /// The first errors, in their order. A failure of an operation is among the first of its thread.
  const std::vector<Error>& Errors() const { return errors_; }

  /// What the log says about a benchmark that failed: the first error, or the last line that is no record,
  /// which the C++ library writes when a program aborts. Empty if there is neither.
  std::string WhyItFailed() const;

  /// The settings of this project's platform by name. Empty if they are not in the log: another platform, or
  /// a level that leaves them out.
  const std::vector<std::pair<std::string, std::string>>& PlatformSettings() const { return settings_; }

  /// The engine of each of the encoder's channels. Empty like the settings.
  std::vector<std::pair<std::string, std::string>> EncoderEngines() const;

 private:
  void AddSettings(std::string_view text);
  void AddEncoder(std::string_view text);

  std::vector<Error> errors_;
  std::vector<std::pair<std::string, std::string>> settings_;
  std::map<unsigned long, std::string> encoders_;  ///< by channel
  std::string lastOther_;
};

/// The log file that the benchmark writes in the current folder.
class LogFile {
 public:
  /// Remembers where the file ends now.
  LogFile();

  /// What was added to the file since then, at most some megabytes. Empty if the benchmark wrote no file.
  std::string Added() const;

 private:
  std::uint64_t inode_ = 0;
  std::uint64_t size_ = 0;
};

/// True if the benchmark logs to its file and not to standard error.
bool LogsToFileOnly(const Configuration& config);

}  // namespace scope
