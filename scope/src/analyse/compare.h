// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "compare_figures.h"
#include "compare_findings.h"
#include "compare_input.h"
#include "verdict.h"

namespace scope {

struct ComparedFigure {
  FigureKey key;
  std::vector<double> aValues;  ///< one per run that has the figure
  std::vector<double> bValues;
  std::optional<double> a;  ///< the geometric mean; none if the side lacks the figure
  std::optional<double> b;
  std::optional<double> differencePercent;    ///< in per cent of `a`
  std::optional<DifferencePercent> interval;  ///< of the difference; only with two runs a side
  Verdict verdict = Verdict::kNotJudged;
  /// It is shown that B is not worse by more than the tolerance. True for a figure that is not judged.
  bool notWorse = true;
  std::optional<int> repeats;  ///< RepeatsToTell; only with kCannotTell
  std::string note;
};

/// The answer of a whole comparison, from the worst to the best.
enum class Answer {
  kWorse,         ///< a judged figure or a finding is worse
  kCannotTell,    ///< a judged figure may be worse by more than the tolerance
  kNotWorse,      ///< no figure is, but whether one is better or does not differ is not shown
  kNoDifference,  ///< no judged figure differs by more than the tolerance
  kBetter         ///< a judged figure is better, no other one is worse
};

struct Comparison {
  std::vector<ComparedFigure> figures;
  std::vector<std::string> errors;  ///< of each side that has some, or was checked; see TimeToFailure
  std::vector<Finding> findings;
  std::vector<std::string> notes;
  std::size_t judged = 0;  ///< number of figures that are judged
  double figureConfidence =
      0;  ///< of each interval, so that all judged ones hold together with the confidence
  Answer answer = Answer::kCannotTell;
  std::optional<int> repeats;  ///< the greatest of the figures'
};

struct CompareOptions {
  double skipS = 5;
  double tolerancePercent = 2;
  double confidence = 0.95;
  /// The n-th runs of both sides were recorded right after each other, in random order.
  bool paired = false;
  int looks = 1;                 ///< how often a growing set of runs is compared until the answer is clear
  std::set<Figure> figures;      ///< empty means all
  std::set<FigureKey> shown;     ///< of the figures that are named above, those that are shown and not judged
  const char* repeat = "run";    ///< what a side has several of, in sentences
  const char* place = "engine";  ///< what FigureKey::engine names, in tables
};

/// Compares B with A. The value of a run is the mean over its seconds for operations and bytes, and the
/// median for other figures. The runs of a side are repeats.
///
/// Judged are the exact rate of each engine (the printed one where no run has an exact one) and, of more than
/// one engine, the total bandwidth. If `options.figures` names figures, those are judged instead, without
/// those in `options.shown`, and no other is shown. The intervals of the judged figures hold together, over
/// all looks, with options.confidence.
///
/// Throws UserError for a complete run without a second after skipS, and for a tolerance that is negative or
/// not a number.
Comparison Compare(const Side& a, const Side& b, const CompareOptions& options);

}  // namespace scope
