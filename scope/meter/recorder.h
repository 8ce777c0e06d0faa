// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>

#include "latency_buckets.h"
#include "protocol.h"

/// Counts the calls of the wrapped operations and reports them once a second. All data is in static memory.
/// Recording takes no lock, makes no system call and allocates nothing. Only the first call of a thread may
/// give the thread its CPUs.
namespace scope {

/// The benchmark has at most 40 workers, and a resize worker needs two sets.
constexpr std::uint32_t kCounterSets = 128;

/// What one thread has done on one engine since the program started. Only that thread writes, and the
/// reporting thread reads, so plain loads and stores are enough.
struct alignas(64) ThreadCounters {
  /// Counts a call that succeeded: its time and, if known, the bytes that it read and wrote.
  void Succeeded(std::uint64_t ns, std::uint64_t bytes, bool bytesKnown);
  void Failed();

  std::atomic<std::uint64_t> busyNs;
  std::atomic<std::uint64_t> bytes;
  std::atomic<std::uint64_t> failures;
  std::atomic<std::uint64_t> maxNs;  ///< since the reporting thread last took it and set it to 0
  std::atomic<std::uint32_t> bytesUnknown;
  std::atomic<std::uint32_t> inUse;  ///< set after all other members when a thread takes these counters
  Engine engine;
  std::uint32_t thread;
  std::uint32_t set;  ///< number of this set of counters
  std::atomic<std::uint32_t> buckets[kBucketCount];
};

/// The counters of the calling thread on `engine`. Null if there is no reader, or in a forked child. Also
/// null if all sets of counters are taken: the call is then counted as unmeasured. Never waits.
ThreadCounters* CountersOf(Engine engine);

/// What the meter does beside counting.
struct Extras {
  bool fill = false;
  bool verify = false;
  bool deadlines = false;
};

/// Starts the reporting thread if the environment names a reader's socket. Otherwise nothing is recorded.
/// `hostPlatform` and `platformPath` (null: unknown) go into the Hello. What `extras` name is reported, too.
/// Called once, before main. False if nothing is recorded.
bool StartReporting(bool hostPlatform, const char* platformPath, const Extras& extras);

/// Sends what is left and ends the reporting thread. Waits a few seconds at most for a slow reader.
/// Called once, after main.
void StopReporting();

}  // namespace scope
