// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "errors.h"
#include "histogram.h"
#include "latency_process.h"
#include "run.h"
#include "watcher_process.h"

namespace scope {

/// The bytes that the probe goes through: those of the option --latency-size (see MemoryBytes), or without
/// one eight times the largest of `caches`, at least 256 MiB and at most 1 GiB. Never more than a quarter of
/// `availableBytes`, unless that is 0: unknown; if that is the limit, a power of two. Throws UserError.
std::uint64_t LatencyBytes(const std::string& size, const std::vector<Cache>& caches,
                           std::uint64_t availableBytes);

/// The pages of `bytes` of memory, of which `hugeBytes` are in huge ones: "2 MiB", "4 KiB", or "2 MiB and 4
/// KiB" where the system has no huge page for a part. How large that part is differs from run to run.
std::string LatencyPages(std::uint64_t bytes, std::uint64_t hugeBytes);

/// The refusal of a CPU that the probe cannot have, with the reason as errno.
UserError NoCpuForLatency(int cpu, int error);

/// The process that measures the latency of memory during a run: one thread that follows a chain of pointers
/// in short bursts. It never outlives this object or this program.
class LatencyProbe {
 public:
  /// Returns when the memory is prepared and the latency over its parts is known. `cpu` -1: the last one that
  /// is allowed. Throws UserError if there is no such memory, or if it cannot have that CPU, and Interrupted
  /// if a signal comes from `signals`, which may be null.
  LatencyProbe(std::uint64_t bytes, int cpu, const LatencyRhythm& rhythm = {}, Signals* signals = nullptr);

  pid_t Id() const { return process_.Id(); }
  /// Readable when it has something to say; -1 after its end.
  int Descriptor() const { return process_.Descriptor(); }

  /// Begins to measure. Times are from `startNs` (monotonic) on.
  void Begin(std::uint64_t startNs);
  /// Takes the seconds that have arrived. Does not wait.
  void Read(std::vector<LatencySecond>& seconds);
  /// Takes the rest, and waits until the probe has ended.
  void End(std::vector<LatencySecond>& seconds);

  /// Why it ended before it was asked; empty if it did not.
  const std::string& Fault() const { return process_.Fault(); }
  bool HasCrashed() const { return process_.HasCrashed(); }
  /// What is known so far.
  LatencySummary Summary() const;

 private:
  void Take(const LatencyPacket& packet, std::vector<LatencySecond>& seconds);

  WatcherProcess process_;
  LatencySummary summary_;
  std::uint64_t startNs_ = 0;
  int second_ = 0;  ///< the last one
  double timeS_ = 0;
  Histogram latencies_;
  double batchNs_ = 0;
  std::uint64_t batchAccesses_ = 0;
  std::uint64_t allAccesses_ = 0;
};

/// What figures are of: "256 MiB in pages of 2 MiB, CPU 1, real-time". Runs in which it differs are not
/// compared.
std::string LatencyText(const LatencySummary& latency);

}  // namespace scope
