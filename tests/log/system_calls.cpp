// SPDX-License-Identifier: Apache-2.0
#include "system_calls.h"

#include <sys/syscall.h>

#include <cstdarg>

namespace {

thread_local log_test::SystemCalls* scripted = nullptr;

}  // namespace

namespace log_test {

SystemCalls::SystemCalls() {
  scripted = this;
}

SystemCalls::~SystemCalls() {
  scripted = nullptr;
}

}  // namespace log_test

// The linker's names for what it redirects.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_poll(pollfd* requests, nfds_t count, int timeoutMs);
int __wrap_poll(pollfd* requests, nfds_t count, int timeoutMs);
ssize_t __real_write(int descriptor, const void* bytes, std::size_t size);
ssize_t __wrap_write(int descriptor, const void* bytes, std::size_t size);
int __real_dup3(int from, int to, int flags);
int __wrap_dup3(int from, int to, int flags);
int __real_clock_gettime(clockid_t clock, std::timespec* time);
int __wrap_clock_gettime(clockid_t clock, std::timespec* time);
long __real_syscall(long number, ...);
long __wrap_syscall(long number, ...);

int __wrap_poll(pollfd* requests, nfds_t count, int timeoutMs) {
  if (scripted != nullptr && scripted->onPoll && count == 1) {
    if (const auto result = scripted->onPoll(*requests, timeoutMs)) return *result;
  }
  return __real_poll(requests, count, timeoutMs);
}

ssize_t __wrap_write(int descriptor, const void* bytes, std::size_t size) {
  if (scripted != nullptr && scripted->onWrite) {
    if (const auto result = scripted->onWrite(descriptor, static_cast<const char*>(bytes), size))
      return *result;
  }
  return __real_write(descriptor, bytes, size);
}

int __wrap_dup3(int from, int to, int flags) {
  if (scripted != nullptr && scripted->onDup3) {
    if (const auto result = scripted->onDup3(from, to, flags)) return *result;
  }
  return __real_dup3(from, to, flags);
}

int __wrap_clock_gettime(clockid_t clock, std::timespec* time) {
  if (scripted != nullptr && (clock == CLOCK_REALTIME || clock == CLOCK_MONOTONIC)) {
    const auto& script = clock == CLOCK_REALTIME ? scripted->onRealTime : scripted->onUptime;
    if (const auto now = script ? script() : std::nullopt) {
      *time = *now;
      return 0;
    }
  }
  return __real_clock_gettime(clock, time);
}

long __wrap_syscall(long number, ...) {
  long arguments[6];
  va_list list;
  va_start(list, number);
  for (long& argument : arguments) argument = va_arg(list, long);
  va_end(list);
  if (scripted != nullptr && scripted->onFutex && number == SYS_futex) {
    const auto result =
        scripted->onFutex(reinterpret_cast<void*>(arguments[0]), static_cast<int>(arguments[1]),
                          static_cast<unsigned>(arguments[2]));
    if (result) return *result;
  }
  return __real_syscall(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                        arguments[5]);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
