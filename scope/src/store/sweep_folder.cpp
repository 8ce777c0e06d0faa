// SPDX-License-Identifier: Apache-2.0
#include "sweep_folder.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "errors.h"
#include "series_json.h"

namespace scope {
namespace {

constexpr SeriesKind kSweep = {kSweepName, "sweep", "a sweep", 1};

// Calls `visit` with the key and the value of each setting.
template <typename Settings, typename Visit>
void ForEachSweepSetting(Settings& settings, Visit visit) {
  visit("repeats", settings.repeats);
  visit("seed", settings.seed);
  visit("warmup_s", settings.warmupS);
  ForEachRunSetting(settings, visit);
}

SeriesJson ToJson(const Sweep& sweep) {
  SeriesJson json = SeriesHead(kSweep, sweep.started, sweep.configPath);
  json["grid"] = SeriesJson::object();
  for (const SweepAxis& axis : sweep.axes) json["grid"][axis.section] = axis.levels;
  ForEachSweepSetting(sweep.settings, [&](const char* key, const auto& value) { json[key] = value; });
  json["runs"] = SeriesJson::array();
  for (const SweepRun& run : sweep.runs) {
    SeriesJson levels = SeriesJson::object();
    for (const auto& [section, level] : run.levels) levels[section] = level;
    SeriesJson entry{
        {"folder", run.folder}, {"levels", levels}, {"repeat", run.repeat}, {"order", run.order}};
    PutState(entry, run);
    json["runs"].push_back(std::move(entry));
  }
  return json;
}

SweepRun RunFromJson(const SeriesJson& json, const std::string& path) {
  SweepRun run;
  GetRun(json, path, run);
  // A resumed sweep replaces this folder, so it must be inside the sweep's own.
  if (run.folder.empty() || run.folder[0] == '.' || run.folder.find('/') != std::string::npos) {
    throw DamagedFolder(path + ": expected a folder of the sweep, found \"" + run.folder + "\"");
  }
  for (const auto& [section, level] : json.at("levels").items()) {
    run.levels.emplace_back(section, level.get<int>());
  }
  json.at("repeat").get_to(run.repeat);
  json.at("order").get_to(run.order);
  return run;
}

Sweep SweepFromJson(const SeriesJson& json, const std::string& path) {
  Sweep sweep;
  json.at("started").get_to(sweep.started);
  json.at("config").at("path").get_to(sweep.configPath);
  ForEachSweepSetting(sweep.settings, [&](const char* key, auto& value) { json.at(key).get_to(value); });
  for (const auto& [section, levels] : json.at("grid").items()) {
    sweep.axes.push_back({section, levels.get<std::vector<int>>()});
  }
  for (const SeriesJson& run : json.at("runs")) sweep.runs.push_back(RunFromJson(run, path));
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

bool IsSweepFolder(const std::string& folder) {
  return IsSeriesFolder(folder, kSweep);
}

Sweep ReadSweep(const std::string& folder) {
  const std::string path = folder + "/" + kSweepName;
  try {
    return SweepFromJson(ReadSeriesJson(folder, kSweep), path);
  } catch (const SeriesJson::exception& error) {
    throw DamagedFolder(path + ": " + error.what());
  }
}

void WriteSweep(const std::string& folder, const Sweep& sweep) {
  WriteSeriesJson(folder, kSweep, ToJson(sweep));
}

}  // namespace scope
