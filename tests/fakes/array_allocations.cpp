#include "array_allocations.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace {

thread_local bool watching = false;
thread_local int failAt = 0;
thread_local int count = 0;

std::vector<std::size_t>& EventList() {
  thread_local std::vector<std::size_t> events;
  return events;
}

}  // namespace

void* operator new[](std::size_t bytes) {
  if (watching && ++count == failAt) throw std::bad_alloc();
  void* memory = bytes > (std::size_t{1} << 40) ? nullptr : std::malloc(bytes == 0 ? 1 : bytes);
  if (memory == nullptr) throw std::bad_alloc();
  std::memset(memory, 0xA5, bytes);
  if (watching) EventList().push_back(bytes);
  return memory;
}

void operator delete[](void* memory) noexcept {
  if (watching && memory != nullptr) EventList().push_back(ArrayAllocations::kFreed);
  std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept {
  operator delete[](memory);
}

ArrayAllocations::ArrayAllocations() {
  EventList().clear();
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

const std::vector<std::size_t>& ArrayAllocations::Events() const {
  return EventList();
}
