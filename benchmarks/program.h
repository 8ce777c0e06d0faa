// SPDX-License-Identifier: Apache-2.0

/// The command line of the programs that measure.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "prepare_process.h"

namespace measure {

/// The first call of main: makes the process independent of how it was started (PrepareProcess). Answers
/// --help (or -h) with `usage` and --version, and ends the program. Refuses other options in the same way,
/// with status 2. Returns if the first argument is not an option.
inline void AnswerOptions(int argc, char** argv, const char* name, const char* usage) {
  stress::PrepareProcess();
  if (argc < 2 || argv[1][0] != '-') return;
  if (std::strcmp(argv[1], "--version") == 0) {
    (void)std::printf("%s " STRESS_VERSION "\n", name);
    std::exit(0);
  }
  const bool help = std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0;
  if (!help) (void)std::fprintf(stderr, "%s: there is no option %s\n", name, argv[1]);
  (void)std::fputs(usage, help ? stdout : stderr);
  std::exit(help ? 0 : 2);
}

}  // namespace measure
