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

/// Tests of the real program in a directory of their own, which is its working directory. Exit statuses also
/// tell of the sanitizers: what they find makes it another one, 1, 23 or 66, and no test expects those.
class ProgramTest : public testing::Test {
 protected:
  /// Writes a file into the directory; returns its name, which is its path for the program.
  std::string Write(const std::string& name, const std::string& content) const;
  /// The content of a file of the directory; empty when there is none.
  std::string Read(const std::string& name) const;
  bool Exists(const std::string& name) const;
  /// Names of what is in the directory, in order.
  std::vector<std::string> Files() const;
  const std::filesystem::path& Directory() const { return directory_.Path(); }

  /// How to start the program in the directory.
  Launch With(std::vector<std::string> arguments) const;
  /// How to start it with a configuration of that content.
  Launch Configured(const std::string& configuration) const;

  /// Runs the program to its own end.
  static Ending Run(Launch launch);
  /// Runs the program until it has written `lines` lines, then ends it with SIGINT.
  static Ending RunLines(Launch launch, int lines = 1);

  /// Lets the program run as a user who is not root, as whom nothing else runs and who may read the directory
  /// but not write to it. Returns false where that cannot be, because the test is not root's or the user
  /// cannot start the program.
  bool RunAsAnother(Launch& launch) const;

  std::vector<LogRecord> LogFile() const { return ParseLog(Read("log/STBM.log")); }

 private:
  TemporaryDirectory directory_;
};

/// The rates of one line by stress name, as they are printed. Fails the test when the line has not exactly
/// the form that it must have.
std::map<std::string, std::string> Rates(const std::string& line);

/// Fails the test for every line that is no rate line of exactly these stresses.
void ExpectRateLines(const std::vector<std::string>& lines, const std::vector<std::string>& stresses);

/// What the log says of a SIGINT.
inline constexpr char kSignal[] =
    "DEBUG SignalHandler() | ===== Signal Interactive attention received. signal: 2 stopFlag_: 1 =====";

/// Ended by itself with that exit status.
MATCHER_P(Exited, expected, "") {
  return !arg.hung && arg.status == expected;
}

/// Ended by that signal.
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
