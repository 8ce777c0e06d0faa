#pragma once

#include <atomic>
#include <cstdint>

#include "latency_buckets.h"
#include "protocol.h"

/// Counts the calls of the wrapped operations and reports them once a second. Everything lives in static
/// memory; recording takes no lock, makes no system call and allocates nothing.
namespace scope {

/// What one thread has done on one engine since the program started. Written by that thread alone and read by
/// the reporting thread, so plain loads and stores do.
struct alignas(64) ThreadCounters {
  /// Notes a call that succeeded: its time, and the bytes that it read and wrote where they are known.
  void Succeeded(std::uint64_t ns, std::uint64_t bytes, bool bytesKnown);
  void Failed();

  std::atomic<std::uint64_t> busyNs;
  std::atomic<std::uint64_t> bytes;
  std::atomic<std::uint64_t> failures;
  std::atomic<std::uint64_t> maxNs;  ///< since the reporting thread last took it and left 0
  std::atomic<std::uint32_t> bytesUnknown;
  std::atomic<std::uint32_t> inUse;  ///< set last when a thread takes these counters
  Engine engine;
  std::uint32_t thread;
  std::atomic<std::uint32_t> buckets[kBucketCount];
};

/// The counters of the calling thread on `engine`. Null when nobody listens (no reader, or a forked child),
/// and for threads beyond those that there is room for, whose calls are counted as unmeasured. Never waits.
ThreadCounters* CountersOf(Engine engine);

/// Starts the reporting thread when the environment names a reader's socket; otherwise nothing ever is
/// recorded. `hostPlatform` and `platformPath` (null: unknown) go into the Hello. Called once, before main.
void StartReporting(bool hostPlatform, const char* platformPath);

/// Sends what is left and ends the reporting thread; waits some seconds at most for a reader that is late.
/// Called once, after main.
void StopReporting();

}  // namespace scope
