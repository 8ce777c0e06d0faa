// SPDX-License-Identifier: Apache-2.0
#include "program_files.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <vector>

#include "errors.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

std::string OwnFolder() {
  std::error_code error;
  const fs::path self = fs::read_symlink("/proc/self/exe", error);
  return error ? std::string(".") : self.parent_path().string();
}

}  // namespace

std::string FindBenchmark(const std::string& given) {
  const std::string path = given.empty() ? OwnFolder() + "/stress_benchmark" : given;
  if (access(path.c_str(), X_OK) != 0) {
    throw UserError(
        "cannot run the benchmark " + path + ": " + std::strerror(errno) +
        (given.empty() ? ". Give its path with --benchmark." : ". Check the path after --benchmark."));
  }
  return path;
}

std::string FindMeter(const std::string& given) {
  std::vector<std::string> candidates = {given};
  if (given.empty()) {
    // The last is where a package of a distribution has what is no library to link with.
    candidates = {OwnFolder() + "/../lib/libstress_scope.so",
                  OwnFolder() + "/../" STRESS_SCOPE_LIBDIR "/libstress_scope.so",
                  OwnFolder() + "/../lib/stress-benchmark/libstress_scope.so"};
  }
  for (const std::string& candidate : candidates) {
    if (access(candidate.c_str(), R_OK) != 0) continue;
    return fs::absolute(candidate).lexically_normal().string();
  }
  throw UserError(
      "cannot read the meter " + candidates.front() + ": " + std::strerror(errno) +
      ". Give the path of libstress_scope.so with --meter, or record without it with --no-meter.");
}

}  // namespace scope
