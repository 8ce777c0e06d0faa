// SPDX-License-Identifier: Apache-2.0
#include "spawn_calls.h"

#include <dlfcn.h>
#include <spawn.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>

namespace spawn_calls {

std::function<int(Call&)> before;
std::function<void(pid_t)> after;
std::function<bool(long)> missing;

namespace {

int count = 0;
int freedActions = 0;

}  // namespace

void ReplaceByScript(const std::string& script) {
  before = [shell = std::string("sh"), option = std::string("-c"),
            text = std::string(script)](Call& call) mutable {
    static char* arguments[4];
    arguments[0] = shell.data();
    arguments[1] = option.data();
    arguments[2] = text.data();
    call.program = "/bin/sh";
    call.arguments = arguments;
    return 0;
  };
}

Watch::Watch() {
  count = freedActions = 0;
}

Watch::~Watch() {
  before = nullptr;
  after = nullptr;
  missing = nullptr;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): counts while a Watch exists
int Watch::Count() const {
  return count;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): counts while a Watch exists
int Watch::FreedActions() const {
  return freedActions;
}

}  // namespace spawn_calls

extern "C" __attribute__((visibility("default"))) int posix_spawn(pid_t* child, const char* path,
                                                                  const posix_spawn_file_actions_t* actions,
                                                                  const posix_spawnattr_t* attributes,
                                                                  char* const* arguments,
                                                                  char* const* environment) {
  ++spawn_calls::count;
  spawn_calls::Call call{path, arguments, environment};
  if (const int error = spawn_calls::before ? spawn_calls::before(call) : 0; error != 0) return error;
  static const auto real = reinterpret_cast<decltype(&posix_spawn)>(dlsym(RTLD_NEXT, "posix_spawn"));
  const int error = real(child, call.program, actions, attributes, call.arguments, call.environment);
  if (error == 0 && spawn_calls::after) spawn_calls::after(*child);
  return error;
}

extern "C" __attribute__((visibility("default"))) int posix_spawn_file_actions_destroy(
    posix_spawn_file_actions_t* actions) noexcept {
  ++spawn_calls::freedActions;
  static const auto real = reinterpret_cast<decltype(&posix_spawn_file_actions_destroy)>(
      dlsym(RTLD_NEXT, "posix_spawn_file_actions_destroy"));
  return real(actions);
}

extern "C" __attribute__((visibility("default"))) long syscall(long number, ...) noexcept {
  std::va_list rest;
  va_start(rest, number);
  long arguments[6];
  for (long& argument : arguments) argument = va_arg(rest, long);
  va_end(rest);
  if (spawn_calls::missing && spawn_calls::missing(number)) {
    errno = ENOSYS;
    return -1;
  }
  // No static with a constructor: what guards one calls this function.
  static std::atomic<decltype(&syscall)> real{nullptr};
  if (real == nullptr) real = reinterpret_cast<decltype(&syscall)>(dlsym(RTLD_NEXT, "syscall"));
  return real.load()(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                     arguments[5]);
}
