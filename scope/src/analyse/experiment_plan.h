// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <vector>

#include "compare.h"
#include "experiment.h"

namespace scope {

/// Plans settings.mostRuns runs (one less if odd). A and B are recorded once each, in random order, before
/// either is recorded again. So drift touches both alike. The order depends on settings.seed alone.
std::vector<ExperimentRun> PlanExperiment(const ExperimentSettings& settings);

/// The numbers of runs a side after which the sides are compared, rising, the last is `repeats`. Each is
/// about half as great again as the one before: every look has to share the confidence with all others.
std::vector<std::size_t> LooksOf(std::size_t repeats);

/// How the sides are compared at each look, so that the answer holds with the confidence over all looks.
CompareOptions LookOptions(const ExperimentSettings& settings);

/// True if the sides are compared after the first `count` runs: at a look, and when a run of B has failed.
bool IsLook(const Experiment& experiment, std::size_t count);

/// True if no more runs are recorded after the look at the first `count` runs, which had this answer.
bool IsLastLook(const Experiment& experiment, std::size_t count, Answer answer);

/// True if more runs would not change what is said: B is worse, better, or does not differ.
bool IsClear(Answer answer);

}  // namespace scope
