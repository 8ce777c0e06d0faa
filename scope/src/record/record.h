// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "deadline.h"
#include "live_export.h"
#include "live_figures.h"
#include "run.h"
#include "signals.h"

namespace scope {

struct RecordOptions : RunSettings {
  std::string config;               ///< the benchmark's configuration file
  std::string savedConfig;          ///< its path in run.json, if it will be moved; empty: `config`
  std::string folder;               ///< the run folder to make
  bool force = false;               ///< replace an existing run in the folder
  std::string label;                ///< the user's text, saved with the run
  unsigned int runTimeS = 0;        ///< 0: as the configuration says
  ExportFiles exports;              ///< for other programs, while the benchmark runs
  std::vector<Deadline> deadlines;  ///< one for each engine at most
  std::optional<double> failOver;   ///< most operations, as a share, that may miss their deadline; none: all
};

struct RecordResult {
  bool complete = false;
  bool stopped = false;      ///< a signal to this program ended the run early
  std::string reason;        ///< why it failed, as printed on standard error; empty if it did not
  std::uint64_t errors = 0;  ///< wrong results and memory errors that were found
  bool exported = true;      ///< false: an export file could not be written to the end. The run is whole
  bool late = false;         ///< more operations missed their deadline than RecordOptions::failOver
  bool hung = false;         ///< it failed because the benchmark did not end
  bool stuck = false;        ///< SIGKILL did not end it either: it still runs
  /// It failed because the recorder did (a full disk, no meter): that says nothing about the board.
  bool recorderFailed = false;
};

/// Runs the benchmark under the meter, shows it in `view` and saves the run folder. A signal from `signals`
/// stops the benchmark with SIGINT. Another one more than a second later kills it. One that comes when it has
/// ended cuts the guard's last walk short. The recording is saved in all cases. A benchmark that SIGKILL does
/// not end is given up. Throws, before anything runs, Interrupted if a signal comes while the guard or the
/// latency probe prepares its memory, and UserError for a configuration that cannot be read, a missing
/// program or meter, or a folder that cannot be used. Threads: one call at a time, on the main thread.
RecordResult Record(const RecordOptions& options, View& view, Signals& signals);

/// Throws UserError if the program or the meter is missing, as Record does. Changes nothing.
void CheckRecord(const RunSettings& settings);

}  // namespace scope
