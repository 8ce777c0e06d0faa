// SPDX-License-Identifier: Apache-2.0
#include "experiment_folder.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "errors.h"
#include "series_json.h"

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

// A continued experiment replaces this folder, so it must be inside the experiment's own: "a/001".
bool IsFolderOfRun(const std::string& folder, bool isB) {
  return folder.size() > 2 && folder.compare(0, 2, isB ? "b/" : "a/") == 0 &&
         std::all_of(folder.begin() + 2, folder.end(),
                     [](unsigned char letter) { return std::isdigit(letter) != 0; });
}

Experiment ExperimentFromJson(const SeriesJson& json, const std::string& path) {
  Experiment experiment;
  json.at("started").get_to(experiment.started);
  json.at("config").at("path").get_to(experiment.configPath);
  ForEachExperimentSetting(experiment.settings,
                           [&](const char* key, auto& value) { json.at(key).get_to(value); });
  for (const SeriesJson& entry : json.at("runs")) {
    ExperimentRun run;
    GetRun(entry, path, run);
    run.isB = entry.at("side").get<std::string>() == "b";
    if (!IsFolderOfRun(run.folder, run.isB)) {
      throw DamagedFolder(path + ": expected a folder of the experiment, found \"" + run.folder + "\"");
    }
    experiment.runs.push_back(std::move(run));
  }
  return experiment;
}

}  // namespace

bool IsExperimentFolder(const std::string& folder) {
  return IsSeriesFolder(folder, kExperiment);
}

Experiment ReadExperiment(const std::string& folder) {
  const std::string path = folder + "/" + kExperimentName;
  try {
    return ExperimentFromJson(ReadSeriesJson(folder, kExperiment), path);
  } catch (const SeriesJson::exception& error) {
    throw DamagedFolder(path + ": " + error.what());
  }
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
