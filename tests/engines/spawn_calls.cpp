// SPDX-License-Identifier: Apache-2.0
#include "spawn_calls.h"

#include <dlfcn.h>
#include <spawn.h>

namespace spawn_calls {

std::function<int(Call&)> before;
std::function<void(pid_t)> after;

namespace {

int count = 0;

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
  count = 0;
}

Watch::~Watch() {
  before = nullptr;
  after = nullptr;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): counts while a Watch exists
int Watch::Count() const {
  return count;
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
