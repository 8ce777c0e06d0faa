// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

/// Watches array new and array delete of the test executable, which is linked with --wrap for them. Every new
/// array is filled with 0xA5, so a test can see whether the code has zeroed it. While an object exists, it
/// records the arrays that are allocated and freed on its thread.
class ArrayAllocations {
 public:
  ArrayAllocations();
  ~ArrayAllocations();
  ArrayAllocations(const ArrayAllocations&) = delete;
  ArrayAllocations& operator=(const ArrayAllocations&) = delete;

  /// Makes the `nth` array new (from 1) throw std::bad_alloc.
  void Fail(int nth);

  /// Called just before an array is freed.
  void OnFree(std::function<void()> hook);

  /// Bytes of each array new that succeeded, and kFreed for each delete, in order.
  const std::vector<std::size_t>& Events() const;
  static constexpr std::size_t kFreed = static_cast<std::size_t>(-1);
};
