// SPDX-License-Identifier: Apache-2.0
#include "comparison_text.h"
#include "page_data.h"

namespace scope {
namespace {

Json SideJson(const Side& side) {
  Json folders = Json::array();
  for (const Run& run : side.runs) folders.push_back(run.folder);
  return Json{{"name", side.name}, {"runs", folders}};
}

}  // namespace

Json ComparisonData(const Side& a, const Side& b, const Comparison& comparison,
                    const std::vector<ConditionDifference>& differences, const CompareOptions& options) {
  Json different = Json::array();
  for (const ConditionDifference& difference : differences) {
    different.push_back(Json{{"name", difference.name}, {"a", difference.a}, {"b", difference.b}});
  }
  Json figures = Json::array();
  for (const ComparedFigure& figure : comparison.figures) {
    const FigureKind& kind = KindOf(figure.key.figure);
    const auto& interval = figure.interval;
    figures.push_back(Json{{"engine", figure.key.engine},
                           {"figure", kind.name},
                           {"unit", kind.unit},
                           {"lower_is_better", kind.lowerIsBetter},
                           {"a", OrNull(figure.a)},
                           {"b", OrNull(figure.b)},
                           {"difference_percent", OrNull(figure.differencePercent)},
                           {"low_percent", interval ? Json(interval->low) : Json(nullptr)},
                           {"high_percent", interval ? Json(interval->high) : Json(nullptr)},
                           {"verdict", VerdictText(figure.verdict)},
                           {"not_worse", figure.notWorse},
                           {"repeats", OrNull(figure.repeats)},
                           {"note", figure.note},
                           {"a_values", figure.aValues},
                           {"b_values", figure.bValues}});
  }
  Json findings = Json::array();
  for (const Finding& finding : comparison.findings) {
    findings.push_back(Json{{"engine", finding.engine}, {"text", finding.text}, {"worse", finding.worse}});
  }
  return Json{{"format", 2},
              {"kind", "compare"},
              {"tool", kToolVersion},
              {"a", SideJson(a)},
              {"b", SideJson(b)},
              {"answer", AnswerText(comparison.answer)},
              {"exit_status", ExitStatusOf(comparison.answer)},
              {"sentence", AnswerSentence(a, b, comparison, options)},
              {"skip_s", options.skipS},
              {"confidence", options.confidence},
              {"tolerance_percent", options.tolerancePercent},
              {"figure_confidence", comparison.figureConfidence},
              {"repeats", OrNull(comparison.repeats)},
              {"different", different},
              {"figures", figures},
              {"errors", comparison.errors},
              {"findings", findings},
              {"notes", comparison.notes}};
}

std::string ComparisonJson(const Side& a, const Side& b, const Comparison& comparison,
                           const std::vector<ConditionDifference>& differences,
                           const CompareOptions& options) {
  return JsonText(ComparisonData(a, b, comparison, differences, options));
}

}  // namespace scope
