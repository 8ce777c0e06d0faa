// SPDX-License-Identifier: Apache-2.0
#include "standard_output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "errors.h"

namespace scope {

void RequireStandardOutput() {
  errno = 0;
  std::cout.flush();
  const bool lost = std::fflush(stdout) != 0 || std::ferror(stdout) != 0 || !std::cout;
  if (!lost) return;
  // An earlier write failed, and its reason is gone. Another one meets the same.
  if (errno == 0 && write(STDOUT_FILENO, "\n", 1) == 1) errno = 0;
  throw UserError(std::string("cannot write to standard output") +
                  (errno == 0 ? "" : std::string(": ") + std::strerror(errno)));
}

}  // namespace scope
