// SPDX-License-Identifier: Apache-2.0
#include "sweep_folder.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "durable_file.h"
#include "engines.h"
#include "errors.h"
#include "plan_file.h"
#include "series_json.h"
#include "sweep_runs.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr SeriesKind kSweep = {kSweepName, "sweep", "a sweep", 1};

void PutMargin(SeriesJson& json, const Sweep& sweep) {
  if (sweep.boardAxes.empty()) return;
  SeriesJson& settings = json["settings"] = SeriesJson::object();
  for (const auto& [name, values] : sweep.boardAxes) settings[name] = values;
  json["apply"] = sweep.margin.apply;
  json["at"] = SettingsJson(sweep.margin.chosen);
  json["edge"] = sweep.margin.edge;
  json["tries"] = sweep.margin.tries;
  json["boot_id"] = sweep.bootId;
  json["restored"] = sweep.restored;
}

SeriesJson ToJson(const Sweep& sweep) {
  SeriesJson json = SeriesHead(kSweep, sweep.started, sweep.configPath);
  json["grid"] = SeriesJson::object();
  for (const SweepAxis& axis : sweep.axes) json["grid"][axis.section] = axis.levels;
  PutSettings(json, sweep.settings);
  PutMargin(json, sweep);
  json["runs"] = SeriesJson::array();
  for (const SweepRun& run : sweep.runs) {
    json["runs"].push_back(RunJson(run, !sweep.boardAxes.empty()));
  }
  return json;
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
  if (sections.empty() && sweep.boardAxes.empty()) throw DamagedFolder(path + ": the grid has no section");
}

// Names and values are passed to a shell.
void RequireBoardAxes(const Sweep& sweep, const std::string& path) {
  std::set<std::string> names;
  for (const auto& [name, values] : sweep.boardAxes) {
    RequireSettingName(name, "name of a setting");
    if (!names.insert(name).second) throw DamagedFolder(path + ": the setting " + name + " is there twice");
    for (const std::string& value : values) RequireSettingValue(value, "value of " + name);
    if (values.empty() || std::set<std::string>(values.begin(), values.end()).size() != values.size())
      throw DamagedFolder(path + ": expected values of " + name + ", each once");
  }
  if (sweep.boardAxes.empty()) return;
  if (sweep.margin.apply.empty()) throw DamagedFolder(path + ": no command makes the settings");
  if (sweep.margin.tries < 0) {
    throw DamagedFolder(path + ": expected tries of 0 or more, found " + std::to_string(sweep.margin.tries));
  }
  if (sweep.margin.edge && !sweep.axes.empty()) {
    throw DamagedFolder(path + ": an edge is looked for in settings alone, found levels of " +
                        sweep.axes.front().section);
  }
  const BoardSettings& chosen = sweep.margin.chosen;
  const bool isPoint =
      std::equal(chosen.begin(), chosen.end(), sweep.boardAxes.begin(), sweep.boardAxes.end(),
                 [](const auto& setting, const SettingAxis& axis) {
                   return setting.first == axis.first &&
                          std::count(axis.second.begin(), axis.second.end(), setting.second) != 0;
                 });
  if (!isPoint) throw DamagedFolder(path + ": \"at\" is not a point of the settings");
}

// The levels and settings of the grid's point `index`.
std::pair<SweepLevels, BoardSettings> PointOfGrid(const Sweep& sweep, std::size_t index) {
  BoardSettings settings;
  for (auto axis = sweep.boardAxes.rbegin(); axis != sweep.boardAxes.rend(); ++axis) {
    settings.emplace_back(axis->first, axis->second[index % axis->second.size()]);
    index /= axis->second.size();
  }
  SweepLevels levels;
  for (auto axis = sweep.axes.rbegin(); axis != sweep.axes.rend(); ++axis) {
    levels.emplace_back(axis->section, axis->levels[index % axis->levels.size()]);
    index /= axis->levels.size();
  }
  std::reverse(settings.begin(), settings.end());
  std::reverse(levels.begin(), levels.end());
  return {levels, settings};
}

void RequireRunsOfGrid(const Sweep& sweep, const std::string& path) {
  if (sweep.settings.repeats < 1) throw DamagedFolder(path + ": expected repeats of 1 or more");
  const auto repeats = static_cast<std::size_t>(sweep.settings.repeats);
  std::size_t count = repeats;
  // The product does not wrap around, whatever the file says: more than a file can have stays that.
  constexpr std::size_t kTooMany = std::size_t{1} << 32;
  const auto multiply = [&count](std::size_t values) { count = count > kTooMany ? count : count * values; };
  for (const SweepAxis& axis : sweep.axes) multiply(axis.levels.size());
  for (const SettingAxis& axis : sweep.boardAxes) multiply(axis.second.size());
  if (count != sweep.runs.size()) {
    throw DamagedFolder(path + ": the grid has " + Counted(count, "run") + ", found " +
                        std::to_string(sweep.runs.size()));
  }
  for (std::size_t i = 0; i < count; ++i) {
    const SweepRun& run = sweep.runs[i];
    if (std::pair(run.levels, run.settings) != PointOfGrid(sweep, i / repeats) ||
        run.repeat != static_cast<int>(i % repeats) + 1) {
      throw DamagedFolder(path + ": the run " + run.folder + " is not the next point of the grid");
    }
  }
  RequireOrders(sweep.runs, path);
}

void GetMargin(const SeriesJson& json, Sweep& sweep) {
  if (!json.contains("settings")) return;
  for (const auto& [name, values] : json.at("settings").items())
    sweep.boardAxes.emplace_back(name, values.get<std::vector<std::string>>());
  if (sweep.boardAxes.empty()) throw UserError("expected settings with values, found none");
  json.at("apply").get_to(sweep.margin.apply);
  sweep.margin.chosen = SettingsFromJson(json.at("at"));
  GetField(json, "edge", sweep.margin.edge);
  GetField(json, "tries", sweep.margin.tries);
  json.at("boot_id").get_to(sweep.bootId);
  GetFieldIfThere(json, "restored", sweep.restored);
}

Sweep SweepFromJson(const SeriesJson& json, const std::string& path) {
  Sweep sweep;
  json.at("started").get_to(sweep.started);
  json.at("config").at("path").get_to(sweep.configPath);
  GetSettings(json, sweep.settings);
  GetMargin(json, sweep);
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
  RequireBoardAxes(sweep, path);
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

void KeepSweep(const std::string& folder, const Sweep& sweep) {
  // Only this program uses it again: after a power cut it is of no use.
  ReplaceFile(folder + "/" + kKeptSweepName, SeriesText(ToJson(sweep)), Durability::kNone);
}

void TakeBackSweep(const std::string& folder) {
  const std::string path = folder + "/" + kSweepName;
  if (std::rename((folder + "/" + kKeptSweepName).c_str(), path.c_str()) != 0)
    throw UserError("cannot write " + path + ": " + std::strerror(errno));
  SyncFolder(folder);
}

void DropKeptSweep(const std::string& folder) {
  (void)std::remove((folder + "/" + kKeptSweepName).c_str());
}

}  // namespace scope
