// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <ctime>

namespace log_test {

/// What log records cost the threads that make them. The kernel counts how often a thread gives up the
/// processor to wait for something, so `waits` shows whether they block, even on a busy machine. The two
/// longest times are for people to read; `longestNs` includes the time in which other threads had the
/// processor.
struct DeliveryTimes {
  std::atomic<long> waits{0};
  std::atomic<std::int64_t> longestNs{0};
  std::atomic<std::int64_t> longestOnProcessorNs{0};

  /// Calls `deliver` with each number from 0 to `count` - 1, on the calling thread.
  template <typename Deliver>
  void Measure(int count, const Deliver& deliver) {
    const long waitsBefore = WaitsOfThisThread();
    for (int i = 0; i < count; ++i) {
      const std::int64_t start = Now(CLOCK_MONOTONIC);
      const std::int64_t startOnProcessor = Now(CLOCK_THREAD_CPUTIME_ID);
      deliver(i);
      Raise(longestOnProcessorNs, Now(CLOCK_THREAD_CPUTIME_ID) - startOnProcessor);
      Raise(longestNs, Now(CLOCK_MONOTONIC) - start);
    }
    waits += WaitsOfThisThread() - waitsBefore;
  }

 private:
  static std::int64_t Now(clockid_t clock) {
    std::timespec now{};
    (void)clock_gettime(clock, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
  }
  static long WaitsOfThisThread() {
    rusage usage{};
    (void)getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
  }
  static void Raise(std::atomic<std::int64_t>& longest, std::int64_t value) {
    for (std::int64_t current = longest; value > current && !longest.compare_exchange_weak(current, value);) {
    }
  }
};

}  // namespace log_test
