// SPDX-License-Identifier: Apache-2.0
#include <optional>

#include "figures.h"
#include "margin_text.h"
#include "page_data.h"

namespace scope {
namespace {

Json SettingsOf(const BoardSettings& settings) {
  Json json = Json::object();
  for (const auto& [name, value] : settings) json[name] = value;
  return json;
}

Json OrNull(const std::optional<double>& value) {
  return value ? Json(*value) : Json(nullptr);
}

const char* StateOf(const MarginPoint& point) {
  const std::size_t runs = point.trials.passes + point.trials.failures;
  if (point.judgement.fails) return point.hangs != 0 && point.hangs == runs ? "hang" : "fail";
  return point.judgement.cleanRuns != 0 ? "pass" : "unknown";
}

// A point that fails has no clean runs.
Json MarginPointJson(const MarginPoint& point) {
  const std::size_t runs = point.trials.passes + point.trials.failures;
  const bool isInferred = point.judgement.fails ? point.trials.failures == 0 : runs == 0;
  return Json{{"settings", SettingsOf(point.settings)},
              {"state", StateOf(point)},
              {"inferred", isInferred},
              {"runs", runs},
              {"failures", point.trials.failures},
              {"hangs", point.hangs},
              {"reasons", point.reasons},
              {"not_judged", point.notJudged},
              {"clean_runs", point.judgement.cleanRuns},
              {"failure_rate_below", OrNull(FailureRateBelow(point))},
              {"performance", OrNull(point.performance)},
              {"text", PointState(point)}};
}

Json EdgeJson(const MarginMap& map, const MarginEdge& edge) {
  return Json{{"setting", edge.setting},
              {"direction", edge.isUp ? "up" : "down"},
              {"steps", edge.steps},
              {"last", edge.last},
              {"failing", edge.failing ? Json(*edge.failing) : Json(nullptr)},
              {"unknown", edge.unknown},
              {"sentence", EdgeSentence(map, edge)}};
}

}  // namespace

Json MarginData(const MarginMap& map) {
  Json settings = Json::array();
  for (const auto& [name, values] : map.axes) settings.push_back(Json{{"name", name}, {"values", values}});
  Json points = Json::array();
  for (const MarginPoint& point : map.points) points.push_back(MarginPointJson(point));
  Json edges = Json::array();
  for (const MarginEdge& edge : map.edges) edges.push_back(EdgeJson(map, edge));
  const FigureKind& kind = KindOf(map.figure.figure);
  return Json{{"settings", settings},
              {"edge", map.edge},
              {"restored", map.restored},
              {"chosen", map.grid.chosen},
              {"neighbours", Neighbours(map.grid)},
              {"figure", Json{{"engine", map.figure.engine}, {"figure", kind.name}, {"unit", kind.unit}}},
              {"runs", map.runs},
              {"grid_runs", map.gridRuns},
              {"points", points},
              {"edges", edges},
              {"sentences", MarginSentences(map)},
              {"doubts", map.doubts}};
}

}  // namespace scope
