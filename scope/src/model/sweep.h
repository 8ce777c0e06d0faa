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

/// The values of a setting of the board: "refresh" to "3900", "7800".
using SettingAxis = std::pair<std::string, std::vector<std::string>>;

/// Settings of a board: name to value, such as "refresh" to "7800".
using BoardSettings = std::vector<std::pair<std::string, std::string>>;

enum class SweepState {
  kPlanned,
  kRunning,  ///< begun; only of a sweep over settings, which has to know what was running when it died
  kDone,
  kFailed,
  kHung,  ///< failed because it did not end
  kInterrupted
};

struct SweepRun {
  std::string folder;  ///< within the sweep's
  SweepLevels levels;
  BoardSettings settings;
  double dutyPercent = kWholeDuty;  ///< see RunSettings; no more than that of the sweep's settings
  int repeat = 1;                   ///< from 1
  /// The run's place in the order of recording, from 1. In a sweep for the edge: only the number of the cell.
  int order = 1;
  SweepState state = SweepState::kPlanned;
  std::string reason;  ///< why it failed, or which errors a run that is done has found; empty otherwise
  int lost = 0;        ///< how often the recorder or the machine died in it
  int attempt = 0;     ///< for kRunning: the number of the attempt that has begun
};

/// How each run is recorded. Saved, so that a resumed sweep uses the same settings.
struct SweepSettings : RunSettings {
  int repeats = 1;
  double warmupS = 5;      ///< seconds at the start of each run that the figures leave out
  std::uint64_t seed = 0;  ///< of the order
};

/// How settings of the board are swept.
struct MarginSettings {
  std::string apply;     ///< shell command that makes the settings
  BoardSettings chosen;  ///< the point whose margin is asked for
  bool edge = false;     ///< look for the edge; false: record the whole grid
  int tries = 0;         ///< how often a run in which the machine died is begun again
};

struct Sweep {
  std::string started;     ///< UTC, ISO 8601
  std::string configPath;  ///< the user's file; the sweep folder has a copy, config.yaml
  SweepSettings settings;
  std::vector<SweepAxis> axes;
  std::vector<SettingAxis> boardAxes;  ///< empty: no settings are swept, and the next two mean nothing
  MarginSettings margin;
  std::string bootId;    ///< of the machine when the last run began; empty if unknown
  bool restored = true;  ///< false: the board may still have the settings of a run
  /// Sorted by point of the grid (the last axis changes fastest, those of settings come after levels), then
  /// by repeat.
  std::vector<SweepRun> runs;
};

}  // namespace scope
