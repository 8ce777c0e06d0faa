// SPDX-License-Identifier: Apache-2.0
#include "regular_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "errors.h"

namespace scope {

void RequireRegularFile(const std::string& path) {
  if (access(path.c_str(), R_OK) != 0) {
    throw UserError("cannot read " + path + ": " + std::strerror(errno) +
                    ". Give the path of a configuration file of the benchmark.");
  }
  struct stat status{};
  if (stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) return;
  throw UserError(
      path +
      ": not a regular file. The benchmark reads its configuration twice, and a pipe gives it only "
      "once: save it to a file first");
}

}  // namespace scope
