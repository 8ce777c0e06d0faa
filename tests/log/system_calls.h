// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <functional>
#include <optional>

namespace log_test {

/// System calls under a test's control. While one exists, what the sources of the log call on this thread
/// goes to its functions first (the executable is linked with --wrap for these calls). A function that is not
/// set, or returns nothing, leaves the call to the system; otherwise its value is the call's result, and
/// errno what it has put there. One object at a time in a thread.
class SystemCalls {
 public:
  SystemCalls();
  ~SystemCalls();
  SystemCalls(const SystemCalls&) = delete;
  SystemCalls& operator=(const SystemCalls&) = delete;

  std::function<std::optional<int>(pollfd& request, int timeoutMs)> onPoll;  ///< of one descriptor
  std::function<std::optional<ssize_t>(int descriptor, const char* bytes, std::size_t size)> onWrite;
  std::function<std::optional<int>(int from, int to, int flags)> onDup3;
  std::function<std::optional<std::timespec>()> onRealTime;  ///< clock_gettime(CLOCK_REALTIME)
  std::function<std::optional<std::timespec>()> onUptime;    ///< clock_gettime(CLOCK_MONOTONIC)
  std::function<std::optional<long>(void* word, int operation, unsigned value)> onFutex;
};

}  // namespace log_test
