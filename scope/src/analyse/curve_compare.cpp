// SPDX-License-Identifier: Apache-2.0
#include "curve_compare.h"

#include <algorithm>
#include <utility>

#include "compare_values.h"
#include "errors.h"
#include "margin_map.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr double kShares[] = {0.5, 0.8};  // of the lesser most bandwidth

CurveFigures Require(const CurveTable& table) {
  std::optional<CurveFigures> figures = FiguresOf(table);
  if (!figures) {
    throw UserError(table.name + ": no repeat of the curve is whole. " +
                    (IsComplete(table.curve.sweep)
                         ? "All its runs are done, and the notes of its report say what they lack"
                         : "Continue with: stress_scope curve --resume " + table.name));
  }
  return *std::move(figures);
}

// The greatest bandwidth that all repeats reach.
double Reach(const CurveFigures& figures) {
  double reach = figures.fits.front().gigabytesPerS.back();
  for (const CurveFit& fit : figures.fits) reach = std::min(reach, fit.gigabytesPerS.back());
  return reach;
}

std::vector<RunValues> ValuesOf(const CurveFigures& figures, double reach, bool withKnee) {
  std::vector<RunValues> repeats;
  for (std::size_t i = 0; i < figures.repeats.size(); ++i) {
    RunValues values;
    values[{"idle", Figure::kP50}] = figures.idleNs.values[i] / kNsPerUs;
    for (const double share : kShares) {
      const double at = share * reach;
      values[{Format("%.3g GB/s", at), Figure::kP50}] = *LatencyAtBandwidth(figures.fits[i], at) / kNsPerUs;
    }
    if (withKnee) values[{"knee", Figure::kBandwidth}] = figures.knee->values[i];
    values[{"most", Figure::kBandwidth}] = figures.mostGigabytesPerS.values[i];
    repeats.push_back(std::move(values));
  }
  return repeats;
}

}  // namespace

Comparison CompareCurves(const CurveTable& a, const CurveTable& b, const CompareOptions& options) {
  const CurveFigures ofA = Require(a);
  const CurveFigures ofB = Require(b);
  const double reach = std::min(Reach(ofA), Reach(ofB));
  const auto hasKnee = [](const CurveFigures& figures) { return figures.withoutKnee == 0; };
  const bool withKnee = hasKnee(ofA) && hasKnee(ofB);
  CompareOptions all = options;
  all.figures = {Figure::kP50, Figure::kBandwidth};  // judged then
  Comparison comparison = CompareValues(ValuesOf(ofA, reach, withKnee), ValuesOf(ofB, reach, withKnee), all);
  for (const auto& [figures, letter] : {std::pair(&ofA, "A"), std::pair(&ofB, "B")}) {
    if (hasKnee(*figures)) continue;
    comparison.notes.push_back(
        Format("%s has no knee in %zu of ", letter, figures->withoutKnee) +
        Counted(figures->repeats.size(), "repeat") +
        Format(": there the latency stays below %g times that at idle; knees are not compared", kKneeFactor));
  }
  for (const CurveTable* const table : {&a, &b}) {
    for (const std::string& note : table->notes) comparison.notes.push_back(table->name + ": " + note);
  }
  return comparison;
}

}  // namespace scope
