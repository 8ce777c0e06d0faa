// SPDX-License-Identifier: Apache-2.0
#include "experiment_look.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "compare_conditions.h"
#include "compare_input.h"
#include "errors.h"
#include "experiment_plan.h"

namespace scope {
namespace {

bool IsRecordedRun(const ExperimentRun& run) {
  return run.state == SweepState::kDone || run.state == SweepState::kFailed;
}

void RequireRunsOf(const std::string& folder, const Experiment& experiment, bool isB) {
  const bool isRecorded =
      std::any_of(experiment.runs.begin(), experiment.runs.end(),
                  [isB](const ExperimentRun& run) { return run.isB == isB && IsRecordedRun(run); });
  if (isRecorded) return;
  throw UserError(folder + ": no run of " + (isB ? "B" : "A") +
                  " is recorded. Continue with: stress_scope ab --resume " + folder);
}

}  // namespace

ComparedSides LookAt(const std::string& folder, const Experiment& experiment, std::size_t count) {
  Experiment part = experiment;
  part.runs.resize(count);
  ComparedSides sides;
  sides.a = ReadExperimentSide(folder, part, false);
  sides.b = ReadExperimentSide(folder, part, true);
  sides.options = LookOptions(experiment.settings);
  sides.comparison = Compare(sides.a, sides.b, sides.options);
  sides.differences = DifferentConditions(sides.a.runs, sides.b.runs);
  return sides;
}

ComparedSides LastLook(const std::string& folder, const Experiment& experiment) {
  RequireRunsOf(folder, experiment, false);
  RequireRunsOf(folder, experiment, true);
  const std::vector<ExperimentRun>& runs = experiment.runs;
  const auto open = std::find_if_not(runs.begin(), runs.end(), IsRecordedRun);
  const auto recorded = static_cast<std::size_t>(open - runs.begin());
  std::optional<ComparedSides> last;
  for (std::size_t count = 2; count <= recorded; count += 2) {
    if (!IsLook(experiment, count)) continue;
    last = LookAt(folder, experiment, count);
    if (IsLastLook(experiment, count, last->comparison.answer)) break;
  }
  if (last) return *std::move(last);
  return LookAt(folder, experiment, runs.size());
}

}  // namespace scope
