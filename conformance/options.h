// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "check.h"
#include "check_text.h"

namespace conformance {

/// The command line.
struct Options {
  Settings settings;
  std::vector<std::string> only;  ///< shell patterns of names; empty: every check
  std::string junitFile;          ///< empty: none
  unsigned int timeoutS = 120;    ///< of one check
  bool allowSkip = false;         ///< a skipped check does not fail the run
  bool list = false;
  bool help = false;
  bool version = false;
  std::string runOne;  ///< run this check here: this process was started for it
};

extern const char* const kUsage;

/// Reads the command line. Returns the empty string, or what is wrong with it.
std::string ReadOptions(int argc, char** argv, Options& options);

/// The arguments, without the program's name, with which a process runs `check` with `settings`.
std::vector<std::string> ArgumentsFor(const CheckText& check, const Settings& settings);

/// The checks that the patterns choose.
std::vector<CheckText> Chosen(const std::vector<CheckText>& all, const std::vector<std::string>& only);

}  // namespace conformance
