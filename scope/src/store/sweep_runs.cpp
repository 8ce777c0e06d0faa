// SPDX-License-Identifier: Apache-2.0
#include "sweep_runs.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <set>

#include "errors.h"
#include "memory_amount.h"
#include "protocol.h"
#include "text_format.h"

namespace scope {
namespace {

// Calls `visit` with the key and the value of each setting.
template <typename Settings, typename Visit>
void ForEachSweepSetting(Settings& settings, Visit visit) {
  visit("repeats", settings.repeats);
  visit("seed", settings.seed);
  visit("warmup_s", settings.warmupS);
  ForEachRunSetting(settings, visit);
}

template <typename Settings, typename Visit>
void ForEachCheck(Settings& settings, Visit visit) {
  visit("fill", settings.fill);
  visit("verify", settings.verify);
  visit("guard", settings.guard);
  visit("guard_rate", settings.guardRate);
  visit("duty_percent", settings.dutyPercent);
}

// Those that files of earlier versions do not have.
template <typename Settings, typename Visit>
void ForEachNewSetting(Settings& settings, Visit visit) {
  visit("hang_after_s", settings.hangAfterS);
  visit("latency", settings.latency);
  visit("latency_cpu", settings.latencyCpu);
  visit("latency_size", settings.latencySize);
}

}  // namespace

SeriesJson ChecksJson(const RunSettings& settings) {
  SeriesJson json = SeriesJson::object();
  ForEachCheck(settings, [&json](const char* key, const auto& value) { json[key] = value; });
  return json;
}

SeriesJson ChangedChecks(const RunSettings& settings) {
  const SeriesJson usual = ChecksJson({});
  const SeriesJson checks = ChecksJson(settings);
  SeriesJson json = SeriesJson::object();
  for (const auto& [key, value] : checks.items()) {
    if (value != usual.at(key)) json[key] = value;
  }
  return json;
}

void RequireChecks(const RunSettings& settings) {
  const auto require = [](bool isRight, const char* key, const std::string& expected) {
    if (!isRight) throw UserError(key + (": " + expected));
  };
  const std::vector<std::string> fills(std::begin(kFillNames), std::end(kFillNames));
  require(settings.fill.empty() || std::count(fills.begin(), fills.end(), settings.fill) != 0, "fill",
          "expected one of " + Joined(fills, ", ") + ", found \"" + settings.fill + "\"");
  require(settings.guard.empty() || ParseMemoryAmount(settings.guard), "guard",
          kMemoryAmountWords + (", found \"" + settings.guard + "\""));
  require(settings.guardRate >= kLeastGuardRate && settings.guardRate <= kMostGuardRate, "guard_rate",
          Format("expected a number from %g to %g, found %g", kLeastGuardRate, kMostGuardRate,
                 settings.guardRate));
  require(settings.dutyPercent >= kLeastDuty && settings.dutyPercent <= kWholeDuty, "duty_percent",
          Format("expected a number from %g to %g, found %g", kLeastDuty, kWholeDuty, settings.dutyPercent));
  require(
      settings.useMeter || (settings.fill.empty() && !settings.verify && settings.dutyPercent == kWholeDuty),
      "use_meter", "fill, verify and duty_percent need the meter");
}

void GetChecks(const SeriesJson& json, RunSettings& settings) {
  ForEachCheck(settings, [&json](const char* key, auto& value) { GetFieldIfThere(json, key, value); });
  RequireChecks(settings);
}

void PutSettings(SeriesJson& json, const SweepSettings& settings) {
  const auto put = [&json](const char* key, const auto& value) { json[key] = value; };
  ForEachSweepSetting(settings, put);
  json.update(ChecksJson(settings));
  ForEachNewSetting(settings, put);
}

void GetSettings(const SeriesJson& json, SweepSettings& settings) {
  ForEachSweepSetting(settings, [&json](const char* key, auto& value) { GetField(json, key, value); });
  ForEachNewSetting(settings, [&json](const char* key, auto& value) { GetFieldIfThere(json, key, value); });
  GetChecks(json, settings);
}

SeriesJson RunJson(const SweepRun& run, bool withSettings) {
  SeriesJson levels = SeriesJson::object();
  for (const auto& [section, level] : run.levels) levels[section] = level;
  SeriesJson json{{"folder", run.folder}, {"levels", levels}};
  if (withSettings) json["settings"] = SettingsJson(run.settings);
  if (run.dutyPercent < kWholeDuty) json["duty_percent"] = run.dutyPercent;
  json["repeat"] = run.repeat;
  json["order"] = run.order;
  PutState(json, run);
  if (run.lost != 0) json["lost"] = run.lost;
  if (run.state == SweepState::kRunning) json["attempt"] = run.attempt;
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
  if (json.contains("settings")) run.settings = SettingsFromJson(json.at("settings"));
  GetFieldIfThere(json, "duty_percent", run.dutyPercent);
  GetFieldIfThere(json, "lost", run.lost);
  constexpr int kMostLost = 1'000'000;
  if (run.lost < 0 || run.lost > kMostLost) {
    throw DamagedFolder(path + ": expected for \"lost\" a number from 0 to " + std::to_string(kMostLost) +
                        ", found " + std::to_string(run.lost));
  }
  GetFieldIfThere(json, "attempt", run.attempt);
  GetField(json, "repeat", run.repeat);
  GetField(json, "order", run.order);
  return run;
}

void RequireOrders(const std::vector<SweepRun>& runs, const std::string& path) {
  std::set<int> orders;
  std::set<std::string> folders;
  for (const SweepRun& run : runs) {
    if (!orders.insert(run.order).second || run.order < 1 ||
        static_cast<std::size_t>(run.order) > runs.size()) {
      throw DamagedFolder(path + ": the order of the run " + run.folder + " is not one of 1 to " +
                          std::to_string(runs.size()) + ", each once");
    }
    if (!folders.insert(run.folder).second) {
      throw DamagedFolder(path + ": two runs have the folder " + run.folder);
    }
  }
}

}  // namespace scope
