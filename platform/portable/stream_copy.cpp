// SPDX-License-Identifier: Apache-2.0
#include "stream_copy.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace Ormis::portable {

namespace {

constexpr std::size_t kLineBytes = 64;
constexpr std::size_t kFlushedAtOnce = 4096;

void CopyByLibrary(void* destination, const void* source, std::size_t bytes, FlushLines flush) {
  std::memcpy(destination, source, bytes);
  if (flush == nullptr) return;
  flush(source, bytes);
  flush(destination, bytes);
  EndFlush();
}

/// Copies one whole cache line, so that the processor writes it to memory at once and does not read it first.
template <typename Vector>
[[gnu::always_inline]] inline void CopyLine(unsigned char* to, const unsigned char* from) {
  constexpr std::size_t kVectors = kLineBytes / sizeof(Vector);
  Vector line[kVectors];
  std::memcpy(line, from, kLineBytes);
  for (std::size_t i = 0; i < kVectors; ++i) {
    __builtin_nontemporal_store(line[i], reinterpret_cast<Vector*>(to) + i);
  }
}

/// The loop for all widths. Inlined into functions that are compiled for Vector's instructions. Flushes the
/// source behind itself, by pages, and the destination's first and last line, which are written through the
/// caches where they are not whole.
template <typename Vector>
[[gnu::always_inline]] inline void CopyLines(void* destination, const void* source, std::size_t bytes,
                                             FlushLines flush) {
  auto* to = static_cast<unsigned char*>(destination);
  const auto* from = static_cast<const unsigned char*>(source);
  const unsigned char* flushed = from;
  const std::size_t toLine = (kLineBytes - reinterpret_cast<std::uintptr_t>(to) % kLineBytes) % kLineBytes;
  const std::size_t head = std::min(toLine, bytes);
  std::size_t left = bytes - head;
  std::memcpy(to, from, head);
  to += head;
  from += head;

  while (left >= kLineBytes) {
    const std::size_t block = std::min(left / kLineBytes * kLineBytes, kFlushedAtOnce);
    // Line after line, without prefetch instructions: several pages at a time were measured to be up to a
    // third slower, and prefetching to change little.
    for (const unsigned char* const end = from + block; from != end; from += kLineBytes, to += kLineBytes) {
      CopyLine<Vector>(to, from);
    }
    left -= block;
    // A page late: a line that is flushed while it is still being read would come back.
    if (flush != nullptr && static_cast<std::size_t>(from - flushed) > kFlushedAtOnce) {
      const std::size_t done = static_cast<std::size_t>(from - flushed) - kFlushedAtOnce;
      flush(flushed, done);
      flushed += done;
    }
  }
  std::memcpy(to, from, left);
  if (flush == nullptr || bytes == 0) return;
  flush(flushed, static_cast<std::size_t>(from - flushed) + left);
  flush(destination, 1);
  flush(static_cast<unsigned char*>(destination) + bytes - 1, 1);
  EndFlush();
}

#if defined(__x86_64__)

using Bytes16 = long long __attribute__((vector_size(16)));
using Bytes32 = long long __attribute__((vector_size(32)));
using Bytes64 = long long __attribute__((vector_size(64)));

// Streaming stores are not ordered with later stores. Without the fence another thread could see a flag that
// says "copied" before it sees the copy.
void StreamSse2(void* destination, const void* source, std::size_t bytes, FlushLines flush) {
  CopyLines<Bytes16>(destination, source, bytes, flush);
  __builtin_ia32_sfence();
}

[[gnu::target("avx")]] void StreamAvx(void* destination, const void* source, std::size_t bytes,
                                      FlushLines flush) {
  CopyLines<Bytes32>(destination, source, bytes, flush);
  __builtin_ia32_sfence();
}

[[gnu::target("avx512f")]] void StreamAvx512(void* destination, const void* source, std::size_t bytes,
                                             FlushLines flush) {
  CopyLines<Bytes64>(destination, source, bytes, flush);
  __builtin_ia32_sfence();
}

#elif defined(__aarch64__)

/// Two registers wide: the compiler stores such a vector with STNP, which takes a pair of registers.
using Bytes32 = long long __attribute__((vector_size(32)));

// STNP stores are ordered like any other stores, so no fence is needed. That they pass the caches is only a
// hint, so the whole destination is flushed.
void StreamNeon(void* destination, const void* source, std::size_t bytes, FlushLines flush) {
  CopyLines<Bytes32>(destination, source, bytes, flush);
  if (flush == nullptr) return;
  flush(destination, bytes);
  EndFlush();
}

#endif

CopyRoutineList FindRoutines() {
  CopyRoutineList routines;
  routines.Add({"memcpy", CopyByLibrary});
#if defined(__x86_64__)
  routines.Add({"sse2", StreamSse2});
  if (__builtin_cpu_supports("avx")) routines.Add({"avx", StreamAvx});
  if (__builtin_cpu_supports("avx512f")) routines.Add({"avx512", StreamAvx512});
#elif defined(__aarch64__)
  routines.Add({"stnp", StreamNeon});
#endif
  return routines;
}

}  // namespace

const CopyRoutineList& CopyRoutines() {
  static const CopyRoutineList routines = FindRoutines();
  return routines;
}

const CopyRoutine& RoutineFor(std::size_t bytes) {
  return bytes < kStreamFromBytes ? CopyRoutines().front() : CopyRoutines().back();
}

void CopyToMemory(void* destination, const void* source, std::size_t bytes) {
  RoutineFor(bytes).copy(destination, source, bytes, bytes < kStreamFromBytes ? nullptr : CurrentFlush());
}

}  // namespace Ormis::portable
