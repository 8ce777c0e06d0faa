// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <cstdlib>

/// Ends the process when `condition` does not hold: a finding. `subject` is a std::string that describes the
/// case.
#define FUZZ_REQUIRE(condition, subject)                                                             \
  do {                                                                                               \
    if (!(condition)) {                                                                              \
      (void)std::fprintf(stderr, "%s:%d: does not hold: %s\n  %s\n", __FILE__, __LINE__, #condition, \
                         std::string(subject).c_str());                                              \
      std::abort();                                                                                  \
    }                                                                                                \
  } while (false)
