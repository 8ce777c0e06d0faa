// SPDX-License-Identifier: Apache-2.0
#include "sweep_folder.h"

#include <algorithm>
#include <cstddef>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "engines.h"
#include "errors.h"
#include "series_json.h"
#include "text_format.h"

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
    GetWhole(level, "level of " + section, run.levels.emplace_back(section, 0).second);
  }
  GetField(json, "repeat", run.repeat);
  GetField(json, "order", run.order);
  return run;
}

// Another program may have written the file, or somebody who means harm.
void RequireAxes(const Sweep& sweep, const std::string& path) {
  std::set<std::string> sections;
  for (const SweepAxis& axis : sweep.axes) {
    if (FindEngine(&EngineInfo::section, axis.section) == nullptr || !sections.insert(axis.section).second) {
      throw DamagedFolder(path + ": expected sections of engines, each once, found \"" + axis.section + "\"");
    }
    const std::set<int> levels(axis.levels.begin(), axis.levels.end());
    if (levels.empty() || levels.size() != axis.levels.size() || *levels.begin() < 0 ||
        *levels.rbegin() > kMostLevel) {
      throw DamagedFolder(path + ": expected levels of " + axis.section + " from 0 to " +
                          std::to_string(kMostLevel) + ", each once");
    }
  }
  if (sections.empty()) throw DamagedFolder(path + ": the grid has no section");
}

// The levels of the grid's point `index`.
SweepLevels PointOfGrid(const std::vector<SweepAxis>& axes, std::size_t index) {
  SweepLevels point;
  for (auto axis = axes.rbegin(); axis != axes.rend(); ++axis) {
    point.emplace_back(axis->section, axis->levels[index % axis->levels.size()]);
    index /= axis->levels.size();
  }
  std::reverse(point.begin(), point.end());
  return point;
}

void RequireRunsOfGrid(const Sweep& sweep, const std::string& path) {
  if (sweep.settings.repeats < 1) throw DamagedFolder(path + ": expected repeats of 1 or more");
  const auto repeats = static_cast<std::size_t>(sweep.settings.repeats);
  std::size_t count = repeats;
  for (const SweepAxis& axis : sweep.axes) count *= axis.levels.size();
  if (count != sweep.runs.size()) {
    throw DamagedFolder(path + ": the grid has " + Counted(count, "run") + ", found " +
                        std::to_string(sweep.runs.size()));
  }
  std::set<int> orders;
  std::set<std::string> folders;
  for (std::size_t i = 0; i < count; ++i) {
    const SweepRun& run = sweep.runs[i];
    if (run.levels != PointOfGrid(sweep.axes, i / repeats) ||
        run.repeat != static_cast<int>(i % repeats) + 1) {
      throw DamagedFolder(path + ": the run " + run.folder + " is not the next point of the grid");
    }
    if (!orders.insert(run.order).second || run.order < 1 || static_cast<std::size_t>(run.order) > count) {
      throw DamagedFolder(path + ": the order of the run " + run.folder + " is not one of 1 to " +
                          std::to_string(count) + ", each once");
    }
    if (!folders.insert(run.folder).second) {
      throw DamagedFolder(path + ": two runs have the folder " + run.folder);
    }
  }
}

Sweep SweepFromJson(const SeriesJson& json, const std::string& path) {
  Sweep sweep;
  json.at("started").get_to(sweep.started);
  json.at("config").at("path").get_to(sweep.configPath);
  ForEachSweepSetting(sweep.settings, [&](const char* key, auto& value) { GetField(json, key, value); });
  for (const auto& [section, levels] : json.at("grid").items()) {
    if (!levels.is_array()) throw UserError("expected a list of levels of " + section);
    SweepAxis& axis = sweep.axes.emplace_back();
    axis.section = section;
    for (const SeriesJson& level : levels) {
      GetWhole(level, "level of " + section, axis.levels.emplace_back());
    }
  }
  for (const SeriesJson& run : json.at("runs")) sweep.runs.push_back(RunFromJson(run, path));
  RequireAxes(sweep, path);
  RequireRunsOfGrid(sweep, path);
  return sweep;
}

}  // namespace

bool IsSweepFolder(const std::string& folder) {
  return IsSeriesFolder(folder, kSweep);
}

Sweep ReadSweep(const std::string& folder) {
  const std::string path = folder + "/" + kSweepName;
  const SeriesJson json = ReadSeriesJson(folder, kSweep);
  return ReadFrom(path, [&] { return SweepFromJson(json, path); });
}

void WriteSweep(const std::string& folder, const Sweep& sweep) {
  WriteSeriesJson(folder, kSweep, ToJson(sweep));
}

}  // namespace scope
