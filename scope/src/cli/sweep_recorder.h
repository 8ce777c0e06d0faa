// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "command_line.h"
#include "plan.h"
#include "signals.h"
#include "sweep.h"

namespace scope {

/// True if runs of the series in `folder` have found errors, also runs that are not done.
bool HasErrors(const std::string& folder, const Sweep& sweep);

/// What the recorder of a series has to know, beside its runs.
struct SweepKind {
  const char* command;          ///< "sweep", for messages
  std::function<void()> write;  ///< writes the file of the series; throws UserError
};

/// Records what is left of a sweep, or of another series of runs. sweep.json is up to date after each run.
/// Over settings of the board, it also says what runs, on the disk, before anything of the run begins: the
/// machine may die in it.
class SweepRecorder {
 public:
  /// `sweep` is that of `folder`, which the caller has locked.
  SweepRecorder(std::string folder, Sweep& sweep, Output output, SweepKind kind);

  /// Records all runs, or those that the search for the edge asks for. Then it makes the first value of each
  /// setting, also after a signal and after a failure. Ends early if what ran does not end, even after
  /// SIGKILL: it would disturb all that follows. True if nothing is left to record and these values are made.
  /// Throws UserError if the recording cannot go on. Over settings, that is so when the recorder fails in a
  /// run (a full disk, no meter): it would fail at each point, and that is no result.
  bool Run();

 private:
  bool HasSettings() const { return !sweep_.boardAxes.empty(); }
  const PlanCell& CellOf(const SweepRun& run) const;
  bool IsDone(const SweepRun& run) const;
  void TakeUp(SweepRun& run);
  void TakeUpLost(SweepRun& run);
  void PrepareRuns();
  SweepRun* Next();
  void TellOfRun(const SweepRun& run) const;
  void Begin(SweepRun& run);
  void TakeBack(SweepRun& run);
  bool Record(SweepRun& run);
  bool RecordAll();
  bool Restore();

  std::string folder_;
  Sweep& sweep_;
  Output output_;
  SweepKind kind_;
  Plan plan_;
  std::string bootId_;
  double runS_ = 0;
  std::vector<SweepRun*> toRecord_;  // of the whole grid, in order
  std::size_t begun_ = 0;
  bool isStuck_ = false;  // what ran last does not end
  // Lives across all runs: a signal between two runs must not leave sweep.json out of date.
  Signals signals_;
};

}  // namespace scope
