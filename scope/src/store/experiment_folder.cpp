// SPDX-License-Identifier: Apache-2.0
#include "experiment_folder.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <utility>

#include "durable_file.h"
#include "errors.h"
#include "folder_file.h"
#include "folder_json.h"
#include "run_settings_json.h"
#include "sweep_folder.h"

namespace scope {
namespace {

using ExperimentJson = nlohmann::ordered_json;
namespace fs = std::filesystem;

constexpr int kExperimentFormat = 1;

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

Experiment ExperimentFromJson(const ExperimentJson& json, const std::string& path) {
  Experiment experiment;
  json.at("started").get_to(experiment.started);
  json.at("config").at("path").get_to(experiment.configPath);
  ForEachExperimentSetting(experiment.settings,
                           [&](const char* key, auto& value) { json.at(key).get_to(value); });
  for (const ExperimentJson& one : json.at("runs")) {
    ExperimentRun run;
    one.at("folder").get_to(run.folder);
    run.isB = one.at("side").get<std::string>() == "b";
    one.at("reason").get_to(run.reason);
    const auto state = one.at("state").get<std::string>();
    const auto known = StateOfText(state);
    if (!known) throw DamagedFolder(path + ": a run has the unknown state \"" + state + "\"");
    run.state = *known;
    if (!IsFolderOfRun(run.folder, run.isB)) {
      throw DamagedFolder(path + ": expected a folder of the experiment, found \"" + run.folder + "\"");
    }
    experiment.runs.push_back(std::move(run));
  }
  return experiment;
}

}  // namespace

bool IsExperimentFolder(const std::string& folder) {
  std::error_code ignored;
  return fs::exists(fs::path(folder) / kExperimentName, ignored);
}

Experiment ReadExperiment(const std::string& folder) {
  const std::string path = folder + "/" + kExperimentName;
  const std::optional<std::string> text = ReadFolderFile(path, kMostJsonBytes);
  if (!text) {
    throw UserError(folder + ": not an experiment: cannot read experiment.json: " + std::strerror(errno));
  }
  try {
    const ExperimentJson json = ParseFolderJson(*text, path);
    const int format = json.at("format").get<int>();
    if (format != kExperimentFormat) {
      throw DamagedFolder(path + ": written in format " + std::to_string(format) +
                          ", this program reads format " + std::to_string(kExperimentFormat));
    }
    if (json.at("kind").get<std::string>() != "experiment") throw DamagedFolder(path + ": not an experiment");
    return ExperimentFromJson(json, path);
  } catch (const ExperimentJson::exception& error) {
    throw DamagedFolder(path + ": " + error.what());
  }
}

void WriteExperiment(const std::string& folder, const Experiment& experiment) {
  ExperimentJson runs = ExperimentJson::array();
  for (const ExperimentRun& run : experiment.runs) {
    runs.push_back(ExperimentJson{{"folder", run.folder},
                                  {"side", run.isB ? "b" : "a"},
                                  {"state", TextOfState(run.state)},
                                  {"reason", run.reason}});
  }
  ExperimentJson json{{"format", kExperimentFormat},
                      {"tool", kToolVersion},
                      {"kind", "experiment"},
                      {"started", experiment.started},
                      {"config", ExperimentJson{{"path", experiment.configPath}}}};
  ForEachExperimentSetting(experiment.settings,
                           [&](const char* key, const auto& value) { json[key] = value; });
  json["runs"] = runs;
  ReplaceFile(folder + "/" + kExperimentName,
              json.dump(2, ' ', false, ExperimentJson::error_handler_t::replace) + '\n');
}

}  // namespace scope
