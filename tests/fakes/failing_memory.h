// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

/// While an object exists, one allocation by operator new on its thread throws std::bad_alloc: the
/// `failAt`-th (from 1) since the object was made; none when `failAt` is 0. It replaces operator new in the
/// program and in every library that the program loads. Does not work under ThreadSanitizer, whose operator
/// new cannot be replaced. Threads: at most one object in each thread.
class FailingMemory {
 public:
  /// Why tests are skipped where it does not work.
  static constexpr const char* kWhyNot = "ThreadSanitizer's operator new cannot be replaced";
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
