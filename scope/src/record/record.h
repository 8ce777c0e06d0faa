#pragma once

#include <string>
#include <vector>

#include "run_settings.h"
#include "signals.h"
#include "view.h"

namespace scope {

struct RecordOptions : RunSettings {
  std::string config;         ///< configuration file of the benchmark
  std::string folder;         ///< run folder to make
  bool force = false;         ///< replace a run that is in the folder
  std::string label;          ///< words to keep with the run
  unsigned int runTimeS = 0;  ///< 0: as the configuration says
};

struct RecordResult {
  bool complete = false;
  bool stopped = false;  ///< a signal to this program ended the run early
  std::string reason;    ///< why it failed, empty where it did not; has been told on standard error
};

/// Runs the benchmark under the meter, shows it in `view` and saves the run folder. What `signals` tells
/// stops the benchmark with SIGINT, a second time more than a second later with SIGKILL; the recording is
/// saved in either case. Throws UserError, before anything runs, for a configuration that cannot be
/// read, a missing program or meter, or a folder that cannot be used. Threads: one call at a time, on the
/// main thread.
RecordResult Record(const RecordOptions& options, View& view, Signals& signals);

/// Throws UserError where Record would for a missing program or meter. Makes and changes nothing.
void CheckRecord(const RecordOptions& options);

}  // namespace scope
