// SPDX-License-Identifier: Apache-2.0
#include "allocation_count.h"

#include <cstddef>
#include <utility>

#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)

namespace log_test {
bool CountsAllocations() {
  return false;
}
long AllocationsOfThisThread() {
  return 0;
}
void FailNextAllocation() {}
}  // namespace log_test

#else

namespace {
thread_local long allocations = 0;
thread_local bool failNext = false;
}  // namespace

// The C library's names for its own allocator. The functions below replace it in the whole process and call
// it.
extern "C" {
void* __libc_malloc(std::size_t size);                           // NOLINT(bugprone-reserved-identifier)
void* __libc_calloc(std::size_t count, std::size_t size);        // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void* block, std::size_t size);             // NOLINT(bugprone-reserved-identifier)
void* __libc_memalign(std::size_t alignment, std::size_t size);  // NOLINT(bugprone-reserved-identifier)

__attribute__((visibility("default"))) void* malloc(std::size_t size) {
  ++allocations;
  if (std::exchange(failNext, false)) return nullptr;
  return __libc_malloc(size);
}
__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t size) {
  ++allocations;
  return __libc_calloc(count, size);
}
__attribute__((visibility("default"))) void* realloc(void* block, std::size_t size) {
  ++allocations;
  return __libc_realloc(block, size);
}
__attribute__((visibility("default"))) void* aligned_alloc(std::size_t alignment, std::size_t size) {
  ++allocations;
  return __libc_memalign(alignment, size);
}
}

namespace log_test {
bool CountsAllocations() {
  return true;
}
long AllocationsOfThisThread() {
  return allocations;
}
void FailNextAllocation() {
  failNext = true;
}
}  // namespace log_test

#endif
