#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

/// What a sweep records, and how far it has come: sweep.json (scope/FORMAT.md).
namespace scope {

/// A section of the configuration and the levels that it gets.
struct SweepAxis {
  std::string section;  ///< "CPU", "VPC", "VENC" or "AIC"
  std::vector<int> levels;
};

/// Levels by section, in the order of the axes: a point of the grid.
using SweepLevels = std::vector<std::pair<std::string, int>>;

/// "CPU=1 VENC=2".
std::string PointText(const SweepLevels& levels);

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
struct SweepSettings {
  int repeats = 1;
  double warmupS = 5;      ///< seconds at the start of each run that the figures leave out
  double stopAfterS = 0;   ///< 0: each run goes on for the run time of the configuration
  std::uint64_t seed = 0;  ///< of the order
  std::string benchmark;   ///< as in RecordOptions, and so are the others
  std::string meter;
  bool useMeter = true;
  std::vector<std::string> extra;
  std::string systemRoot = "/";
  double graceS = 15;
};

struct Sweep {
  std::string started;     ///< UTC, ISO 8601
  std::string configPath;  ///< of the user's file; the folder has it as config.yaml, with absolute paths
  SweepSettings settings;
  std::vector<SweepAxis> axes;
  std::vector<SweepRun> runs;  ///< by point of the grid, the last axis first, then by repeat
};

/// The user's --levels: "CPU=0,1,2,4", "VENC=0..4", "AIC=0,2..4". Throws RunFolderError for a section that
/// there is not, one given twice, and levels that are no numbers from 0 to 10, fall, or come twice.
std::vector<SweepAxis> ParseAxes(const std::vector<std::string>& texts);

/// "CPU=1,VENC=2": one level for each section. Throws RunFolderError.
SweepLevels ParsePoint(const std::string& text);

/// Every point of the grid `repeats` times. All points are recorded once, in random order, before any is
/// recorded again, so that a machine that drifts, and an interruption, touch all points alike. The order
/// depends on `seed` alone. Throws RunFolderError for more than 9999 runs.
std::vector<SweepRun> PlanRuns(const std::vector<SweepAxis>& axes, int repeats, std::uint64_t seed);

/// A configuration file with the settings of `path` and other levels; a section that `path` does not have is
/// added. The model's path is absolute in it. Throws RunFolderError for a file that cannot be read or that
/// the benchmark would refuse, and for an AIC level without an AIC section, which names the model.
std::string PointConfiguration(const std::string& path, const SweepLevels& levels);

bool IsSweepFolder(const std::string& folder);
/// Throws RunFolderError, with the file and what was expected there.
Sweep ReadSweep(const std::string& folder);
/// Replaces sweep.json as a whole. Throws RunFolderError.
void WriteSweep(const std::string& folder, const Sweep& sweep);

}  // namespace scope
