// SPDX-License-Identifier: Apache-2.0
#include "comparison_text.h"
#include "json.h"

namespace scope {
namespace {

Json SideJson(const Side& side) {
  Json folders = Json::array();
  for (const Run& run : side.runs) folders.push_back(run.folder);
  return Json{{"name", side.name}, {"runs", folders}};
}

}  // namespace

std::string ComparisonJson(const Side& a, const Side& b, const Comparison& comparison,
                           const std::vector<ConditionDifference>& differences,
                           const CompareOptions& options) {
  Json different = Json::array();
  for (const ConditionDifference& difference : differences) {
    different.push_back(Json{{"name", difference.name}, {"a", difference.a}, {"b", difference.b}});
  }
  Json figures = Json::array();
  for (const ComparedFigure& figure : comparison.figures) {
    const FigureKind& kind = KindOf(figure.key.figure);
    const bool has = figure.differencePercent.has_value();
    figures.push_back(Json{{"engine", figure.key.engine},
                           {"figure", kind.name},
                           {"unit", kind.unit},
                           {"lower_is_better", kind.lowerIsBetter},
                           {"a", OrNull(figure.a)},
                           {"b", OrNull(figure.b)},
                           {"difference_percent", OrNull(figure.differencePercent)},
                           {"low_percent", has ? Json(figure.lowPercent) : Json(nullptr)},
                           {"high_percent", has ? Json(figure.highPercent) : Json(nullptr)},
                           {"rank_sum_p", OrNull(figure.rankSumP)},
                           {"verdict", VerdictText(figure.verdict)},
                           {"regression", figure.regression},
                           {"repeats_for_1_percent", OrNull(figure.repeatsForOnePercent)},
                           {"note", figure.note},
                           {"a_values", figure.aValues},
                           {"b_values", figure.bValues}});
  }
  const Json json{{"format", 1},
                  {"kind", "compare"},
                  {"tool", kToolVersion},
                  {"a", SideJson(a)},
                  {"b", SideJson(b)},
                  {"noise", comparison.overRepeats ? "repeats" : "seconds"},
                  {"skip_s", options.skipS},
                  {"confidence", options.confidence},
                  {"tolerance_percent", options.tolerancePercent},
                  {"seed", options.seed},
                  {"different", different},
                  {"figures", figures},
                  {"notes", comparison.notes},
                  {"regression", comparison.regression}};
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace scope
