// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "control.h"
#include "counters.h"
#include "guard.h"
#include "latency_probe.h"
#include "machine_load.h"
#include "record.h"
#include "recorded_data.h"
#include "signals.h"
#include "supervisor.h"

namespace scope {

/// What works beside the benchmark of a recording: the counters of the machine and, where they are asked for,
/// the processes of the guard, the latency probe and the control. Threads: one.
class Watchers {
 public:
  /// `isOfBoard` is Supervisor::RecordingFailed's.
  using OnFault = std::function<void(const std::string& reason, bool isOfBoard)>;

  /// Returns when the processes are ready. `onFault` is called once for each that ends before it was asked.
  /// Throws UserError if one cannot do its work, and Interrupted if a signal comes from `signals`.
  Watchers(const RecordOptions& options, Signals& signals, OnFault onFault);

  /// Names in the run what the watchers will add. Call it before SavedRun::Begin.
  void Describe(SavedRun& run) const;
  /// Reads the counters just before the benchmark starts: errors up to now are not of this run. Times are
  /// from `startNs` (monotonic) on.
  void Prepare(std::uint64_t startNs);
  /// The benchmark has started, as process `benchmark`.
  void Begin(pid_t benchmark, RecordedData& data);

  /// Readable when a process has something to say; -1 without it.
  std::array<int, 3> Descriptors() const;
  /// Adds to `data` what the processes have sent and, once a second, the counters. Does not wait.
  void Read(RecordedData& data);
  /// Adds the counters now.
  void ReadCounters(RecordedData& data);
  /// The benchmark has ended. Waits for the end of the latency probe, and then for the guard's last walk,
  /// which a signal cuts short, and adds what they found.
  void End(Signals& signals, Supervisor& supervisor, RecordedData& data);

 private:
  std::vector<pid_t> Processes() const;
  void AddCounters(double timeS, std::vector<CounterValue> values, RecordedData& data);
  void ReadMemoryControllers(RecordedData& data);
  void ReadGuard(RecordedData& data);
  void EndGuard(Signals& signals, Supervisor& supervisor, RecordedData& data);
  void ReadLatency(bool toItsEnd, RecordedData& data);
  void WatchControl();

  OnFault onFault_;
  std::unique_ptr<Guard> guard_;           ///< null without one
  std::unique_ptr<LatencyProbe> latency_;  ///< as well
  std::unique_ptr<Control> control_;       ///< as well
  Counters counters_;
  MachineLoad load_;
  std::vector<CounterValue> before_;  ///< the benchmark
  pid_t benchmark_ = -1;
  std::uint64_t startNs_ = 0;
  double counterTimeS_ = kCounterPeriodS;  ///< when the counters are read next
};

}  // namespace scope
