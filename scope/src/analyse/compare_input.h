// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "experiment.h"
#include "run.h"

namespace scope {

/// One of the two sides of a comparison.
struct Side {
  std::string name;  ///< as the user gave it
  std::vector<Run> runs;
  std::optional<double> warmupS;  ///< of the sweep, if the side is a point of one
  /// Of a point of a sweep: why other runs there failed, one for each. They have no figures.
  std::vector<std::string> failures;
};

/// Why runs of the side failed: at most three reasons, each once, without lines of the log.
std::string FailureReasons(const Side& side);

/// Reads a run folder, a folder of runs, or a point of a sweep. A point is FOLDER:CPU=2,VENC=0, with a level
/// for each swept section. The runs of a folder, and the finished runs of a point, are repeats. Throws
/// UserError for anything else, and for a point without a finished run.
Side ReadSide(const std::string& argument);

/// Reads the recorded runs of one side of the experiment in `folder`, in the order of recording. There may be
/// none. Throws UserError.
Side ReadExperimentSide(const std::string& folder, const Experiment& experiment, bool isB);

}  // namespace scope
