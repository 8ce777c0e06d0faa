// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <type_traits>

#include "errors.h"
#include "run.h"
#include "sweep.h"

/// What sweep.json, experiment.json, plans and cell.json have in common: all describe planned runs.
namespace scope {

using SeriesJson = nlohmann::ordered_json;

struct SeriesKind {
  const char* file;  ///< "sweep.json"
  const char* kind;  ///< its key "kind": "sweep"
  const char* what;  ///< for messages: "a sweep"
  int format;        ///< the latest one
  int firstFormat = format;
};

/// Calls `visit` with the key and the value of each setting of RunSettings.
template <typename Settings, typename Visit>
void ForEachRunSetting(Settings& settings, Visit visit) {
  visit("stop_after_s", settings.stopAfterS);
  visit("benchmark", settings.benchmark);
  visit("meter", settings.meter);
  visit("use_meter", settings.useMeter);
  visit("arguments", settings.extra);
  visit("sysfs_root", settings.systemRoot);
  visit("grace_s", settings.graceS);
}

/// Sets `value` to the whole number that `json` is. Throws UserError, which begins with `name`, if it is
/// something else or does not fit. The library would cut 1.9 and 4294967297 to 1.
template <typename Whole>
void GetWhole(const SeriesJson& json, const std::string& name, Whole& value) {
  using Limits = std::numeric_limits<Whole>;
  const bool fits = json.is_number_unsigned()
                        ? json.get<std::uint64_t>() <= static_cast<std::uint64_t>(Limits::max())
                        : json.is_number_integer() && Limits::is_signed &&
                              json.get<std::int64_t>() >= static_cast<std::int64_t>(Limits::min());
  if (!fits) throw UserError(name + ": expected a whole number, found " + json.dump());
  value = json.get<Whole>();
}

/// Sets `value` to what `json` is. Throws UserError, which begins with `name`, if that has another type.
template <typename Value>
void GetNamed(const SeriesJson& json, const char* name, Value& value) {
  constexpr const char* kExpected = std::is_same_v<Value, bool>          ? "true or false"
                                    : std::is_floating_point_v<Value>    ? "a number"
                                    : std::is_same_v<Value, std::string> ? "a text"
                                                                         : "a list of texts";
  try {
    json.get_to(value);
  } catch (const SeriesJson::type_error&) {
    throw UserError(std::string(name) + ": expected " + kExpected + ", found " + json.dump());
  }
}

/// Sets `value` to what is at `key`. Throws UserError as GetWhole does, and the library's exception if the
/// key is missing or the value has another type.
template <typename Value>
void GetField(const SeriesJson& json, const char* key, Value& value) {
  if constexpr (std::is_integral_v<Value> && !std::is_same_v<Value, bool>)
    GetWhole(json.at(key), key, value);
  else
    GetNamed(json.at(key), key, value);
}

/// The same; leaves `value` as it is if the key is missing.
template <typename Value>
void GetFieldIfThere(const SeriesJson& json, const char* key, Value& value) {
  if (json.contains(key)) GetField(json, key, value);
}

/// A JSON object of settings of a board, and back.
SeriesJson SettingsJson(const BoardSettings& settings);
BoardSettings SettingsFromJson(const SeriesJson& json);

/// Returns what `read` makes of the content of the file `path`. What it throws about that content becomes a
/// DamagedFolder, which names the file.
template <typename Read>
auto ReadFrom(const std::string& path, Read read) {
  try {
    return read();
  } catch (const SeriesJson::exception& error) {
    throw DamagedFolder(path + ": " + error.what());
  } catch (const DamagedFolder&) {
    throw;  // names the file already
  } catch (const UserError& error) {
    throw DamagedFolder(path + ": " + error.what());
  }
}

bool IsSeriesFolder(const std::string& folder, const SeriesKind& kind);

/// The content of the file in `folder`. Throws UserError if there is none, and DamagedFolder if it has
/// another format or kind. Both name the file and what was expected.
SeriesJson ReadSeriesJson(const std::string& folder, const SeriesKind& kind);

/// Parses `text`, the content of the file `path`. Throws DamagedFolder as ReadSeriesJson does, also if it is
/// no JSON.
SeriesJson ParseSeriesJson(const std::string& text, const std::string& path, const SeriesKind& kind);

/// The keys with which the file begins.
SeriesJson SeriesHead(const SeriesKind& kind, const std::string& started, const std::string& configPath);

/// The text of `head` with one more key at its end: a list with a line for each of `items`, as `toJson` makes
/// them. The tree of all of them is never in memory. `head` has at least one key. Bytes that are not UTF-8
/// are replaced.
template <typename Items, typename ToJson>
std::string TextWithLines(const SeriesJson& head, const std::string& key, const Items& items, ToJson toJson) {
  const auto replace = SeriesJson::error_handler_t::replace;
  std::string text = head.dump(2, ' ', false, replace);
  text.resize(text.rfind('\n'));
  text += ",\n  \"" + key + "\": [";
  const char* separator = "\n    ";
  for (const auto& item : items) {
    text += separator + toJson(item).dump(-1, ' ', false, replace);
    separator = ",\n    ";
  }
  return text + "\n  ]\n}\n";
}

/// The text of such a file. Bytes that are not UTF-8 are replaced.
std::string SeriesText(const SeriesJson& json);

/// Replaces the file in `folder` as a whole. Throws UserError.
void WriteSeriesJson(const std::string& folder, const SeriesKind& kind, const SeriesJson& json);

const char* TextOfState(SweepState state);

/// The state of an entry of "runs". Throws DamagedFolder, which names the file `path`, if it is unknown.
SweepState StateOf(const SeriesJson& run, const std::string& path);

/// Takes folder, state and reason of a run from its entry of "runs".
template <typename SeriesRun>
void GetRun(const SeriesJson& json, const std::string& path, SeriesRun& run) {
  json.at("folder").get_to(run.folder);
  json.at("reason").get_to(run.reason);
  run.state = StateOf(json, path);
}

/// Adds state and reason to the entry, as its last keys.
template <typename SeriesRun>
void PutState(SeriesJson& json, const SeriesRun& run) {
  json["state"] = TextOfState(run.state);
  json["reason"] = run.reason;
}

}  // namespace scope
