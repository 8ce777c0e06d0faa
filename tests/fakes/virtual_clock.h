// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <thread>
#include <vector>

/// Time under a test's control: clock_gettime(CLOCK_MONOTONIC) and nanosleep of the test executable are
/// replaced. While a VirtualClock exists, the steady clock stands still. Advance moves it on, and so does
/// each sleep, which returns at once. One object at a time. Threads: any thread may read the clock or sleep.
class VirtualClock {
 public:
  VirtualClock();
  ~VirtualClock();
  VirtualClock(const VirtualClock&) = delete;
  VirtualClock& operator=(const VirtualClock&) = delete;

  void Advance(std::chrono::nanoseconds span);
  std::chrono::nanoseconds Now() const;

  /// The lengths of all sleeps so far in nanoseconds, in order.
  std::vector<std::int64_t> Sleeps() const;
  /// How many sleeps each thread has begun since the start or the last Forget.
  static std::map<std::thread::id, std::size_t> SleepsByThread();
  static void Forget();
  /// How often the clock has been read.
  std::uint64_t Reads() const;
  /// Sets a function that is called after each sleep with the number of sleeps so far, on the sleeping
  /// thread.
  void OnSleep(std::function<void(std::size_t)> hook);
  /// Makes every sleep wait until that many different threads have begun one. Otherwise one thread could
  /// sleep through hours of virtual time before another thread has started.
  void WaitForSleepers(std::size_t threads);
};
