// SPDX-License-Identifier: Apache-2.0
#include "cache_flush.h"

#include <atomic>
#include <cstdint>

#include "cache_lines.h"

#if defined(__x86_64__)
#include <cpuid.h>
#endif

namespace Ormis::portable {

namespace {

std::atomic<bool> flushes{true};

void FlushNothing(const void*, std::size_t) {}

#if defined(__x86_64__)

constexpr std::size_t kFlushedBytes = 64;  // a cache line

// Each waits for the one before.
void FlushInTurn(const void* memory, std::size_t bytes) {
  ForEachLine(memory, bytes, kFlushedBytes, [](const unsigned char* line) { __builtin_ia32_clflush(line); });
}

void FlushSideBySide(const void* memory, std::size_t bytes) {
  ForEachLine(memory, bytes, kFlushedBytes,
              [](const unsigned char* line)
                  __attribute__((target("clflushopt"))) { __builtin_ia32_clflushopt(line); });
}

#elif defined(__aarch64__)

// Linux lets programs read the size of a line, and clean and invalidate one.
void FlushToMemory(const void* memory, std::size_t bytes) {
  std::uint64_t cacheType = 0;
  __asm__ volatile("mrs %0, ctr_el0" : "=r"(cacheType));
  const std::size_t lineBytes = std::size_t{4} << (cacheType >> 16U & 15U);
  ForEachLine(memory, bytes, lineBytes, [](const unsigned char* line) {
    __asm__ volatile("dc civac, %0" : : "r"(line) : "memory");
  });
}

#endif

RoutineList<FlushRoutine> FindFlushRoutines() {
  RoutineList<FlushRoutine> routines;
  routines.Add({"none", FlushNothing});
#if defined(__x86_64__)
  unsigned int a{};
  unsigned int b{};
  unsigned int c{};
  unsigned int d{};
  (void)__get_cpuid_count(7, 0, &a, &b, &c, &d);  // leaves zeros where the processor does not know the 7
  const bool hasSideBySide = (b & bit_CLFLUSHOPT) == bit_CLFLUSHOPT;
  (void)__get_cpuid(1, &a, &b, &c, &d);
  if ((d & bit_CLFSH) == bit_CLFSH) routines.Add({"clflush", FlushInTurn});
  if (hasSideBySide) routines.Add({"clflushopt", FlushSideBySide});
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

}  // namespace Ormis::portable
