// SPDX-License-Identifier: Apache-2.0
#include "array_allocations.h"

#include <cstring>
#include <new>
#include <utility>

namespace {

thread_local bool watching = false;
thread_local int failAt = 0;
thread_local int count = 0;

std::vector<std::size_t>& EventList() {
  thread_local std::vector<std::size_t> events;
  return events;
}

std::function<void()>& FreeHook() {
  thread_local std::function<void()> hook;
  return hook;
}

}  // namespace

// The linker redirects the executable's calls of array new and delete to these functions (--wrap). To replace
// the operators themselves would conflict with those of ThreadSanitizer.
extern "C" {

void* __real__Znam(
    std::size_t bytes);  // NOLINT(bugprone-reserved-identifier): names that the linker requires
void __real__ZdaPv(void* memory) noexcept;                // NOLINT(bugprone-reserved-identifier)
void* __wrap__Znam(std::size_t bytes);                    // NOLINT(bugprone-reserved-identifier)
void __wrap__ZdaPv(void* memory) noexcept;                // NOLINT(bugprone-reserved-identifier)
void __wrap__ZdaPvm(void* memory, std::size_t) noexcept;  // NOLINT(bugprone-reserved-identifier)

void* __wrap__Znam(std::size_t bytes) {  // NOLINT(bugprone-reserved-identifier)
  // More than any machine has. Refused here, because the sanitizers' allocators abort instead of throwing.
  if (bytes > (std::size_t{1} << 40)) throw std::bad_alloc();
  if (watching && ++count == failAt) throw std::bad_alloc();
  void* memory = __real__Znam(bytes);
  std::memset(memory, 0xA5, bytes);
  if (watching) EventList().push_back(bytes);
  return memory;
}

void __wrap__ZdaPv(void* memory) noexcept {  // NOLINT(bugprone-reserved-identifier)
  if (watching && memory != nullptr) {
    if (FreeHook()) FreeHook()();
    EventList().push_back(ArrayAllocations::kFreed);
  }
  __real__ZdaPv(memory);
}

void __wrap__ZdaPvm(void* memory, std::size_t) noexcept {  // NOLINT(bugprone-reserved-identifier)
  __wrap__ZdaPv(memory);
}

}  // extern "C"

ArrayAllocations::ArrayAllocations() {
  EventList().clear();
  FreeHook() = nullptr;
  failAt = 0;
  count = 0;
  watching = true;
}

ArrayAllocations::~ArrayAllocations() {
  watching = false;
}

void ArrayAllocations::Fail(int nth) {
  failAt = nth;
}

void ArrayAllocations::OnFree(std::function<void()> hook) {
  FreeHook() = std::move(hook);
}

const std::vector<std::size_t>& ArrayAllocations::Events() const {
  return EventList();
}
