#pragma once

#include <cstddef>

/// While one exists, one allocation by operator new on the thread that made it throws std::bad_alloc: the
/// `failAt`-th since then, from 1; none for 0. Replaces operator new in the program and in every library that
/// it loads; not under ThreadSanitizer, whose own cannot be replaced. Threads: at most one object each.
class FailingMemory {
 public:
  static constexpr bool kWorks =
#if __has_feature(thread_sanitizer)
      false;
#else
      true;
#endif

  explicit FailingMemory(std::size_t failAt);
  ~FailingMemory();
  FailingMemory(const FailingMemory&) = delete;
  FailingMemory& operator=(const FailingMemory&) = delete;

  std::size_t Count() const;  ///< allocations so far
  bool Fired() const;
};
