// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "child_process.h"
#include "meter_reader.h"
#include "record.h"
#include "recorded_data.h"
#include "supervisor.h"

namespace scope {

/// The benchmark of a recording: its process, its output, its log and its meter. Threads: one.
class RunningBenchmark {
 public:
  using OnFault = std::function<void(const std::string& reason)>;

  /// Starts `program`. `preload` is the meter's path; empty: without it. Times are from `startNs` (monotonic)
  /// on. `onFault` is called if Read does not understand what the meter sends; nothing more is read from it
  /// then. Throws std::runtime_error if the program cannot be started.
  RunningBenchmark(const RecordOptions& options, const std::string& program, const std::string& preload,
                   std::uint64_t startNs, OnFault onFault);

  ChildProcess& Process() { return process_; }
  const MeterReader& Meter() const { return *meter_; }
  /// Readable when it has something to say; -1 if it will say nothing more.
  std::array<int, 3> Descriptors() const;

  /// Adds to `data` what has arrived, and tells `supervisor` of signs of life. Does not wait. True if the
  /// benchmark has ended: then all that it wrote was read.
  bool Read(Supervisor& supervisor, RecordedData& data);
  /// How it ended. Call it after Read has returned true, or for a benchmark that was given up.
  Supervisor::Ending Ending() const;

 private:
  void ReadOutput(std::size_t mostBytes, Supervisor& supervisor, RecordedData& data);
  void ReadMeter(Supervisor& supervisor, RecordedData& data);

  bool useMeter_;
  std::uint64_t startNs_;
  OnFault onFault_;
  std::unique_ptr<MeterReader> meter_;
  ChildProcess process_;
  LineReader output_;
  LineReader errors_;
};

}  // namespace scope
