// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <mutex>

/// Failures inside the standard library, in the test executable alone, which is linked with --wrap for them.

/// While an object exists, locking `mutex` throws std::system_error, like a lock that would deadlock.
class MutexFault {
 public:
  explicit MutexFault(std::mutex& mutex);
  ~MutexFault();
  MutexFault(const MutexFault&) = delete;
  MutexFault& operator=(const MutexFault&) = delete;

  /// How many locks have failed.
  static int Delivered();
};

/// While an object exists, the locks of `mutex` are counted. One function is called just before each lock,
/// the other just before each unlock, on the thread that locks or unlocks.
class MutexWatch {
 public:
  using Hook = std::function<void()>;
  explicit MutexWatch(std::mutex& mutex, Hook beforeLock = nullptr, Hook beforeUnlock = nullptr);
  ~MutexWatch();
  MutexWatch(const MutexWatch&) = delete;
  MutexWatch& operator=(const MutexWatch&) = delete;

  static int Locks();
};

/// While an object exists, thread creations are counted, and one can be made to fail.
class ThreadStarts {
 public:
  ThreadStarts();
  ~ThreadStarts();
  ThreadStarts(const ThreadStarts&) = delete;
  ThreadStarts& operator=(const ThreadStarts&) = delete;

  /// Makes the `nth` creation (from 1) fail with EAGAIN, as when the system has too many threads.
  void Fail(int nth);
  /// Sets a function that is called after each creation with its number, on the creating thread.
  void OnStart(std::function<void(int)> hook);
  int Count() const;
};
