#pragma once

#include <string>
#include <vector>

#include "signals.h"
#include "view.h"

namespace scope {

struct RecordOptions {
  std::string config;     ///< configuration file of the benchmark
  std::string folder;     ///< run folder to make
  bool force = false;     ///< replace a run that is in the folder
  std::string benchmark;  ///< program; empty: stress_benchmark beside this program
  std::string meter;      ///< library; empty: libstress_scope.so in the lib folder beside this program's
  bool useMeter = true;   ///< false: rate lines, counters and conditions alone
  std::string label;
  std::vector<std::string> extra;  ///< further arguments of the benchmark
  std::string systemRoot = "/";    ///< where sys and proc are
  unsigned int runTimeS = 0;       ///< 0: as the configuration says
  double stopAfterS = 0;           ///< seconds after which SIGINT ends the run; 0: it ends by itself
  double graceS = 15;              ///< seconds without a sign of life, past the run time, that count as hung
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
