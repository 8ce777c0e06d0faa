// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "live_export.h"
#include "live_figures.h"
#include "record.h"
#include "saved_run.h"

namespace scope {

/// Where the data of a recording go: the run folder, the export files and the view. Threads: one.
class RecordedData {
 public:
  /// Makes the export files and the run folder. `runTimeS` is for the view, `onFault` for SavedRun. Throws
  /// UserError if a file or the folder cannot be used.
  RecordedData(const RecordOptions& options, Configuration config, double runTimeS, View& view,
               SavedRun::OnFault onFault);

  /// The folder. What is added to it alone is not exported and not shown.
  SavedRun& Saved() { return saved_; }

  void Add(const MeterSecond& second);
  void Add(const std::vector<LatencySecond>& seconds);
  /// The machine's counters at `timeS`, once a second.
  void Add(double timeS, const std::vector<CounterValue>& values);

  /// The benchmark has ended. Tells which export files could not be written to the end. True if all could.
  bool EndExports();

 private:
  std::vector<std::string> exportFaults_;
  LiveExport exports_;  ///< before the folder: one that is replaced loses its old run
  SavedRun saved_;
  Figures figures_;
  double runTimeS_;
  View& view_;
};

}  // namespace scope
