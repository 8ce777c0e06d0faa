// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sched.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "monotonic_ns.h"

/// What the checks of the meter share: time, a lock for short stretches, and memory by words of 8 bytes.
namespace scope {

/// The short name of the time in the meter.
inline std::uint64_t NowNs() {
  return MonotonicNs();
}

/// Processor time of the calling thread. Mostly a system call.
inline std::uint64_t ThreadNs() {
  timespec now{};
  (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

/// What a check takes: processor time. One that lost its CPU would otherwise count for more than it took, and
/// keep the next one away for long.
class CheckTimer {
 public:
  /// At least 1. By the clock where the system does not tell processor time, or in too long steps.
  std::uint64_t TookNs() const {
    const std::uint64_t now = ThreadNs();
    if (now > threadStart_) return now - threadStart_;
    const std::uint64_t byClock = NowNs() - start_;
    return byClock == 0 ? 1 : byClock;
  }

 private:
  std::uint64_t start_ = NowNs();
  std::uint64_t threadStart_ = ThreadNs();
};

/// Held by checks alone, never in a call that only counts: for some hundred instructions, or while a content
/// that is seen for the first time is copied, or a source is filled.
class ShortLock {
 public:
  explicit ShortLock(std::atomic<bool>& taken) : taken_(taken) {
    // More workers than processors: the one that holds the lock may have none.
    while (taken_.exchange(true, std::memory_order_acquire)) (void)sched_yield();
  }
  ~ShortLock() { taken_.store(false, std::memory_order_release); }
  ShortLock(const ShortLock&) = delete;
  ShortLock& operator=(const ShortLock&) = delete;

 private:
  std::atomic<bool>& taken_;
};

/// A stretch of memory.
struct Span {
  const std::uint8_t* data = nullptr;
  std::size_t bytes = 0;
};

/// Removes the lines from the caches, so that the next read comes from memory. Written lines reach it first.
inline void FlushLines(Span span) {
  const auto begin = reinterpret_cast<std::uintptr_t>(span.data);
  const std::uintptr_t end = begin + span.bytes;
#if defined(__x86_64__)
  constexpr std::uintptr_t kLine = 64;
  for (std::uintptr_t at = begin / kLine * kLine; at < end; at += kLine) {
    __builtin_ia32_clflush(reinterpret_cast<const void*>(at));
  }
  __builtin_ia32_mfence();
#elif defined(__aarch64__)
  std::uint64_t cacheType = 0;
  __asm__ volatile("mrs %0, ctr_el0" : "=r"(cacheType));
  const std::uintptr_t line = std::uintptr_t{4} << (cacheType >> 16U & 15U);
  for (std::uintptr_t at = begin / line * line; at < end; at += line)
    __asm__ volatile("dc civac, %0" ::"r"(at) : "memory");
  __asm__ volatile("dsb sy" ::: "memory");
#else
  (void)begin;
  (void)end;
#endif
}

inline std::uint64_t WordAt(const std::uint8_t* at, std::size_t bytes) {
  std::uint64_t word = 0;
  std::memcpy(&word, at, bytes < sizeof(word) ? bytes : sizeof(word));
  return word;
}

/// Every single changed word changes the value: each step is a bijection of the word that goes in.
inline std::uint64_t HashOf(Span span, std::uint64_t seed) {
  constexpr std::uint64_t kFactor = 0x9e3779b97f4a7c15U;
  std::uint64_t lanes[4] = {seed, seed + 1, seed + 2, seed + 3};
  std::size_t at = 0;
  for (; at + sizeof(lanes) <= span.bytes; at += sizeof(lanes)) {
    for (std::size_t lane = 0; lane < 4; ++lane) {
      lanes[lane] = (lanes[lane] ^ WordAt(span.data + at + 8 * lane, 8)) * kFactor;
      lanes[lane] ^= lanes[lane] >> 29;
    }
  }
  for (; at < span.bytes; at += 8) {
    lanes[0] = (lanes[0] ^ WordAt(span.data + at, span.bytes - at)) * kFactor;
    lanes[0] ^= lanes[0] >> 29;
  }
  std::uint64_t hash = span.bytes;
  for (const std::uint64_t lane : lanes) {
    hash = (hash ^ lane) * kFactor;
    hash ^= hash >> 32;
  }
  return hash;
}

/// Combines two numbers into one; never 0.
inline std::uint64_t Mixed(std::uint64_t a, std::uint64_t b) {
  std::uint64_t mixed = (a ^ (b + 0x9e3779b97f4a7c15U)) * 0xbf58476d1ce4e5b9U;
  mixed ^= mixed >> 31;
  return mixed == 0 ? 1 : mixed;
}

/// Where and how two stretches differ.
struct Difference {
  std::size_t offset = 0;  ///< of the first differing word
  std::size_t end = 0;     ///< behind the last one
  std::uint64_t expected = 0;
  std::uint64_t found = 0;
  std::uint32_t bits = 0;     ///< in all
  std::size_t words = 0;      ///< differing words of 8 bytes
  std::uint64_t address = 0;  ///< of the first one, in what was found
};

/// True if `expected` and `found` have the same bytes. Otherwise adds to `difference`, whose offsets begin at
/// `from`.
inline bool Same(const std::uint8_t* expected, Span found, std::size_t from, Difference& difference) {
  if (std::memcmp(expected, found.data, found.bytes) == 0) return true;
  for (std::size_t at = 0; at < found.bytes; at += 8) {
    const std::uint64_t right = WordAt(expected + at, found.bytes - at);
    const std::uint64_t word = WordAt(found.data + at, found.bytes - at);
    if (right == word) continue;
    if (difference.words == 0) {
      difference.offset = from + at;
      difference.expected = right;
      difference.found = word;
      difference.address = reinterpret_cast<std::uintptr_t>(found.data + at);
    }
    difference.end = from + at + (found.bytes - at < 8 ? found.bytes - at : 8);
    ++difference.words;
    difference.bits += static_cast<std::uint32_t>(__builtin_popcountll(right ^ word));
  }
  // Gone between the two readings: a difference all the same.
  return false;
}

}  // namespace scope
