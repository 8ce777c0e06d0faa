// SPDX-License-Identifier: Apache-2.0
#include "regular_file.h"

#include <sys/stat.h>

#include "errors.h"

namespace scope {

void RequireRegularFile(const std::string& path) {
  struct stat status{};
  // The reader that comes next says what is wrong with a path that leads nowhere.
  if (stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) return;
  throw UserError(
      path +
      ": not a regular file. The benchmark reads its configuration twice, and a pipe gives it only "
      "once: save it to a file first");
}

}  // namespace scope
