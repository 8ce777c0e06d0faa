// SPDX-License-Identifier: Apache-2.0
#include "pin.h"

#include <sched.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace scope {
namespace {

struct EngineName {
  const char* id;
  bool load;  ///< false: it works in a set-up, and its thread goes on to another engine
};
constexpr EngineName kNames[] = {
#define ENGINE(symbol, id, load, ...) {id, load},
#include "engines.inc"
#undef ENGINE
};

bool isWanted = false;
std::size_t ownerLength = 0;
const char* owner = nullptr;  ///< the engine that has CPUs to itself, not terminated
cpu_set_t own;
cpu_set_t others;
std::atomic<bool> isTold{false};

void Tell(const char* what) {
  if (isTold.exchange(true)) return;
  (void)std::fprintf(stderr, "libstress_scope: cannot give threads CPUs of their own: %s\n", what);
}

bool IsOwner(const EngineName& engine) {
  return std::strlen(engine.id) == ownerLength && std::memcmp(engine.id, owner, ownerLength) == 0;
}

}  // namespace

void PreparePin() {
  owner = std::getenv(kPinVariable);
  const char* const sign = owner == nullptr ? nullptr : std::strchr(owner, '=');
  if (sign == nullptr) return;
  ownerLength = static_cast<std::size_t>(sign - owner);
  if (sched_getaffinity(0, sizeof(others), &others) != 0) return Tell(strerror(errno));
  CPU_ZERO(&own);
  const char* text = sign + 1;
  while (*text != '\0') {
    char* end = nullptr;
    const unsigned long cpu = std::strtoul(text, &end, 10);
    if (end == text || cpu >= CPU_SETSIZE) return Tell("not a list of CPUs");
    CPU_SET(cpu, &own);
    CPU_CLR(cpu, &others);
    text = *end == ',' ? end + 1 : end;
  }
  if (CPU_COUNT(&own) == 0 || CPU_COUNT(&others) == 0) return Tell("no CPU is left for the others");
  isWanted = true;
}

void PinThread(Engine engine) {
  const EngineName& name = kNames[static_cast<std::size_t>(engine)];
  if (!isWanted || !name.load) return;
  if (sched_setaffinity(0, sizeof(own), IsOwner(name) ? &own : &others) != 0) Tell(strerror(errno));
}

}  // namespace scope
