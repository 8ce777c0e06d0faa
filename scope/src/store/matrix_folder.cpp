// SPDX-License-Identifier: Apache-2.0
#include "matrix_folder.h"

#include <algorithm>
#include <array>
#include <functional>
#include <utility>

#include "engines.h"
#include "errors.h"
#include "series_json.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr SeriesKind kMatrix = {kMatrixName, "matrix", "a matrix", 1};

constexpr std::array<std::pair<MatrixPart, const char*>, 4> kParts = {{{MatrixPart::kLoad, "load"},
                                                                       {MatrixPart::kAlone, "alone"},
                                                                       {MatrixPart::kWith, "with"},
                                                                       {MatrixPart::kControl, "control"}}};

// Files of earlier versions do not have it.
constexpr const char* kLatencySize = "latency_size";

template <typename Settings, typename Visit>
void ForEachMatrixSetting(Settings& settings, Visit visit) {
  visit("repeats", settings.repeats);
  visit("seed", settings.seed);
  visit("warmup_s", settings.warmupS);
  ForEachRunSetting(settings, visit);
}

SeriesJson LevelsJson(const SweepLevels& levels) {
  SeriesJson json = SeriesJson::object();
  for (const auto& [section, level] : levels) json[section] = level;
  return json;
}

SweepLevels LevelsFromJson(const SeriesJson& json) {
  SweepLevels levels;
  for (const auto& [section, level] : json.items())
    GetWhole(level, "level of " + section, levels.emplace_back(section, 0).second);
  return levels;
}

SeriesJson ToJson(const Matrix& matrix) {
  SeriesJson json = SeriesHead(kMatrix, matrix.started, matrix.configPath);
  json["levels"] = SeriesJson::object();
  for (const SweepAxis& axis : matrix.axes) json["levels"][axis.section] = axis.levels;
  json["victims"] = SeriesJson::object();
  for (const MatrixVictim& victim : matrix.victims) json["victims"][victim.section] = victim.level;
  json["own_cpus"] = matrix.ownCpus;
  json["worst"] = matrix.worst;
  ForEachMatrixSetting(matrix.settings, [&](const char* key, const auto& value) { json[key] = value; });
  json[kLatencySize] = matrix.settings.latencySize;
  json["runs"] = SeriesJson::array();
  for (const MatrixRun& run : matrix.runs) {
    const auto* const part =
        std::find_if(kParts.begin(), kParts.end(), [&run](const auto& one) { return one.first == run.part; });
    SeriesJson entry{{"folder", run.folder},
                     {"part", part->second},
                     {"victim", run.victim},
                     {"aggressors", LevelsJson(run.mix)},
                     {"repeat", run.repeat}};
    PutState(entry, run);
    json["runs"].push_back(std::move(entry));
  }
  return json;
}

MatrixRun MatrixRunFromJson(const SeriesJson& json, const std::string& path) {
  MatrixRun run;
  GetRun(json, path, run);
  const auto part = json.at("part").get<std::string>();
  const auto* const at =
      std::find_if(kParts.begin(), kParts.end(), [&part](const auto& one) { return part == one.second; });
  if (at == kParts.end()) throw DamagedFolder(path + ": a run has the unknown part \"" + part + "\"");
  run.part = at->first;
  json.at("victim").get_to(run.victim);
  run.mix = LevelsFromJson(json.at("aggressors"));
  GetField(json, "repeat", run.repeat);
  return run;
}

bool IsEngine(const std::string& section) {
  const EngineInfo* const engine = FindEngine(&EngineInfo::section, section);
  return engine != nullptr && engine->load;
}

// Another program may have written the file, or somebody who means harm.
void RequireSense(const Matrix& matrix, const std::string& path) {
  const auto refuse = [&path](const std::string& what) { throw DamagedFolder(path + ": " + what); };
  const auto isLevel = [](int level, int least) { return level >= least && level <= kMostLevel; };
  for (const SweepAxis& axis : matrix.axes) {
    const bool rises = std::is_sorted(axis.levels.begin(), axis.levels.end(), std::less_equal<>());
    if (!IsEngine(axis.section) || axis.levels.empty() || !rises || !isLevel(axis.levels.front(), 0) ||
        !isLevel(axis.levels.back(), 0))
      refuse("expected levels of an engine from 0 to " + std::to_string(kMostLevel) +
             " that rise, found those of \"" + axis.section + "\"");
  }
  for (const MatrixVictim& victim : matrix.victims) {
    const bool isLatency = victim.section == kLatencyVictim && victim.level == 0;
    if (!isLatency && !(IsEngine(victim.section) && isLevel(victim.level, 1)))
      refuse("expected victims with levels from 1, found \"" + victim.section + "\"");
  }
  if (matrix.victims.empty() || (matrix.worst && matrix.victims.size() != 1)) refuse("expected a victim");
  if (matrix.settings.repeats < 1) refuse("expected repeats of 1 or more");
  for (std::size_t i = 0; i < matrix.runs.size(); ++i) {
    const MatrixRun& run = matrix.runs[i];
    // A continued matrix replaces the runs' folders, so they must be its own.
    const std::string folder = MatrixRunFolder(i);
    if (run.folder != folder) refuse("expected the run " + folder + ", found \"" + run.folder + "\"");
    const bool isVictim =
        std::any_of(matrix.victims.begin(), matrix.victims.end(),
                    [&run](const MatrixVictim& victim) { return victim.section == run.victim; });
    const bool fits = run.part == MatrixPart::kLoad ? run.victim.empty() : isVictim;
    const bool hasMix = std::all_of(run.mix.begin(), run.mix.end(), [&](const auto& level) {
      return IsEngine(level.first) && isLevel(level.second, 1) && level.first != run.victim;
    });
    if (!fits || !hasMix || run.mix.empty() != (run.part == MatrixPart::kAlone))
      refuse("the run " + folder + " is none of this matrix");
  }
}

Matrix MatrixFromJson(const SeriesJson& json, const std::string& path) {
  Matrix matrix;
  json.at("started").get_to(matrix.started);
  json.at("config").at("path").get_to(matrix.configPath);
  ForEachMatrixSetting(matrix.settings, [&](const char* key, auto& value) { GetField(json, key, value); });
  GetFieldIfThere(json, kLatencySize, matrix.settings.latencySize);
  for (const auto& [section, levels] : json.at("levels").items()) {
    if (!levels.is_array()) throw UserError("expected a list of levels of " + section);
    SweepAxis& axis = matrix.axes.emplace_back();
    axis.section = section;
    for (const SeriesJson& level : levels) GetWhole(level, "level of " + section, axis.levels.emplace_back());
  }
  for (const auto& [section, level] : LevelsFromJson(json.at("victims")))
    matrix.victims.push_back({section, level});
  if (!json.at("own_cpus").is_array()) throw UserError("expected a list of CPUs");
  for (const SeriesJson& cpu : json.at("own_cpus")) GetWhole(cpu, "own_cpus", matrix.ownCpus.emplace_back());
  GetField(json, "worst", matrix.worst);
  for (const SeriesJson& run : json.at("runs")) matrix.runs.push_back(MatrixRunFromJson(run, path));
  RequireSense(matrix, path);
  return matrix;
}

}  // namespace

std::string MatrixRunFolder(std::size_t index) {
  return Format("run-%04zu", index + 1);
}

bool IsMatrixFolder(const std::string& folder) {
  return IsSeriesFolder(folder, kMatrix);
}

Matrix ReadMatrix(const std::string& folder) {
  const std::string path = folder + "/" + kMatrixName;
  const SeriesJson json = ReadSeriesJson(folder, kMatrix);
  return ReadFrom(path, [&] { return MatrixFromJson(json, path); });
}

void WriteMatrix(const std::string& folder, const Matrix& matrix) {
  WriteSeriesJson(folder, kMatrix, ToJson(matrix));
}

}  // namespace scope
