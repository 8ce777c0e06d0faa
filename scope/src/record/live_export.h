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

/// Gives a recording to other programs while it runs.
class LiveExport {
 public:
  /// Writes each file for the first time. Throws UserError if it cannot. A file that cannot be written later
  /// is reported once to `fail`, and not written again.
  LiveExport(ExportFiles files, const std::string& label, std::function<void(const std::string&)> fail);

  void Add(const MeterSecond& second);
  void Add(const std::vector<CounterValue>& values);
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
  bool metricsFailed_ = false;
  bool traceFailed_ = false;
};

}  // namespace scope
