#include "sweep_plan.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "commands.h"
#include "ormis/qet_yaml.h"
#include "run_folder.h"
#include "text_format.h"
#include "text_table.h"

namespace scope {
namespace {

using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

constexpr const char* kSweepName = "sweep.json";
constexpr int kSweepFormat = 1;
constexpr int kMostLevel = 10;
constexpr std::size_t kMostRuns = 9999;
constexpr const char* kModelSection = "AIC";
const std::array<const char*, 4> kSections = {"VPC", "VENC", "CPU", "AIC"};
const std::array<std::pair<SweepState, const char*>, 4> kStates = {
    {{SweepState::kPlanned, "planned"},
     {SweepState::kDone, "done"},
     {SweepState::kFailed, "failed"},
     {SweepState::kInterrupted, "interrupted"}}};

int ParseLevel(const std::string& text, const std::string& whole) {
  const bool digits =
      !text.empty() && text.size() <= 3 && text.find_first_not_of("0123456789") == std::string::npos;
  const int level = digits ? std::atoi(text.c_str()) : kMostLevel + 1;
  if (level > kMostLevel) {
    throw RunFolderError("\"" + whole + "\": expected levels from 0 to " + std::to_string(kMostLevel) +
                         ", found \"" + text + "\"");
  }
  return level;
}

SweepAxis ParseAxis(const std::string& text) {
  SweepAxis axis;
  const std::size_t sign = text.find('=');
  axis.section = text.substr(0, sign);
  if (sign == std::string::npos ||
      std::find(kSections.begin(), kSections.end(), axis.section) == kSections.end()) {
    throw RunFolderError("\"" + text +
                         "\": expected CPU, VPC, VENC or AIC, then \"=\" and levels, as in CPU=0,1,2..4");
  }
  const auto refuse = [&text](const std::string& why) { throw RunFolderError("\"" + text + "\": " + why); };
  std::istringstream parts(text.substr(sign + 1) + ",");
  for (std::string part; std::getline(parts, part, ',');) {
    const std::size_t dots = part.find("..");
    const int first = ParseLevel(part.substr(0, dots), text);
    const int last = dots == std::string::npos ? first : ParseLevel(part.substr(dots + 2), text);
    if (last < first) refuse("the range " + part + " falls");
    for (int level = first; level <= last; ++level) {
      if (std::find(axis.levels.begin(), axis.levels.end(), level) != axis.levels.end()) {
        refuse("level " + std::to_string(level) + " comes twice");
      }
      axis.levels.push_back(level);
    }
  }
  std::sort(axis.levels.begin(), axis.levels.end());
  return axis;
}

// Own, because std::shuffle is free to do it another way in the next version of the library.
void Shuffle(std::vector<std::size_t>& items, std::mt19937_64& random) {
  for (std::size_t i = items.size(); i > 1; --i) std::swap(items[i - 1], items[random() % i]);
}

std::string Quoted(const std::string& text) {
  return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json ToJson(const Sweep& sweep) {
  Json grid = Json::object();
  for (const SweepAxis& axis : sweep.axes) grid[axis.section] = axis.levels;
  Json runs = Json::array();
  for (const SweepRun& run : sweep.runs) {
    Json levels = Json::object();
    for (const auto& [section, level] : run.levels) levels[section] = level;
    const auto* const state =
        std::find_if(kStates.begin(), kStates.end(), [&](const auto& one) { return one.first == run.state; });
    runs.push_back(Json{{"folder", run.folder},
                        {"levels", levels},
                        {"repeat", run.repeat},
                        {"order", run.order},
                        {"state", state->second},
                        {"reason", run.reason}});
  }
  const SweepSettings& settings = sweep.settings;
  return Json{{"format", kSweepFormat},
              {"tool", kToolVersion},
              {"kind", "sweep"},
              {"started", sweep.started},
              {"config", Json{{"path", sweep.configPath}}},
              {"grid", grid},
              {"repeats", settings.repeats},
              {"seed", settings.seed},
              {"warmup_s", settings.warmupS},
              {"stop_after_s", settings.stopAfterS},
              {"benchmark", settings.benchmark},
              {"meter", settings.meter},
              {"use_meter", settings.useMeter},
              {"arguments", settings.extra},
              {"sysfs_root", settings.systemRoot},
              {"grace_s", settings.graceS},
              {"runs", runs}};
}

SweepRun RunFromJson(const Json& json, const std::string& path) {
  SweepRun run;
  json.at("folder").get_to(run.folder);
  // Folders within the sweep's: what a resumed sweep replaces is nowhere else.
  if (run.folder.empty() || run.folder[0] == '.' || run.folder.find('/') != std::string::npos) {
    throw RunFolderError(path + ": expected a folder of the sweep, found \"" + run.folder + "\"");
  }
  for (const auto& [section, level] : json.at("levels").items()) {
    run.levels.emplace_back(section, level.get<int>());
  }
  json.at("repeat").get_to(run.repeat);
  json.at("order").get_to(run.order);
  json.at("reason").get_to(run.reason);
  const auto text = json.at("state").get<std::string>();
  const auto* const state =
      std::find_if(kStates.begin(), kStates.end(), [&](const auto& one) { return text == one.second; });
  if (state == kStates.end()) throw RunFolderError(path + ": a run has the unknown state \"" + text + "\"");
  run.state = state->first;
  return run;
}

Sweep FromJson(const Json& json, const std::string& path) {
  Sweep sweep;
  json.at("started").get_to(sweep.started);
  json.at("config").at("path").get_to(sweep.configPath);
  SweepSettings& settings = sweep.settings;
  json.at("repeats").get_to(settings.repeats);
  json.at("seed").get_to(settings.seed);
  json.at("warmup_s").get_to(settings.warmupS);
  json.at("stop_after_s").get_to(settings.stopAfterS);
  json.at("benchmark").get_to(settings.benchmark);
  json.at("meter").get_to(settings.meter);
  json.at("use_meter").get_to(settings.useMeter);
  json.at("arguments").get_to(settings.extra);
  json.at("sysfs_root").get_to(settings.systemRoot);
  json.at("grace_s").get_to(settings.graceS);
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
    if (!fits) throw RunFolderError(path + ": the run " + run.folder + " is no point of the grid");
  }
  return sweep;
}

}  // namespace

std::string PointText(const SweepLevels& levels) {
  std::string text;
  for (const auto& [section, level] : levels) {
    text += (text.empty() ? "" : " ") + section + "=" + std::to_string(level);
  }
  return text;
}

std::vector<SweepAxis> ParseAxes(const std::vector<std::string>& texts) {
  std::vector<SweepAxis> axes;
  for (const std::string& text : texts) {
    SweepAxis axis = ParseAxis(text);
    for (const SweepAxis& other : axes) {
      if (other.section == axis.section)
        throw RunFolderError("levels of " + axis.section + " are given twice");
    }
    axes.push_back(std::move(axis));
  }
  return axes;
}

SweepLevels ParsePoint(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream stream(text + ",");
  for (std::string part; std::getline(stream, part, ',');) parts.push_back(part);
  SweepLevels levels;
  for (const SweepAxis& axis : ParseAxes(parts)) {
    if (axis.levels.size() != 1)
      throw RunFolderError("\"" + text + "\": expected one level of " + axis.section);
    levels.emplace_back(axis.section, axis.levels.front());
  }
  return levels;
}

std::vector<SweepRun> PlanRuns(const std::vector<SweepAxis>& axes, int repeats, std::uint64_t seed) {
  std::vector<SweepLevels> points = {{}};
  for (const SweepAxis& axis : axes) {
    std::vector<SweepLevels> longer;
    for (const SweepLevels& point : points) {
      for (const int level : axis.levels) {
        longer.push_back(point);
        longer.back().emplace_back(axis.section, level);
      }
    }
    points = std::move(longer);
  }
  const std::size_t count = points.size() * static_cast<std::size_t>(repeats);
  if (count > kMostRuns) {
    throw RunFolderError("the grid has " + std::to_string(count) + " runs, and a sweep at most " +
                         std::to_string(kMostRuns));
  }
  std::vector<SweepRun> runs(count);
  std::mt19937_64 random(seed);
  int order = 0;
  for (int repeat = 1; repeat <= repeats; ++repeat) {
    std::vector<std::size_t> shuffled(points.size());
    for (std::size_t i = 0; i < shuffled.size(); ++i) shuffled[i] = i;
    Shuffle(shuffled, random);
    for (const std::size_t point : shuffled) {
      const std::size_t index =
          point * static_cast<std::size_t>(repeats) + static_cast<std::size_t>(repeat - 1);
      runs[index].folder = Format("run-%04zu", index + 1);
      runs[index].levels = points[point];
      runs[index].repeat = repeat;
      runs[index].order = ++order;
    }
  }
  return runs;
}

std::string PointConfiguration(const std::string& path, const SweepLevels& levels) {
  std::string text;
  try {
    const Ormis::QetYamlNode root(path);
    for (const char* const key : {"logMode", "logLevel", "runTimes"}) {
      if (root.children.count(key) == 0) continue;
      // What is there and no number counts as 0 to the benchmark.
      unsigned int value = 0;
      (void)root.GetValue<unsigned int>(key, value);
      text += std::string(key) + ": " + std::to_string(value) + "\n";
    }
    for (const char* const section : kSections) {
      const bool has = root.children.count(section) != 0;
      const bool isModel = std::strcmp(section, kModelSection) == 0;
      const auto swept = std::find_if(levels.begin(), levels.end(),
                                      [&](const auto& level) { return level.first == section; });
      if (swept == levels.end() && !has) continue;
      unsigned int level = 0;
      if (swept != levels.end()) {
        level = static_cast<unsigned int>(swept->second);
      } else if (!root[section].GetValue<unsigned int>("Level", level) || level > kMostLevel) {
        throw RunFolderError(path + ": expected a \"Level\" from 0 to 10 in the section " + section);
      }
      text += std::string(section) + ":\n  Level: " + std::to_string(level) + "\n";
      if (!isModel) continue;
      std::string file;
      if (!has || !root[section].GetValue<std::string>("File", file)) {
        throw RunFolderError(path + ": levels of AIC need a section AIC with a model as \"File\"");
      }
      text +=
          "  File: " + Quoted(file.empty() ? file : fs::absolute(file).lexically_normal().string()) + "\n";
    }
  } catch (const RunFolderError&) {
    throw;
  } catch (const std::exception& error) {
    throw RunFolderError(error.what());
  }
  return text;
}

bool IsSweepFolder(const std::string& folder) {
  std::error_code ignored;
  return fs::exists(fs::path(folder) / kSweepName, ignored);
}

Sweep ReadSweep(const std::string& folder) {
  const std::string path = folder + "/" + kSweepName;
  std::ifstream file(path, std::ios::binary);
  if (!file) throw RunFolderError(folder + ": not a sweep: cannot read sweep.json: " + std::strerror(errno));
  try {
    const Json json = Json::parse(file);
    const int format = json.at("format").get<int>();
    if (format != kSweepFormat) {
      throw RunFolderError(path + ": written in format " + std::to_string(format) +
                           ", this program reads format " + std::to_string(kSweepFormat));
    }
    if (json.at("kind").get<std::string>() != "sweep") throw RunFolderError(path + ": not a sweep");
    return FromJson(json, path);
  } catch (const Json::exception& error) {
    throw RunFolderError(path + ": " + error.what());
  }
}

void WriteSweep(const std::string& folder, const Sweep& sweep) {
  ReplaceFile(folder + "/" + kSweepName,
              ToJson(sweep).dump(2, ' ', false, Json::error_handler_t::replace) + '\n');
}

}  // namespace scope
