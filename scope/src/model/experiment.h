// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sweep.h"

/// A comparison of two settings that is recorded until its answer is clear, as plain data.
namespace scope {

struct NumberRange {
  double least;
  double most;
};

/// What the settings may be.
constexpr NumberRange kAllowedMaxRuns = {4, 1998};
constexpr NumberRange kAllowedTolerancePercent = {0, 100};
constexpr NumberRange kAllowedConfidence = {0.5, 0.999};
constexpr NumberRange kAllowedWarmupS = {0, 1e6};

/// Saved, so that a continued experiment uses the same settings.
struct ExperimentSettings : RunSettings {
  std::string commandA;  ///< makes the setting of A; if both are empty, the user is asked to
  std::string commandB;
  int mostRuns = 64;  ///< of both sides together
  double tolerancePercent = 2;
  double confidence = 0.95;
  double warmupS = 5;      ///< seconds at the start of each run that the figures leave out
  std::uint64_t seed = 0;  ///< of the order
};

struct ExperimentRun {
  std::string folder;  ///< within the experiment's: "a/001"
  bool isB = false;
  SweepState state = SweepState::kPlanned;
  std::string reason;  ///< why it failed; empty otherwise
};

struct Experiment {
  std::string started;     ///< UTC, ISO 8601
  std::string configPath;  ///< the user's file; the experiment's folder has a copy, config.yaml
  ExperimentSettings settings;
  std::vector<ExperimentRun> runs;  ///< in the order of recording
};

}  // namespace scope
