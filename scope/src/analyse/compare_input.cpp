// SPDX-License-Identifier: Apache-2.0
#include "compare_input.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <system_error>
#include <utility>

#include "errors.h"
#include "margin_map.h"
#include "run_reader.h"
#include "sweep_folder.h"
#include "sweep_plan.h"
#include "text_format.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

// "CPU=1,refresh=7800": levels of sections, and values of the settings that were swept.
std::pair<SweepLevels, std::map<std::string, std::string>> PartsOfPoint(const Sweep& sweep,
                                                                        const std::string& point) {
  std::map<std::string, std::string> settings;
  std::string levels;
  std::istringstream parts(point + ",");
  for (std::string part; std::getline(parts, part, ',');) {
    const std::string name = part.substr(0, part.find('='));
    const bool isSetting = std::any_of(sweep.boardAxes.begin(), sweep.boardAxes.end(),
                                       [&name](const SettingAxis& axis) { return axis.first == name; });
    if (isSetting && part.size() > name.size()) {
      settings[name] = part.substr(name.size() + 1);
    } else {
      levels += (levels.empty() ? "" : ",") + part;
    }
  }
  const bool hasLevels = !levels.empty() || settings.empty();
  return {hasLevels ? ParsePoint(levels) : SweepLevels(), settings};
}

// The colon before a point of a sweep; values may have colons, too.
std::size_t PointColon(const std::string& argument) {
  const std::size_t last = argument.rfind(':');
  std::size_t colon = last;
  while (colon != std::string::npos && colon > 0 && !IsSweepFolder(argument.substr(0, colon)))
    colon = argument.rfind(':', colon - 1);
  return colon == std::string::npos || colon == 0 ? last : colon;
}

Side PointOfSweep(const std::string& folder, const std::string& point, const std::string& argument) {
  const Sweep sweep = ReadSweep(folder);
  const auto [wanted, settings] = PartsOfPoint(sweep, point);
  const auto refuse = [&argument](const std::string& why) { throw UserError(argument + ": " + why); };
  for (const auto& [section, level] : wanted) {
    const auto isSection = [&name = section](const SweepAxis& axis) { return axis.section == name; };
    if (std::none_of(sweep.axes.begin(), sweep.axes.end(), isSection)) refuse(section + " was not swept");
  }
  Side side;
  side.name = argument;
  side.warmupS = sweep.settings.warmupS;
  bool isPoint = false;
  for (const SweepRun& run : sweep.runs) {
    bool matches = true;
    for (const auto& [name, value] : run.settings) {
      const auto at = settings.find(name);
      if (at == settings.end()) refuse("expected a value of " + name + " as well: it was swept");
      matches = matches && at->second == value;
    }
    for (const auto& level : run.levels) {
      const auto sameSection = [&](const auto& one) { return one.first == level.first; };
      const auto at = std::find_if(wanted.begin(), wanted.end(), sameSection);
      if (at == wanted.end()) refuse("expected a level of " + level.first + " as well: it was swept");
      matches = matches && at->second == level.second;
    }
    if (!matches) continue;
    isPoint = true;
    if (run.state == SweepState::kDone) {
      side.runs.push_back(ReadRun(fs::path(folder) / run.folder));
    } else if (HasResult(run)) {
      side.failures.push_back(run.reason);
    }
  }
  if (!isPoint) refuse("the sweep has no such point: \"stress_scope report " + folder + "\" lists them");
  // A failure of a setting is its result, and is not recorded again.
  if (side.runs.empty() && !side.failures.empty() && !sweep.boardAxes.empty())
    refuse("no run of this point is done; " + Counted(side.failures.size(), "run") + " failed (" +
           FailureReasons(side) + ")");
  if (side.runs.empty())
    refuse("no run of this point is done: continue with \"stress_scope sweep --resume " + folder + "\"");
  return side;
}

}  // namespace

std::string FailureReasons(const Side& side) {
  constexpr std::size_t kMostReasons = 3;
  std::vector<std::string> reasons;
  for (const std::string& failure : side.failures) {
    std::string reason = failure.substr(0, failure.find('\n'));
    if (std::find(reasons.begin(), reasons.end(), reason) == reasons.end())
      reasons.push_back(std::move(reason));
  }
  const std::size_t more = reasons.size() - std::min(reasons.size(), kMostReasons);
  reasons.resize(reasons.size() - more);
  return Joined(reasons, "; ") + (more == 0 ? "" : "; and " + Counted(more, "other reason"));
}

Side ReadSide(const std::string& argument) {
  std::error_code ignored;
  const std::size_t colon = PointColon(argument);
  if (!fs::exists(argument, ignored) && colon != std::string::npos) {
    return PointOfSweep(argument.substr(0, colon), argument.substr(colon + 1), argument);
  }
  if (IsSweepFolder(argument)) {
    throw UserError(argument + " is a sweep: name a point of it, as in " + argument + ":CPU=1,VENC=2");
  }
  Side side;
  side.name = argument;
  if (!IsRunFolder(argument) && fs::is_directory(argument, ignored)) {
    std::set<std::string> folders;
    for (const auto& entry : fs::directory_iterator(argument, ignored)) {
      if (IsRunFolder(entry.path().string())) folders.insert(entry.path().string());
    }
    for (const std::string& folder : folders) side.runs.push_back(ReadRun(folder));
    if (side.runs.empty())
      throw UserError(argument +
                      ": neither a run folder nor a folder of runs, expected what stress_scope record makes");
    return side;
  }
  side.runs.push_back(ReadRun(argument));
  return side;
}

Side ReadExperimentSide(const std::string& folder, const Experiment& experiment, bool isB) {
  Side side;
  const std::string& command = isB ? experiment.settings.commandB : experiment.settings.commandA;
  side.name = command.empty() ? folder + (isB ? "/b" : "/a") : command;
  for (const ExperimentRun& run : experiment.runs) {
    const bool isRecorded = run.state == SweepState::kDone || run.state == SweepState::kFailed;
    if (run.isB == isB && isRecorded) side.runs.push_back(ReadRun(folder + "/" + run.folder));
  }
  return side;
}

}  // namespace scope
