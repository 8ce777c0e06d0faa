// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "metrics.h"
#include "trace_file.h"

namespace scope {

struct ExportFiles {
  std::string metrics;  ///< replaced once a second; empty: none
  std::string trace;    ///< empty: none
};

/// Throws UserError unless each file can be replaced, and is neither the other one, nor `config`, nor in the
/// run folder `folder`.
void RequireOwnFiles(const ExportFiles& files, const std::string& config, const std::string& folder);

/// Gives a recording to other programs while it runs.
class LiveExport {
 public:
  /// Writes each file for the first time. Throws UserError if it cannot. A file that cannot be written later
  /// is reported once to `fail`, and not written again.
  LiveExport(ExportFiles files, const std::string& label, std::function<void(const std::string&)> fail);
  /// Calls End, if nobody did.
  ~LiveExport();
  LiveExport(const LiveExport&) = delete;
  LiveExport& operator=(const LiveExport&) = delete;

  void Add(const MeterSecond& second);
  /// The machine's counters at `timeS`, once a second. The metrics are written then.
  void Add(double timeS, const std::vector<CounterValue>& values);
  /// Seconds of the latency probe.
  void Add(const std::vector<LatencySecond>& seconds);
  /// The benchmark has ended.
  void End();

 private:
  void WriteMetrics(bool running);
  template <typename Writing>
  void Try(bool& stop, const Writing& write);

  ExportFiles files_;
  std::function<void(const std::string&)> fail_;
  Metrics metrics_;
  std::unique_ptr<TraceFile> trace_;
  bool ended_ = false;
  bool metricsFailed_ = false;
  bool traceFailed_ = false;
};

}  // namespace scope
