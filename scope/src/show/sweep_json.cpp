// SPDX-License-Identifier: Apache-2.0
#include "sweep_json.h"

#include <algorithm>

#include "json.h"
#include "statistics.h"

namespace scope {
namespace {

Json LevelsJson(const SweepLevels& levels) {
  Json json = Json::object();
  for (const auto& [section, level] : levels) json[section] = level;
  return json;
}

Json PointJson(const SweepPoint& point) {
  Json figures = Json::array();
  for (const auto& [key, values] : point.values) {
    const FigureKind& kind = KindOf(key.figure);
    figures.push_back(Json{{"engine", key.engine},
                           {"figure", kind.name},
                           {"unit", kind.unit},
                           {"median", Median(values)},
                           {"values", values}});
  }
  return Json{{"levels", LevelsJson(point.levels)}, {"runs", point.runs}, {"figures", figures}};
}

Json SaturationJson(const SweepTable& table) {
  const std::optional<Saturation> saturation = FindSaturation(table);
  if (!saturation) return nullptr;
  const auto levels = [&table](std::size_t point) { return LevelsJson(table.points[point].levels); };
  return Json{{"reached", saturation->reached},
              {"lowest", levels(saturation->lowest)},
              {"best", levels(saturation->best)},
              {"indistinct", saturation->indistinct ? levels(*saturation->indistinct) : Json(nullptr)}};
}

}  // namespace

std::string SweepJson(const std::string& folder, const Sweep& sweep, const SweepTable& table,
                      const std::string& comparison) {
  Json grid = Json::object();
  for (const SweepAxis& axis : sweep.axes) grid[axis.section] = axis.levels;
  Json points = Json::array();
  for (const SweepPoint& point : table.points) points.push_back(PointJson(point));
  const bool complete = std::all_of(sweep.runs.begin(), sweep.runs.end(),
                                    [](const SweepRun& run) { return run.state == SweepState::kDone; });
  const Json json{{"format", 1},
                  {"kind", "sweep"},
                  {"tool", kToolVersion},
                  {"folder", folder},
                  {"started", sweep.started},
                  {"complete", complete},
                  {"grid", grid},
                  {"repeats", sweep.settings.repeats},
                  {"seed", sweep.settings.seed},
                  {"warmup_s", sweep.settings.warmupS},
                  {"points", points},
                  {"saturation", SaturationJson(table)},
                  {"notes", table.notes},
                  {"comparison", comparison.empty() ? Json(nullptr) : Json::parse(comparison)}};
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace scope
