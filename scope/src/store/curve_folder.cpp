// SPDX-License-Identifier: Apache-2.0
#include "curve_folder.h"

#include <algorithm>
#include <cstddef>
#include <set>
#include <utility>

#include "engines.h"
#include "errors.h"
#include "series_json.h"
#include "sweep_runs.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr SeriesKind kCurve = {kCurveName, "curve", "a curve", 1};

SeriesJson ToJson(const Curve& curve) {
  const Sweep& sweep = curve.sweep;
  SeriesJson json = SeriesHead(kCurve, sweep.started, sweep.configPath);
  json["mix"] = SeriesJson::object();
  for (const auto& [section, level] : curve.mix) json["mix"][section] = level;
  json["most"] = curve.most;
  json["points"] = curve.points;
  PutSettings(json, sweep.settings);
  json["runs"] = SeriesJson::array();
  for (const SweepRun& run : sweep.runs) json["runs"].push_back(RunJson(run, false));
  return json;
}

void RequireRange(const char* key, int value, const NumberRange& range) {
  if (value >= range.least && value <= range.most) return;
  throw UserError(
      Format("%s: expected a number from %g to %g, found %d", key, range.least, range.most, value));
}

// Another program may have written the file, or somebody who means harm.
void RequireMix(const Curve& curve) {
  std::set<std::string> sections;
  int most = 0;
  for (const auto& [section, level] : curve.mix) {
    if (FindEngine(&EngineInfo::section, section) == nullptr || !sections.insert(section).second) {
      throw UserError("mix: expected sections of engines, each once, found \"" + section + "\"");
    }
    RequireRange("mix", level, {0, kMostLevel});
    most = std::max(most, level);
  }
  if (most == 0) throw UserError("mix: expected a section that works");
  RequireRange("most", curve.most, {1, static_cast<double>(kMostLevel) / most});
}

void RequireRunsOfCurve(const Curve& curve, const std::string& path) {
  const std::vector<SweepRun>& runs = curve.sweep.runs;
  const auto repeats = static_cast<std::size_t>(curve.sweep.settings.repeats);
  const std::size_t count = static_cast<std::size_t>(curve.points) * repeats;
  if (runs.size() != count) {
    throw DamagedFolder(path + ": the curve has " + Counted(count, "run") + ", found " +
                        std::to_string(runs.size()));
  }
  for (std::size_t i = 0; i < count; ++i) {
    const SweepRun& run = runs[i];
    if (std::pair(run.levels, run.dutyPercent) != LevelsOf(curve, static_cast<int>(i / repeats)) ||
        !run.settings.empty() || run.repeat != static_cast<int>(i % repeats) + 1) {
      throw DamagedFolder(path + ": the run " + run.folder + " is not the next point of the curve");
    }
  }
  RequireOrders(runs, path);
}

Curve CurveFromJson(const SeriesJson& json, const std::string& path) {
  Curve curve;
  Sweep& sweep = curve.sweep;
  json.at("started").get_to(sweep.started);
  json.at("config").at("path").get_to(sweep.configPath);
  for (const auto& [section, level] : json.at("mix").items())
    GetWhole(level, "mix of " + section, curve.mix.emplace_back(section, 0).second);
  GetField(json, "most", curve.most);
  GetField(json, "points", curve.points);
  GetSettings(json, sweep.settings);
  RequireMix(curve);
  RequireRange("points", curve.points, kAllowedCurvePoints);
  RequireRange("repeats", sweep.settings.repeats, kAllowedCurveRepeats);
  for (const SeriesJson& run : json.at("runs")) sweep.runs.push_back(RunFromJson(run, path));
  RequireRunsOfCurve(curve, path);
  return curve;
}

}  // namespace

bool IsCurveFolder(const std::string& folder) {
  return IsSeriesFolder(folder, kCurve);
}

Curve ReadCurve(const std::string& folder) {
  const std::string path = folder + "/" + kCurveName;
  const SeriesJson json = ReadSeriesJson(folder, kCurve);
  return ReadFrom(path, [&] { return CurveFromJson(json, path); });
}

void WriteCurve(const std::string& folder, const Curve& curve) {
  WriteSeriesJson(folder, kCurve, ToJson(curve));
}

}  // namespace scope
