#pragma once

#include <functional>
#include <mutex>

/// Failures of the standard library's own parts, in the test executable alone (linked with --wrap).

/// While it exists, locking `mutex` throws std::system_error, as a lock that would deadlock does.
class MutexFault {
 public:
  explicit MutexFault(std::mutex& mutex);
  ~MutexFault();
  MutexFault(const MutexFault&) = delete;
  MutexFault& operator=(const MutexFault&) = delete;

  /// How often a lock was refused.
  static int Delivered();
};

/// While it exists, the locks of `mutex` are counted, and the hooks are called: one just before each lock,
/// the other just before each unlock, on the thread that makes it.
class MutexWatch {
 public:
  using Hook = std::function<void()>;
  explicit MutexWatch(std::mutex& mutex, Hook beforeLock = nullptr, Hook beforeUnlock = nullptr);
  ~MutexWatch();
  MutexWatch(const MutexWatch&) = delete;
  MutexWatch& operator=(const MutexWatch&) = delete;

  static int Locks();
};

/// While it exists, thread creations are counted, and one may be refused.
class ThreadStarts {
 public:
  ThreadStarts();
  ~ThreadStarts();
  ThreadStarts(const ThreadStarts&) = delete;
  ThreadStarts& operator=(const ThreadStarts&) = delete;

  /// The `nth` creation (from 1) fails with EAGAIN, as at the limit of a system's threads.
  void Fail(int nth);
  /// Called after each creation with its number, on the creating thread.
  void OnStart(std::function<void(int)> hook);
  int Count() const;
};
