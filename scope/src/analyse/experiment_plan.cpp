// SPDX-License-Identifier: Apache-2.0
#include "experiment_plan.h"

#include <algorithm>
#include <random>

#include "text_format.h"

namespace scope {
namespace {

// Fewer runs show only differences that a glance would show, and the look would make all intervals wider.
constexpr std::size_t kFirstLook = 4;

// What fails in B alone is an answer.
bool HasFailedB(const Experiment& experiment, std::size_t count) {
  const auto begin = experiment.runs.begin();
  return std::any_of(begin, begin + static_cast<std::ptrdiff_t>(count),
                     [](const ExperimentRun& run) { return run.isB && run.state == SweepState::kFailed; });
}

}  // namespace

std::vector<ExperimentRun> PlanExperiment(const ExperimentSettings& settings) {
  std::vector<ExperimentRun> runs;
  // The C++ standard fixes the numbers of this engine.
  std::mt19937_64 random(settings.seed);
  for (int repeat = 1; repeat <= settings.mostRuns / 2; ++repeat) {
    const bool isBFirst = random() % 2 == 1;
    for (const bool isB : {isBFirst, !isBFirst}) {
      ExperimentRun run;
      run.folder = Format("%s/%03d", isB ? "b" : "a", repeat);
      run.isB = isB;
      runs.push_back(run);
    }
  }
  return runs;
}

std::vector<std::size_t> LooksOf(std::size_t repeats) {
  std::vector<std::size_t> looks;
  for (std::size_t look = kFirstLook; look < repeats; look += (look + 1) / 2) looks.push_back(look);
  looks.push_back(repeats);
  return looks;
}

CompareOptions LookOptions(const ExperimentSettings& settings) {
  CompareOptions options;
  options.skipS = settings.warmupS;
  options.tolerancePercent = settings.tolerancePercent;
  options.confidence = settings.confidence;
  options.paired = true;
  options.looks = static_cast<int>(LooksOf(static_cast<std::size_t>(settings.mostRuns / 2)).size());
  return options;
}

// A pair that begins with B gets its A first: a B without an A cannot be judged.
bool IsLook(const Experiment& experiment, std::size_t count) {
  if (count == 0 || count % 2 == 1) return false;
  const std::vector<std::size_t> looks = LooksOf(experiment.runs.size() / 2);
  return std::count(looks.begin(), looks.end(), count / 2) != 0 || HasFailedB(experiment, count);
}

bool IsLastLook(const Experiment& experiment, std::size_t count, Answer answer) {
  return IsClear(answer) || count == experiment.runs.size() || HasFailedB(experiment, count);
}

bool IsClear(Answer answer) {
  return answer != Answer::kCannotTell && answer != Answer::kNotWorse;
}

}  // namespace scope
