// SPDX-License-Identifier: Apache-2.0
#include "loader.h"

#include <dlfcn.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "checks_library.h"
#include "result_file.h"

namespace conformance {

namespace {

/// What the loader is asked for: a name, which it looks for as for the platform, or a path where a package of
/// a distribution has installed it.
std::string ChecksFile() {
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  const std::string packaged = self.parent_path() / "../lib/stress-benchmark/platform_checks.so";
  return !error && access(packaged.c_str(), R_OK) == 0 ? packaged : "platform_checks.so";
}

/// The function of the checks' library; null, and a result that says why, without it.
template <typename Function>
Function* Load(const char* name) {
  // Operations are bound when they are first called, so that a library that lacks one fails the checks that
  // need it alone. Global, as in a program that is linked with the platform.
  void* const library = dlopen(ChecksFile().c_str(), RTLD_LAZY | RTLD_GLOBAL);
  void* const symbol = library == nullptr ? nullptr : dlsym(library, name);
  if (symbol == nullptr) WriteResult(kFailed, std::string("the loader says: ") + dlerror());
  return reinterpret_cast<Function*>(symbol);
}

}  // namespace

int DescribeHere() {
  if (auto* const describe = Load<decltype(ConformanceDescribe)>("ConformanceDescribe")) {
    std::string text;
    describe(text);
    WriteResult(kPassed, text);
  }
  return 0;
}

int RunHere(const std::string& name, const Settings& settings) {
  auto* const run = Load<decltype(ConformanceRun)>("ConformanceRun");
  return run == nullptr ? 0 : run(name.c_str(), settings);
}

}  // namespace conformance
