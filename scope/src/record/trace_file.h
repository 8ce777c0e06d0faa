// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "durable_file.h"
#include "meter_reader.h"
#include "run.h"

namespace scope {

/// A run as a trace: a file in the JSON array form of the trace event format, which trace viewers open. Each
/// worker thread is a track with a slice for each second. Rates, latencies and the machine's counters are
/// counter tracks. Times are in microseconds from the benchmark's start. Failures to write are UserErrors.
class TraceFile {
 public:
  /// Replaces an existing file.
  explicit TraceFile(const std::string& path);

  void Add(const MeterSecond& second);
  /// `timeS`: when they were read. Their values are those of the time since the call before.
  void Add(double timeS, const std::vector<CounterValue>& values);
  /// Seconds of the latency probe, in order of time.
  void Add(const std::vector<LatencySecond>& seconds);
  /// Ends the file. A viewer opens one without its end, too.
  void Close();

 private:
  void NameThread(const Sample& sample);
  void Count(int process, double timeS, const std::string& name, double value);
  void Event(const std::string& json);
  void Flush();

  OutputFile file_;
  std::string events_ = "[\n";  ///< not yet written
  std::set<std::pair<std::string, int>> threads_;
  double timeS_ = 0;      ///< end of the last second
  double countersS_ = 0;  ///< when the counters were last read
  double latencyS_ = 0;   ///< end of the latency probe's last second
  bool first_ = true;
};

}  // namespace scope
