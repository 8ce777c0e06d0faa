// SPDX-License-Identifier: Apache-2.0

// Functions of the C library that tests of the checks replace: other programs have the CPU, or the system
// gives nothing.
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "check_tools.h"

namespace checks {

System checkSystem;

}  // namespace checks

namespace {

using checks::checkSystem;
using checks::System;

constexpr std::uint64_t kNsOfASecond = 1'000'000'000;
constexpr std::size_t kShortReading = 1000;

bool Refuses(System::Refusal what) {
  if (checkSystem.refusal != what) return false;
  ++checkSystem.refused;
  errno = ENOMEM;
  return true;
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static std::atomic<int> readings{0};
  if (clock == CLOCK_MONOTONIC && checkSystem.stepNs != 0) {
    const std::uint64_t now = checkSystem.nowNs += checkSystem.stepNs;
    *time = {static_cast<time_t>(now / kNsOfASecond), static_cast<long>(now % kNsOfASecond)};
    return 0;
  }
  const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  if (clock == CLOCK_MONOTONIC) time->tv_sec += checkSystem.secondsAway * ++readings;
  if (clock == CLOCK_THREAD_CPUTIME_ID && checkSystem.threadTimeStands) *time = {};
  if (clock == CLOCK_THREAD_CPUTIME_ID && checkSystem.threadStepNs != 0) {
    *time = {0, checkSystem.threadStepNs * ++checkSystem.threadReadings};
  }
  return result;
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* time, timespec* left) {
  if (checkSystem.stepNs == 0)
    return static_cast<int>(syscall(SYS_clock_nanosleep, clock, flags, time, left));
  checkSystem.sleptUntilNs =
      static_cast<std::uint64_t>(time->tv_sec) * kNsOfASecond + static_cast<std::uint64_t>(time->tv_nsec);
  return clock == CLOCK_MONOTONIC && flags == TIMER_ABSTIME ? 0 : EINVAL;
}

int sched_getaffinity(pid_t process, std::size_t size, cpu_set_t* set) noexcept {
  if (Refuses(System::kAffinity)) return -1;
  std::memset(set, 0, size);
  return syscall(SYS_sched_getaffinity, process, size, set) < 0 ? -1 : 0;
}

void* mmap(void* address, std::size_t bytes, int protection, int flags, int file, off_t offset) noexcept {
  if (Refuses(System::kMemory)) return MAP_FAILED;
  return reinterpret_cast<void*>(syscall(SYS_mmap, address, bytes, protection, flags, file, offset));
}

int memfd_create(const char* name, unsigned flags) noexcept {
  if (Refuses(System::kFile)) return -1;
  return static_cast<int>(syscall(SYS_memfd_create, name, flags));
}

int ftruncate(int file, off_t bytes) noexcept {
  if (Refuses(System::kLength)) return -1;
  return static_cast<int>(syscall(SYS_ftruncate, file, bytes));
}

ssize_t pread(int file, void* to, std::size_t bytes, off_t offset) {
  const int left = checkSystem.interruptions;
  if (left > 0) {
    checkSystem.interruptions = left - 1;
    if (left % 2 == 0) {
      errno = EINTR;
      return -1;
    }
    bytes = std::min(bytes, kShortReading);
  }
  return syscall(SYS_pread64, file, to, bytes, offset);
}
}
