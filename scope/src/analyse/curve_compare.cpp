// SPDX-License-Identifier: Apache-2.0
#include "curve_compare.h"

#include <algorithm>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "compare_values.h"
#include "curve_plan.h"
#include "errors.h"
#include "margin_map.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr double kShares[] = {0.5, 0.8};  // of the lesser most bandwidth
constexpr const char* kSaturation = "saturation";

// Of few accesses each, so that they scatter much: shown and not judged.
struct Tail {
  Figure figure;
  double CurveValue::* ns;
};
constexpr Tail kTails[] = {{Figure::kP99, &CurveValue::p99Ns}, {Figure::kP999, &CurveValue::p999Ns}};

// What both curves have.
struct CommonFigures {
  double reach = 0;  ///< the greatest bandwidth that all their repeats reach
  bool knee = false;
  bool saturation = false;
};

CurveFigures Require(const CurveTable& table) {
  std::optional<CurveFigures> figures = FiguresOf(table);
  if (!figures) {
    throw UserError(table.name + ": " + WhyNoFigures(table) +
                    (IsComplete(table.curve.sweep)
                         ? " The notes of its report say more"
                         : " Continue with: stress_scope curve --resume " + table.name));
  }
  return *std::move(figures);
}

bool HasKnee(const CurveFigures& figures) {
  return figures.withoutKnee == 0;
}

// The greatest bandwidth that all repeats reach.
double Reach(const CurveFigures& figures) {
  double reach = figures.fits.front().gigabytesPerS.back();
  for (const CurveFit& fit : figures.fits) reach = std::min(reach, fit.gigabytesPerS.back());
  return reach;
}

std::string PlaceOf(double gigabytesPerS) {
  return Format("%.3g GB/s", gigabytesPerS);
}

// A tail over bandwidth. It may fall with more load, unlike the median, and so it is not evened out.
CurveFit TailOf(const CurveTable& table, std::size_t repeat, const CurveFit& fit, double CurveValue::* ns) {
  CurveFit tail = {fit.gigabytesPerS, {}};
  for (std::size_t i = 0; i < fit.gigabytesPerS.size(); ++i)
    tail.latencyNs.push_back((*table.points[i].values[repeat]).*ns);
  return tail;
}

std::vector<RunValues> ValuesOf(const CurveTable& table, const CurveFigures& figures,
                                const CommonFigures& common) {
  std::vector<RunValues> repeats;
  for (std::size_t i = 0; i < figures.repeats.size(); ++i) {
    const std::size_t repeat = figures.repeats[i];
    RunValues values;
    const auto add = [&values](const std::string& place, Figure figure, double ns) {
      values[{place, figure}] = ns / kNsPerUs;
    };
    const CurveValue& saturated = *table.points[figures.saturation.lowest].values[repeat];
    add("idle", Figure::kP50, figures.idleNs.values[i]);
    for (const double share : kShares) {
      const double at = share * common.reach;
      add(PlaceOf(at), Figure::kP50, *LatencyAtBandwidth(figures.fits[i], at));
    }
    if (common.saturation) add(kSaturation, Figure::kP50, saturated.p50Ns);
    for (const Tail& tail : kTails) {
      const CurveFit fit = TailOf(table, repeat, figures.fits[i], tail.ns);
      add("idle", tail.figure, fit.latencyNs.front());
      for (const double share : kShares) {
        const double at = share * common.reach;
        add(PlaceOf(at), tail.figure, *LatencyAtBandwidth(fit, at));
      }
      if (common.saturation) add(kSaturation, tail.figure, saturated.*tail.ns);
    }
    if (common.knee) values[{"knee", Figure::kBandwidth}] = figures.knee->values[i];
    values[{"most", Figure::kBandwidth}] = figures.mostGigabytesPerS.values[i];
    repeats.push_back(std::move(values));
  }
  return repeats;
}

// The curves saturate at bandwidths that differ, and latencies there are not those of the same load.
std::set<FigureKey> NotJudgedOf(const RunValues& values) {
  std::set<FigureKey> keys;
  for (const auto& [key, value] : values) {
    const bool isTail = key.figure == Figure::kP99 || key.figure == Figure::kP999;
    if (isTail || key.engine == kSaturation) keys.insert(key);
  }
  return keys;
}

// What runs of two curves may differ in, though their conditions agree.
std::vector<std::string> DifferentPlans(const Curve& a, const Curve& b) {
  const auto mostText = [](const Curve& curve) {
    return std::to_string(curve.most) + " times " + MixText(curve.mix);
  };
  const auto lengthText = [](const Curve& curve) {
    const double stopAfterS = curve.sweep.settings.stopAfterS;
    return stopAfterS > 0 ? Format("%g s", stopAfterS) : std::string("to their own end");
  };
  const auto warmupText = [](const Curve& curve) { return Format("%g s", curve.sweep.settings.warmupS); };
  std::vector<std::string> notes;
  const auto compare = [&notes](const char* what, const std::string& ofA, const std::string& ofB) {
    if (ofA == ofB) return;
    notes.push_back(std::string("the curves differ in ") + what + ": " + ofA + " in A, " + ofB + " in B");
  };
  compare("the number of points", std::to_string(a.points), std::to_string(b.points));
  compare("the greatest load", mostText(a), mostText(b));
  compare("the length of their runs", lengthText(a), lengthText(b));
  compare("the warm-up that figures leave out", warmupText(a), warmupText(b));
  return notes;
}

std::vector<std::string> MissingFigures(const CurveFigures& figures, const std::string& letter) {
  std::vector<std::string> notes;
  if (!HasKnee(figures)) {
    notes.push_back(
        letter + Format(" has no knee in %zu of ", figures.withoutKnee) +
        Counted(figures.repeats.size(), "repeat") +
        Format(": there the latency stays below %g times that at idle; knees are not compared", kKneeFactor));
  }
  if (!figures.saturation.reached)
    notes.push_back(letter + " does not reach saturation: the latency there is not compared");
  return notes;
}

}  // namespace

Comparison CompareCurves(const CurveTable& a, const CurveTable& b, const CompareOptions& options) {
  const CurveFigures ofA = Require(a);
  const CurveFigures ofB = Require(b);
  const CommonFigures common = {std::min(Reach(ofA), Reach(ofB)), HasKnee(ofA) && HasKnee(ofB),
                                ofA.saturation.reached && ofB.saturation.reached};
  const std::vector<RunValues> valuesOfA = ValuesOf(a, ofA, common);
  CompareOptions all = options;
  all.figures = {Figure::kP50, Figure::kP99, Figure::kP999, Figure::kBandwidth};
  all.shown = NotJudgedOf(valuesOfA.front());
  Comparison comparison = CompareValues(valuesOfA, ValuesOf(b, ofB, common), all);
  comparison.notes = DifferentPlans(a.curve, b.curve);
  for (const auto& [figures, letter] : {std::pair(&ofA, "A"), std::pair(&ofB, "B")}) {
    for (std::string& note : MissingFigures(*figures, letter)) comparison.notes.push_back(std::move(note));
  }
  for (const CurveTable* const table : {&a, &b}) {
    for (const std::string& note : table->notes) comparison.notes.push_back(table->name + ": " + note);
  }
  return comparison;
}

}  // namespace scope
