// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "benchmark_log.h"
#include "failures.h"
#include "memory_errors.h"
#include "meter_reader.h"
#include "record.h"
#include "run.h"
#include "run_writer.h"

namespace scope {

/// The run that is being recorded: its folder, and what the data in it says about failures. A write that
/// fails is no exception: `onFault` is called with the reason, and nothing more is added to the tables,
/// because the run would have a gap. Threads: one.
class SavedRun {
 public:
  using OnFault = std::function<void(const std::string& reason)>;

  /// Reads the machine's conditions and makes the folder. Throws UserError if the folder cannot be used.
  SavedRun(const RecordOptions& options, Configuration config, OnFault onFault);

  /// Names the sources of the counters that will be added. Call it before Begin.
  void AddSources(const std::vector<CounterSource>& sources);

  /// Makes the files: a folder of a recorder that was killed can be read. Tells which sections of the
  /// configuration no stress reads. Throws UserError if a file cannot be written.
  void Begin();

  /// Lines of the benchmark's standard output, which came at `timeS`.
  void AddRateLines(const std::vector<std::string>& lines, double timeS);
  /// Lines of its log.
  void AddLog(const std::vector<std::string>& lines);
  void Add(const MeterSecond& second);
  void Add(const std::vector<CounterValue>& values);
  void Add(const std::vector<LatencySecond>& seconds);
  /// Errors that the meter or the guard found.
  void Add(std::vector<RunError> errors);

  /// What the latency probe works with, and at the end also what it measured.
  void SetLatency(const LatencySummary& latency);

  /// True after SetLibraries.
  bool KnowsLibraries() const { return info_.conditions.meter; }
  /// The libraries that the benchmark has loaded. The meter has found them.
  void SetLibraries(std::vector<std::pair<std::string, std::string>> versions);

  // At the end, in this order:

  /// What the meter reported of the whole run. Tells what it could not measure or fill. Tries to write even
  /// after a failed write: there may be room again, and the file does not need the others.
  void AddTotals(const MeterReader& meter);

  /// What the guard did. Adds the errors that no row of the table has.
  void SetGuard(const GuardSummary& guard);

  /// Adds what failed in the run to what was found at its start, and tells it. `fault` is the supervisor's.
  /// `endS` and `allCounted` are those of FailureWatch::Failures.
  void FindFailures(const std::string& fault, double endS, bool allCounted);

  /// Errors of all sources so far, in the table or not.
  std::uint64_t Errors() const;

  /// Writes run.json for the last time. Returns all failures, one line each; empty for a complete run.
  const std::vector<std::string>& End(double durationS, int exitStatus, int signal);

 private:
  void SetFilling(std::vector<EngineFill> filling);
  void CountAtLeast(const std::string& source, std::uint64_t errors);
  void TakeWhatPlatformLogged();
  template <typename Write>
  void Save(Write write);
  template <typename Write>
  bool Try(Write write);

  OnFault onFault_;
  RunInfo info_;
  bool useMeter_;
  RunWriter writer_;
  FailureWatch watch_;
  LogFile logFile_;
  std::vector<std::string> failures_;  ///< one line each
  int badLines_ = 0;
  bool saving_ = true;
  MemoryErrors memoryErrors_;
  std::size_t errorRows_ = 0;
};

}  // namespace scope
