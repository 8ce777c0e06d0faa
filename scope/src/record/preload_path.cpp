// SPDX-License-Identifier: Apache-2.0
#include "preload_path.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "errors.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

bool CanBePreloaded(const std::string& path) {
  return path.find_first_of(" :$") == std::string::npos;
}

}  // namespace

PreloadPath::PreloadPath(const std::string& library) : text_(library) {
  if (CanBePreloaded(library)) return;
  std::error_code error;
  const std::string usual = fs::temp_directory_path(error).string();
  folder_ = (error || !CanBePreloaded(usual) ? "/tmp" : usual) + "/stress_scope.XXXXXX";
  text_ = "";
  if (mkdtemp(folder_.data()) != nullptr) {
    text_ = folder_ + "/libstress_scope.so";
    if (symlink(library.c_str(), text_.c_str()) == 0) return;
    (void)rmdir(folder_.c_str());
  }
  throw UserError("the meter's path " + library +
                  " has a blank, a colon or a dollar sign, so that it needs a link to be preloaded by, and " +
                  folder_ + " cannot have one: " + std::strerror(errno) +
                  ". Say with TMPDIR where links can be made.");
}

PreloadPath::~PreloadPath() {
  if (folder_.empty()) return;
  (void)unlink(text_.c_str());
  (void)rmdir(folder_.c_str());
}

}  // namespace scope
