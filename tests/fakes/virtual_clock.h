#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <thread>
#include <vector>

/// Time under a test's control: clock_gettime(CLOCK_MONOTONIC) and nanosleep of the test executable are
/// interposed. While a VirtualClock exists the steady clock stands still but for Advance and for sleeps,
/// which return at once and advance it. One object at a time; any thread may read or sleep meanwhile.
class VirtualClock {
 public:
  VirtualClock();
  ~VirtualClock();
  VirtualClock(const VirtualClock&) = delete;
  VirtualClock& operator=(const VirtualClock&) = delete;

  void Advance(std::chrono::nanoseconds span);
  std::chrono::nanoseconds Now() const;

  /// Every sleep so far, in order, nanoseconds.
  std::vector<std::int64_t> Sleeps() const;
  /// How many sleeps each thread has begun, and forgetting them.
  static std::map<std::thread::id, std::size_t> SleepsByThread();
  static void Forget();
  /// Clock reads so far.
  std::uint64_t Reads() const;
  /// Called after each sleep with the number of sleeps so far, on the sleeping thread.
  void OnSleep(std::function<void(std::size_t)> hook);
  /// Holds every sleep until that many different threads have begun one: without it one thread may sleep
  /// through hours of virtual time before another has started.
  void WaitForSleepers(std::size_t threads);
};
