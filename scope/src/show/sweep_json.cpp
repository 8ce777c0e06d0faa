// SPDX-License-Identifier: Apache-2.0
#include "sweep_json.h"

#include "margin_map.h"
#include "page_data.h"
#include "saturation.h"
#include "statistics.h"
#include "sweep_text.h"

namespace scope {
namespace {

Json PointJson(const SweepTable& table, const SweepPoint& point) {
  Json figures = Json::array();
  for (const auto& [key, values] : point.values) {
    const FigureKind& kind = KindOf(key.figure);
    figures.push_back(Json{{"engine", key.engine},
                           {"figure", kind.name},
                           {"unit", kind.unit},
                           {"median", Median(values)},
                           {"values", values}});
  }
  Json json{{"levels", LevelsJson(point.levels)}, {"runs", point.runs}, {"figures", figures}};
  if (table.boardAxes.empty()) return json;
  json["settings"] = Json::object();
  for (const auto& [name, value] : point.settings) json["settings"][name] = value;
  return json;
}

Json SaturationJson(const SweepTable& table, const std::string& engine, const Saturation& saturation) {
  const auto levels = [&table](std::size_t point) { return LevelsJson(table.points[point].levels); };
  const auto& from = saturation.fromBest;
  return Json{{"sentence", SaturationSentence(table, engine, saturation)},
              {"reached", saturation.reached},
              {"lowest", levels(saturation.lowest)},
              {"best", levels(saturation.best)},
              {"indistinct", saturation.indistinct ? levels(*saturation.indistinct) : Json(nullptr)},
              {"from_best_percent", from ? Json(from->value) : Json(nullptr)},
              {"low_percent", from ? Json(from->low) : Json(nullptr)},
              {"high_percent", from ? Json(from->high) : Json(nullptr)}};
}

Json SaturationsJson(const SweepTable& table) {
  Json saturations = Json::array();
  for (const EngineSaturation& each : EngineSaturations(table)) {
    Json json{{"engine", each.engine}, {"section", each.section}};
    json.update(SaturationJson(table, each.engine, each.saturation));
    saturations.push_back(std::move(json));
  }
  return saturations;
}

}  // namespace

Json LevelsJson(const SweepLevels& levels) {
  Json json = Json::object();
  for (const auto& [section, level] : levels) json[section] = level;
  return json;
}

Json SweepData(const std::string& folder, const Sweep& sweep, const SweepTable& table,
               const std::string& comparison) {
  const std::optional<Saturation> total = FindSaturation(table);
  Json grid = Json::object();
  for (const SweepAxis& axis : sweep.axes) grid[axis.section] = axis.levels;
  Json points = Json::array();
  for (const SweepPoint& point : table.points) points.push_back(PointJson(table, point));
  const bool hasMargin = !sweep.boardAxes.empty();
  return Json{{"format", 1},
              {"kind", "sweep"},
              {"tool", kToolVersion},
              {"folder", folder},
              {"started", sweep.started},
              {"complete", IsComplete(sweep)},
              {"grid", grid},
              {"repeats", sweep.settings.repeats},
              {"seed", sweep.settings.seed},
              {"warmup_s", sweep.settings.warmupS},
              {"points", points},
              {"margin", hasMargin ? MarginData(MarginMapOf(sweep, table)) : Json(nullptr)},
              {"saturation", total ? SaturationJson(table, kAllEngines, *total) : Json(nullptr)},
              {"saturations", SaturationsJson(table)},
              {"notes", table.notes},
              {"comparison", comparison.empty() ? Json(nullptr) : Json::parse(comparison)}};
}

std::string SweepJson(const std::string& folder, const Sweep& sweep, const SweepTable& table,
                      const std::string& comparison) {
  return JsonText(SweepData(folder, sweep, table, comparison));
}

}  // namespace scope
