// SPDX-License-Identifier: Apache-2.0
#include "failing_memory.h"

#include <cstdlib>
#include <new>

namespace {

// Plain data: operator new reads them before and after any constructor runs.
thread_local bool watched = false;
thread_local std::size_t allocationCount = 0;
thread_local std::size_t failingAllocation = 0;

[[maybe_unused]] void* Allocate(std::size_t bytes) noexcept {
  if (watched && ++allocationCount == failingAllocation) return nullptr;
  return std::malloc(bytes == 0 ? 1 : bytes);
}

[[maybe_unused]] void* AllocateOrThrow(std::size_t bytes) {
  void* const memory = Allocate(bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

FailingMemory::FailingMemory(std::size_t failAt) {
  allocationCount = 0;
  failingAllocation = failAt;
  watched = true;
}

FailingMemory::~FailingMemory() {
  watched = false;
}

std::size_t FailingMemory::Count() const {
  return allocationCount;
}

bool FailingMemory::Fired() const {
  return failingAllocation != 0 && allocationCount >= failingAllocation;
}

// All forms for normal alignment are replaced. A sanitizer has its own version of each form that is not, and
// reports an error when memory from its version is freed by one of these. It also watches malloc, so it still
// sees every allocation.

#if !__has_feature(thread_sanitizer)
void* operator new(std::size_t bytes) {
  return AllocateOrThrow(bytes);
}
void* operator new[](std::size_t bytes) {
  return AllocateOrThrow(bytes);
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
  return Allocate(bytes);
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
  return Allocate(bytes);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
#endif
