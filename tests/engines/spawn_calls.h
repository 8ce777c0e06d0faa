// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

/// The platform's calls of posix_spawn(3) come here, so that a test can act in the middle of an operation.
namespace spawn_calls {

/// What is to be started. A test may change it.
struct Call {
  const char* program;
  char* const* arguments;
  char* const* environment;
};

/// Called before the process is started, when the library has all its descriptors open. Returns 0, or the
/// error number with which posix_spawn(3) fails.
extern std::function<int(Call& call)> before;
/// Starts a shell with this script in place of what is to be started, until the test ends.
void ReplaceByScript(const std::string& script);
/// Called with the process that was started.
extern std::function<void(pid_t child)> after;

/// Counts the calls, and removes what a test has set at the end of the test.
class Watch {
 public:
  Watch();
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  int Count() const;
};

}  // namespace spawn_calls
