// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

/// The platform's calls of posix_spawn(3) and syscall(2) come here, so that a test can act in the middle of
/// an operation.
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
/// Whether the kernel does not have this system call, where syscall(2) is called by its number.
extern std::function<bool(long number)> missing;

/// Counts the calls, and removes what a test has set at the end of the test.
class Watch {
 public:
  Watch();
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  int Count() const;
  int FreedActions() const;  ///< calls of posix_spawn_file_actions_destroy(3)
};

}  // namespace spawn_calls
