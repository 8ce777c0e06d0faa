// SPDX-License-Identifier: Apache-2.0
#include "sweep_folder.h"

#include <algorithm>
#include <array>
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

namespace scope {
namespace {

using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

constexpr int kSweepFormat = 1;
const std::array<std::pair<SweepState, const char*>, 4> kStates = {
    {{SweepState::kPlanned, "planned"},
     {SweepState::kDone, "done"},
     {SweepState::kFailed, "failed"},
     {SweepState::kInterrupted, "interrupted"}}};

// Calls `visit` with the key and the value of each setting.
template <typename Settings, typename Visit>
void ForEachSetting(Settings& settings, Visit visit) {
  visit("repeats", settings.repeats);
  visit("seed", settings.seed);
  visit("warmup_s", settings.warmupS);
  ForEachRunSetting(settings, visit);
}

Json ToJson(const Sweep& sweep) {
  Json grid = Json::object();
  for (const SweepAxis& axis : sweep.axes) grid[axis.section] = axis.levels;
  Json runs = Json::array();
  for (const SweepRun& run : sweep.runs) {
    Json levels = Json::object();
    for (const auto& [section, level] : run.levels) levels[section] = level;
    runs.push_back(Json{{"folder", run.folder},
                        {"levels", levels},
                        {"repeat", run.repeat},
                        {"order", run.order},
                        {"state", TextOfState(run.state)},
                        {"reason", run.reason}});
  }
  Json json{{"format", kSweepFormat},
            {"tool", kToolVersion},
            {"kind", "sweep"},
            {"started", sweep.started},
            {"config", Json{{"path", sweep.configPath}}},
            {"grid", grid}};
  ForEachSetting(sweep.settings, [&](const char* key, const auto& value) { json[key] = value; });
  json["runs"] = runs;
  return json;
}

SweepRun RunFromJson(const Json& json, const std::string& path) {
  SweepRun run;
  json.at("folder").get_to(run.folder);
  // A resumed sweep replaces this folder, so it must be inside the sweep's own.
  if (run.folder.empty() || run.folder[0] == '.' || run.folder.find('/') != std::string::npos) {
    throw DamagedFolder(path + ": expected a folder of the sweep, found \"" + run.folder + "\"");
  }
  for (const auto& [section, level] : json.at("levels").items()) {
    run.levels.emplace_back(section, level.get<int>());
  }
  json.at("repeat").get_to(run.repeat);
  json.at("order").get_to(run.order);
  json.at("reason").get_to(run.reason);
  const auto text = json.at("state").get<std::string>();
  const auto state = StateOfText(text);
  if (!state) throw DamagedFolder(path + ": a run has the unknown state \"" + text + "\"");
  run.state = *state;
  return run;
}

Sweep FromJson(const Json& json, const std::string& path) {
  Sweep sweep;
  json.at("started").get_to(sweep.started);
  json.at("config").at("path").get_to(sweep.configPath);
  ForEachSetting(sweep.settings, [&](const char* key, auto& value) { json.at(key).get_to(value); });
  for (const auto& [section, levels] : json.at("grid").items()) {
    sweep.axes.push_back({section, levels.get<std::vector<int>>()});
  }
  for (const Json& run : json.at("runs")) sweep.runs.push_back(RunFromJson(run, path));
  for (const SweepRun& run : sweep.runs) {
    const bool fits =
        std::equal(run.levels.begin(), run.levels.end(), sweep.axes.begin(), sweep.axes.end(),
                   [](const auto& level, const SweepAxis& axis) {
                     return level.first == axis.section &&
                            std::count(axis.levels.begin(), axis.levels.end(), level.second) == 1;
                   });
    if (!fits) throw DamagedFolder(path + ": the run " + run.folder + " is not a point of the grid");
  }
  return sweep;
}

}  // namespace

const char* TextOfState(SweepState state) {
  return std::find_if(kStates.begin(), kStates.end(), [state](const auto& one) { return one.first == state; })
      ->second;
}

std::optional<SweepState> StateOfText(const std::string& text) {
  const auto* const at =
      std::find_if(kStates.begin(), kStates.end(), [&text](const auto& one) { return text == one.second; });
  if (at == kStates.end()) return std::nullopt;
  return at->first;
}

bool IsSweepFolder(const std::string& folder) {
  std::error_code ignored;
  return fs::exists(fs::path(folder) / kSweepName, ignored);
}

Sweep ReadSweep(const std::string& folder) {
  const std::string path = folder + "/" + kSweepName;
  const std::optional<std::string> text = ReadFolderFile(path, kMostJsonBytes);
  if (!text) throw UserError(folder + ": not a sweep: cannot read sweep.json: " + std::strerror(errno));
  try {
    const Json json = ParseFolderJson(*text, path);
    const int format = json.at("format").get<int>();
    if (format != kSweepFormat) {
      throw DamagedFolder(path + ": written in format " + std::to_string(format) +
                          ", this program reads format " + std::to_string(kSweepFormat));
    }
    if (json.at("kind").get<std::string>() != "sweep") throw DamagedFolder(path + ": not a sweep");
    return FromJson(json, path);
  } catch (const Json::exception& error) {
    throw DamagedFolder(path + ": " + error.what());
  }
}

void WriteSweep(const std::string& folder, const Sweep& sweep) {
  ReplaceFile(folder + "/" + kSweepName,
              ToJson(sweep).dump(2, ' ', false, Json::error_handler_t::replace) + '\n');
}

}  // namespace scope
