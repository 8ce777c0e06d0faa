#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "run_settings.h"

/// What a sweep records, and how far it has come, as plain data.
namespace scope {

/// A section of the configuration and the levels that it gets.
struct SweepAxis {
  std::string section;  ///< of an engine: "CPU"
  std::vector<int> levels;
};

/// Levels by section, in the order of the axes: a point of the grid.
using SweepLevels = std::vector<std::pair<std::string, int>>;

enum class SweepState { kPlanned, kDone, kFailed, kInterrupted };

struct SweepRun {
  std::string folder;  ///< within the sweep's
  SweepLevels levels;
  int repeat = 1;  ///< from 1
  int order = 1;   ///< of execution, from 1
  SweepState state = SweepState::kPlanned;
  std::string reason;  ///< why it failed; empty otherwise
};

/// How each run is recorded, kept so that a resumed sweep does the same.
struct SweepSettings : RunSettings {
  int repeats = 1;
  double warmupS = 5;      ///< seconds at the start of each run that the figures leave out
  std::uint64_t seed = 0;  ///< of the order
};

struct Sweep {
  std::string started;     ///< UTC, ISO 8601
  std::string configPath;  ///< of the user's file; the folder has it as config.yaml, with absolute paths
  SweepSettings settings;
  std::vector<SweepAxis> axes;
  std::vector<SweepRun> runs;  ///< by point of the grid, the last axis first, then by repeat
};

}  // namespace scope
