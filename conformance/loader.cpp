// SPDX-License-Identifier: Apache-2.0
#include "loader.h"

#include <dlfcn.h>

#include "checks_library.h"
#include "result_file.h"

namespace conformance {

namespace {

/// The function of the checks' library; null, and a result that says why, without it.
template <typename Function>
Function* Load(const char* name) {
  // Operations are bound when they are first called, so that a library that lacks one fails the checks that
  // need it alone. Global, as in a program that is linked with the platform.
  void* const library = dlopen("platform_checks.so", RTLD_LAZY | RTLD_GLOBAL);
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
