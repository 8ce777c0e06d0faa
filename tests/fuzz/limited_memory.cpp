// SPDX-License-Identifier: Apache-2.0
#include "limited_memory.h"

#include <malloc.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

std::size_t limitBytes = SIZE_MAX;

void* Allocate(std::size_t bytes) noexcept {
  return bytes > limitBytes ? nullptr : std::malloc(bytes == 0 ? 1 : bytes);
}

void* AllocateOrThrow(std::size_t bytes) {
  void* const memory = Allocate(bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

LimitedMemory::LimitedMemory() {
  limitBytes = kMaxBytes;
}

LimitedMemory::~LimitedMemory() {
  limitBytes = SIZE_MAX;
}

// All forms for normal alignment. The other forms stay a sanitizer's own: it would report memory from one of
// its own that is freed by one of these. It watches malloc and memalign, so it misses nothing.

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

// Exported, so that the platform's library calls this one.
extern "C" __attribute__((visibility("default"))) int posix_memalign(void** memory, std::size_t alignment,
                                                                     std::size_t bytes) noexcept {
  void* const made = bytes > limitBytes ? nullptr : memalign(alignment, bytes);
  if (made == nullptr) return ENOMEM;
  *memory = made;
  return 0;
}
