// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "run.h"

/// What a sweep records and how much of it is done, as plain data.
namespace scope {

/// A section of the configuration and its levels in the sweep.
struct SweepAxis {
  std::string section;  ///< of an engine: "CPU"
  std::vector<int> levels;
};

/// A point of the grid: the level of each section, in the order of the axes.
using SweepLevels = std::vector<std::pair<std::string, int>>;

enum class SweepState { kPlanned, kDone, kFailed, kInterrupted };

struct SweepRun {
  std::string folder;  ///< within the sweep's
  SweepLevels levels;
  int repeat = 1;  ///< from 1
  int order = 1;   ///< in which the runs are recorded, from 1
  SweepState state = SweepState::kPlanned;
  std::string reason;  ///< why it failed; empty otherwise
};

/// How each run is recorded. Saved, so that a resumed sweep uses the same settings.
struct SweepSettings : RunSettings {
  int repeats = 1;
  double warmupS = 5;      ///< seconds at the start of each run that the figures leave out
  std::uint64_t seed = 0;  ///< of the order
};

struct Sweep {
  std::string started;     ///< UTC, ISO 8601
  std::string configPath;  ///< the user's file; the sweep folder has a copy, config.yaml
  SweepSettings settings;
  std::vector<SweepAxis> axes;
  std::vector<SweepRun> runs;  ///< by point of the grid (the last axis changes fastest), then by repeat
};

}  // namespace scope
