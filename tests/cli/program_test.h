// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "log_record.h"
#include "program.h"
#include "sanitizers.h"

/// Tests of the real program. Each has an empty directory, which is the program's working directory. What a
/// sanitizer finds changes the exit status to 1, 23 or 66, which no test expects.
class ProgramTest : public testing::Test {
 protected:
  /// Writes a file in the directory. Returns its name, which is its path as seen by the program.
  std::string Write(const std::string& name, const std::string& content) const;
  /// Returns the content of a file of the directory; an empty text when there is no such file.
  std::string Read(const std::string& name) const;
  bool Exists(const std::string& name) const;
  /// Returns the paths of all files and folders in the directory, sorted.
  std::vector<std::string> Files() const;
  const std::filesystem::path& Directory() const { return directory_.Path(); }

  /// Returns how to start the program in the directory.
  Launch With(std::vector<std::string> arguments) const;
  /// Writes a configuration and returns how to start the program with it.
  Launch Configured(const std::string& configuration) const;

  /// Runs the program until it ends.
  static Ending Run(Launch launch);
  /// Runs the program until it has written `lines` lines to standard output, then ends it with SIGINT.
  static Ending RunLines(Launch launch, int lines = 1);

  /// Changes `launch` so that the program runs as another user. No other process runs as that user, who may
  /// read the directory but not write to it. Returns false when that is not possible: the test does not run
  /// as root, or the user cannot start the program.
  bool RunAsAnother(Launch& launch) const;

  std::vector<LogRecord> LogFile() const { return ParseLog(Read("log/STBM.log")); }

 private:
  TemporaryDirectory directory_;
};

/// Returns the rates of one line by stress name, as they are printed. Fails the test when the line does not
/// have exactly the form of a rate line.
std::map<std::string, std::string> Rates(const std::string& line);

/// Fails the test for each line that is not a rate line of exactly these stresses.
void ExpectRateLines(const std::vector<std::string>& lines, const std::vector<std::string>& stresses);

/// The log record of a SIGINT.
inline constexpr char kSignal[] =
    "DEBUG SignalHandler() | ===== Signal Interactive attention received. signal: 2 stopFlag_: 1 =====";

/// The program has ended by itself with that exit status.
MATCHER_P(Exited, expected, "") {
  return !arg.hung && arg.status == expected;
}

/// That signal has ended the program.
MATCHER_P(KilledBy, expected, "") {
  return !arg.hung && arg.signal == expected;
}

using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::UnorderedElementsAre;
