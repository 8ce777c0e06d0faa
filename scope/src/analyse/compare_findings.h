// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "run.h"
#include "run_summary.h"

namespace scope {

/// A trouble of runs that no rate shows: a run that is not complete, an engine that stops early, operations
/// that fail, memory errors, throttling.
struct Finding {
  std::string engine;  ///< empty if it is about the run or the machine
  std::string text;    ///< one sentence with both sides
  /// B is worse: only B has it, or each run of B has more than twice as much of it as any run of A.
  bool worse = false;
};

/// A run and its summary.
struct SummarisedRun {
  const Run* run = nullptr;
  RunSummary summary;
};

/// How many runs of the side had errors, and when. Without errors: the failure rate that is still possible.
/// Counts runs that looked for errors (see LooksForErrors) and says how many others there are. Empty if no
/// run has an error and none was asked to look for any. `failedRuns` more runs failed and are not among
/// `runs`: then the failure rate is not bounded.
std::string TimeToFailure(const std::vector<SummarisedRun>& runs, const char* side,
                          std::size_t failedRuns = 0);

/// The troubles of the runs of both sides, errors first. Sentences call the sides `nameOfA` and `nameOfB`.
std::vector<Finding> CompareTroubles(const std::vector<SummarisedRun>& a, const std::vector<SummarisedRun>& b,
                                     const std::string& nameOfA = "A", const std::string& nameOfB = "B");

}  // namespace scope
