// SPDX-License-Identifier: Apache-2.0
#include "plan_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <set>
#include <utility>

#include "cell_json.h"
#include "engines.h"
#include "errors.h"
#include "experiment.h"
#include "folder_file.h"
#include "series_json.h"
#include "sweep_runs.h"
#include "text_format.h"
#include "text_hash.h"

namespace scope {
namespace {

// A plan has format 2 if its cells check or fill something. A program that knows no checks reads format 1
// alone: it must not record such a cell without them.
constexpr int kPlainFormat = 1;
constexpr SeriesKind kPlan = {kPlanName, "plan", "a plan", 2, kPlainFormat};
constexpr NumberRange kAllowedGraceS = {1, 3600};
constexpr NumberRange kAllowedTimeS = {0, 1e6};

void RequireName(const std::string& text, const char* others, const std::string& where) {
  const auto fits = [others](char letter) {
    return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
           (letter >= '0' && letter <= '9') || std::strchr(others, letter) != nullptr;
  };
  const bool isName = !text.empty() && text.size() <= kMostNameBytes && text[0] != '-' &&
                      text.find('\0') == std::string::npos && std::all_of(text.begin(), text.end(), fits);
  if (isName) return;
  throw UserError(where + ": expected 1 to " + std::to_string(kMostNameBytes) +
                  " letters, digits and characters of \"" + others + "\", found \"" + text + "\"");
}

// What of the settings belongs to the plan. The rest belongs to the machine that runs a cell.
template <typename Settings, typename Visit>
void ForEachPlanSetting(Settings& settings, Visit visit) {
  visit("seed", settings.seed);
  visit("repeats", settings.repeats);
  visit("warmup_s", settings.warmupS);
  visit("stop_after_s", settings.stopAfterS);
  visit("grace_s", settings.graceS);
  visit("use_meter", settings.useMeter);
  visit("arguments", settings.extra);
}

void RequireTime(const char* key, double value, const NumberRange& range) {
  if (value >= range.least && value <= range.most) return;
  throw UserError(
      Format("%s: expected a number from %.15g to %.15g, found %.15g", key, range.least, range.most, value));
}

void RequireLevels(const SweepLevels& levels, const std::string& where) {
  std::set<std::string> sections;
  for (const auto& [section, level] : levels) {
    if (FindEngine(&EngineInfo::section, section) == nullptr || !sections.insert(section).second) {
      throw UserError(where + ": expected sections of engines, each once, found \"" + section + "\"");
    }
    if (level < 0 || level > kMostLevel) {
      throw UserError(where + ": expected a level of " + section + " from 0 to " +
                      std::to_string(kMostLevel) + ", found " + std::to_string(level));
    }
  }
}

// Somebody may have written the file by hand, or means harm.
PlanCell CellAt(const SeriesJson& json, const Plan& plan, const std::string& where) {
  PlanCell cell;
  try {
    cell = CellFromJson(json);
  } catch (const UserError& error) {
    throw UserError(where + ": " + error.what());
  }
  if (!cell.board.empty()) RequireBoardName(cell.board, where + ": board");
  RequireLevels(cell.levels, where);
  for (const auto& [name, value] : cell.settings) {
    RequireSettingName(name, where + ": name of a setting");
    RequireSettingValue(value, where + ": " + name);
  }
  if (cell.repeat >= 1 && cell.repeat <= plan.settings.repeats) return cell;
  throw UserError(where + ": expected a repeat from 1 to " + std::to_string(plan.settings.repeats) +
                  ", found " + std::to_string(cell.repeat));
}

Plan PlanFromJson(const SeriesJson& json) {
  Plan plan;
  json.at("made").get_to(plan.made);
  json.at("config").at("path").get_to(plan.configPath);
  json.at("config").at("text").get_to(plan.configText);
  ForEachPlanSetting(plan.settings, [&json](const char* key, auto& value) { GetField(json, key, value); });
  RequireTime("warmup_s", plan.settings.warmupS, kAllowedTimeS);
  RequireTime("stop_after_s", plan.settings.stopAfterS, kAllowedTimeS);
  RequireTime("grace_s", plan.settings.graceS, kAllowedGraceS);
  GetChecks(json, plan.settings);
  if (json.at("format") == kPlainFormat && !ChangedChecks(plan.settings).empty())
    throw UserError(Format("a plan of format %d has no checks: make it again", kPlainFormat));
  const SeriesJson& cells = json.at("cells");
  if (!cells.is_array() || cells.empty()) throw UserError("expected a list of cells");
  plan.cells.reserve(cells.size());
  for (const SeriesJson& each : cells) {
    const std::size_t number = plan.cells.size() + 1;
    PlanCell cell = CellAt(each, plan, "cell " + std::to_string(number));
    cell.folder = CellFolder(number);
    plan.cells.push_back(std::move(cell));
  }
  return plan;
}

}  // namespace

std::string CellFolder(std::size_t number) {
  return Format("cell-%04zu", number);
}

void RequireBoardName(const std::string& text, const std::string& where) {
  RequireName(text, "_-+.", where);
}

void RequireSettingName(const std::string& text, const std::string& where) {
  RequireName(text, "_-+.", where);
}

void RequireSettingValue(const std::string& text, const std::string& where) {
  RequireName(text, "_-+./:", where);
}

Plan ReadPlan(const std::string& path) {
  const std::optional<std::string> text = ReadFolderFile(path, kMostJsonBytes);
  if (!text) {
    throw UserError("cannot read the plan " + path + ": " + std::strerror(errno) +
                    ". Make one with stress_scope plan");
  }
  return ReadFrom(path, [&] {
    Plan plan = PlanFromJson(ParseSeriesJson(*text, path, kPlan));
    plan.id = HashOf(*text);
    return plan;
  });
}

std::string ChecksText(const Plan& plan) {
  const SeriesJson checks = ChangedChecks(plan.settings);
  return checks.empty() ? "" : checks.dump();
}

std::string PlanFileText(const Plan& plan) {
  const SeriesJson checks = ChangedChecks(plan.settings);
  SeriesJson json{{"format", checks.empty() ? kPlainFormat : kPlan.format},
                  {"kind", kPlan.kind},
                  {"tool", kToolVersion},
                  {"made", plan.made},
                  {"config", {{"path", plan.configPath}, {"text", plan.configText}}}};
  ForEachPlanSetting(plan.settings, [&](const char* key, const auto& value) { json[key] = value; });
  json.update(checks);
  // People and scripts find cell K in the K-th line of them.
  std::string text = TextWithLines(json, "cells", plan.cells, CellJson);
  if (text.size() > kMostJsonBytes) {
    throw UserError("the plan has " + std::to_string(text.size() >> 20) + " MiB, expected at most " +
                    std::to_string(kMostJsonBytes >> 20) + ": give fewer boards, levels or repeats");
  }
  return text;
}

}  // namespace scope
