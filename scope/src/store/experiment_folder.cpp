// SPDX-License-Identifier: Apache-2.0
#include "experiment_folder.h"

#include <cstddef>
#include <utility>
#include <vector>

#include "errors.h"
#include "series_json.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr SeriesKind kExperiment = {kExperimentName, "experiment", "an experiment", 1};

// Calls `visit` with the key and the value of each setting.
template <typename Settings, typename Visit>
void ForEachExperimentSetting(Settings& settings, Visit visit) {
  visit("a", settings.commandA);
  visit("b", settings.commandB);
  visit("max_runs", settings.mostRuns);
  visit("tolerance_percent", settings.tolerancePercent);
  visit("confidence", settings.confidence);
  visit("seed", settings.seed);
  visit("warmup_s", settings.warmupS);
  ForEachRunSetting(settings, visit);
}

// Another program may have written the file, or somebody who means harm.
void RequireRange(const char* key, double value, const NumberRange& range, const std::string& path) {
  if (value >= range.least && value <= range.most) return;
  throw DamagedFolder(path + Format(": %s: expected a number from %.15g to %.15g, found %.15g", key,
                                    range.least, range.most, value));
}

void RequireRanges(const ExperimentSettings& settings, const std::string& path) {
  RequireRange("max_runs", settings.mostRuns, kAllowedMaxRuns, path);
  RequireRange("tolerance_percent", settings.tolerancePercent, kAllowedTolerancePercent, path);
  RequireRange("confidence", settings.confidence, kAllowedConfidence, path);
  RequireRange("warmup_s", settings.warmupS, kAllowedWarmupS, path);
}

// The confidence is that of pairs, which are all recorded. A continued experiment replaces the runs' folders,
// so they must be inside its own: "a/001" and "b/001" are the first pair.
void RequirePairs(const Experiment& experiment, const std::string& path) {
  const std::vector<ExperimentRun>& runs = experiment.runs;
  const auto count = static_cast<std::size_t>(experiment.settings.mostRuns / 2 * 2);
  if (runs.size() != count) {
    throw DamagedFolder(path + ": expected " + Counted(count, "run") + ", found " +
                        std::to_string(runs.size()));
  }
  for (std::size_t i = 0; i < count; ++i) {
    const bool isB = i % 2 == 0 ? runs[i].isB : !runs[i - 1].isB;
    const std::string folder = Format("%s/%03zu", isB ? "b" : "a", i / 2 + 1);
    if (runs[i].isB == isB && runs[i].folder == folder) continue;
    throw DamagedFolder(path + ": expected the run " + folder + ", found \"" + runs[i].folder + "\"");
  }
}

Experiment ExperimentFromJson(const SeriesJson& json, const std::string& path) {
  Experiment experiment;
  json.at("started").get_to(experiment.started);
  json.at("config").at("path").get_to(experiment.configPath);
  ForEachExperimentSetting(experiment.settings,
                           [&](const char* key, auto& value) { GetField(json, key, value); });
  for (const SeriesJson& entry : json.at("runs")) {
    ExperimentRun run;
    GetRun(entry, path, run);
    run.isB = entry.at("side").get<std::string>() == "b";
    experiment.runs.push_back(std::move(run));
  }
  RequireRanges(experiment.settings, path);
  RequirePairs(experiment, path);
  return experiment;
}

}  // namespace

bool IsExperimentFolder(const std::string& folder) {
  return IsSeriesFolder(folder, kExperiment);
}

Experiment ReadExperiment(const std::string& folder) {
  const std::string path = folder + "/" + kExperimentName;
  const SeriesJson json = ReadSeriesJson(folder, kExperiment);
  return ReadFrom(path, [&] { return ExperimentFromJson(json, path); });
}

void WriteExperiment(const std::string& folder, const Experiment& experiment) {
  SeriesJson json = SeriesHead(kExperiment, experiment.started, experiment.configPath);
  ForEachExperimentSetting(experiment.settings,
                           [&](const char* key, const auto& value) { json[key] = value; });
  json["runs"] = SeriesJson::array();
  for (const ExperimentRun& run : experiment.runs) {
    SeriesJson entry{{"folder", run.folder}, {"side", run.isB ? "b" : "a"}};
    PutState(entry, run);
    json["runs"].push_back(std::move(entry));
  }
  WriteSeriesJson(folder, kExperiment, json);
}

}  // namespace scope
