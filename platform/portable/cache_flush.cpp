// SPDX-License-Identifier: Apache-2.0
#include "cache_flush.h"

#include <atomic>
#include <cstdint>

#if defined(__x86_64__)
#include <cpuid.h>
#endif

namespace Ormis::portable {

namespace {

std::atomic<bool> flushes{true};

void FlushNothing(const void*, std::size_t) {}

#if defined(__x86_64__)

constexpr std::size_t kFlushedBytes = 64;  // a cache line

const unsigned char* LineOf(const void* memory) {
  return static_cast<const unsigned char*>(memory) - reinterpret_cast<std::uintptr_t>(memory) % kFlushedBytes;
}

// Each waits for the one before.
void FlushInTurn(const void* memory, std::size_t bytes) {
  const unsigned char* const end = static_cast<const unsigned char*>(memory) + bytes;
  for (const unsigned char* line = LineOf(memory); line < end; line += kFlushedBytes) {
    __builtin_ia32_clflush(line);
  }
}

[[gnu::target("clflushopt")]] void FlushSideBySide(const void* memory, std::size_t bytes) {
  const unsigned char* const end = static_cast<const unsigned char*>(memory) + bytes;
  for (const unsigned char* line = LineOf(memory); line < end; line += kFlushedBytes) {
    __builtin_ia32_clflushopt(line);
  }
}

#elif defined(__aarch64__)

// Linux lets programs read the size of a line, and clean and invalidate one.
void FlushToMemory(const void* memory, std::size_t bytes) {
  std::uint64_t cacheType = 0;
  __asm__ volatile("mrs %0, ctr_el0" : "=r"(cacheType));
  const std::uintptr_t lineBytes = std::uintptr_t{4} << (cacheType >> 16U & 15U);
  const auto begin = reinterpret_cast<std::uintptr_t>(memory);
  for (std::uintptr_t at = begin / lineBytes * lineBytes; at < begin + bytes; at += lineBytes) {
    __asm__ volatile("dc civac, %0" : : "r"(at) : "memory");
  }
}

#endif

RoutineList<FlushRoutine> FindFlushRoutines() {
  RoutineList<FlushRoutine> routines;
  routines.Add({"none", FlushNothing});
#if defined(__x86_64__)
  unsigned int a = 0;
  unsigned int b = 0;
  unsigned int c = 0;
  unsigned int d = 0;
  if (__get_cpuid(1, &a, &b, &c, &d) != 0 && (d & bit_CLFSH) != 0) routines.Add({"clflush", FlushInTurn});
  if (__get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 && (b & bit_CLFLUSHOPT) != 0) {
    routines.Add({"clflushopt", FlushSideBySide});
  }
#elif defined(__aarch64__)
  routines.Add({"civac", FlushToMemory});
#endif
  return routines;
}

}  // namespace

const RoutineList<FlushRoutine>& FlushRoutines() {
  static const RoutineList<FlushRoutine> routines = FindFlushRoutines();
  return routines;
}

void EndFlush() {
#if defined(__x86_64__)
  // A store fence would keep later stores behind the flushes, but not later loads.
  __builtin_ia32_mfence();
#elif defined(__aarch64__)
  __asm__ volatile("dsb ish" : : : "memory");
#endif
}

void FlushCaches(bool on) {
  flushes.store(on, std::memory_order_relaxed);
}

FlushLines CurrentFlush() {
  return flushes.load(std::memory_order_relaxed) ? FlushRoutines().back().flush : nullptr;
}

void FlushFromCaches(const void* memory, std::size_t bytes) {
  const FlushLines flush = CurrentFlush();
  if (flush == nullptr) return;
  flush(memory, bytes);
  EndFlush();
}

}  // namespace Ormis::portable
