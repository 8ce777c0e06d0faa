#pragma once

#include <cstddef>
#include <functional>
#include <vector>

/// Watches array new and delete of the test executable, which is linked with --wrap for them: every new array
/// is filled with 0xA5, so that one that nobody zeroed is noticed. While a watch exists, arrays made and
/// freed on its thread are noted.
class ArrayAllocations {
 public:
  ArrayAllocations();
  ~ArrayAllocations();
  ArrayAllocations(const ArrayAllocations&) = delete;
  ArrayAllocations& operator=(const ArrayAllocations&) = delete;

  /// Lets the `nth` array new (from 1) throw std::bad_alloc.
  void Fail(int nth);

  /// Called just before an array is freed.
  void OnFree(std::function<void()> hook);

  /// Bytes of each array new that succeeded, and kFreed for each delete, in order.
  const std::vector<std::size_t>& Events() const;
  static constexpr std::size_t kFreed = static_cast<std::size_t>(-1);
};
