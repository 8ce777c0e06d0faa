// SPDX-License-Identifier: Apache-2.0
#include "compare_values.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "errors.h"
#include "statistics.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr double kMissShare = 0.2;

using Runs = std::vector<RunValues>;

std::vector<double> Pick(const Runs& runs, const FigureKey& key) {
  std::vector<double> values;
  for (const RunValues& run : runs) {
    const auto at = run.find(key);
    if (at != run.end()) values.push_back(at->second);
  }
  return values;
}

bool IsPositive(const std::vector<double>& values) {
  return std::all_of(values.begin(), values.end(), [](double value) { return value > 0; });
}

// The geometric mean. A run without work has no logarithm, so then it is the mean.
std::optional<double> Typical(const std::vector<double>& values) {
  if (values.empty()) return std::nullopt;
  if (!IsPositive(values)) return Mean(values);
  std::vector<double> logarithms;
  for (const double value : values) logarithms.push_back(std::log(value));
  return std::exp(Mean(logarithms));
}

std::set<FigureKey> KeysOf(const Runs& a, const Runs& b, const CompareOptions& options) {
  std::set<FigureKey> keys;
  for (const Runs* side : {&a, &b}) {
    for (const RunValues& run : *side) {
      for (const auto& [key, value] : run) {
        if (options.figures.empty() || options.figures.count(key.figure) != 0) keys.insert(key);
      }
    }
  }
  return keys;
}

std::set<FigureKey> JudgedOf(const std::set<FigureKey>& keys, const CompareOptions& options,
                             const std::set<std::string>& printedTooCoarsely) {
  std::set<FigureKey> judged;
  std::set<std::string> engines;
  for (const FigureKey& key : keys) {
    if (key.engine == kAllEngines) continue;
    if (key.engine != kMemory) engines.insert(key.engine);
    if (options.shown.count(key) != 0) continue;
    const bool isCoarse = key.figure == Figure::kPrinted && printedTooCoarsely.count(key.engine) != 0;
    const bool isExact = key.figure == Figure::kOperations;
    const bool isOnlyRate =
        key.figure == Figure::kPrinted && keys.count({key.engine, Figure::kOperations}) == 0;
    if (!isCoarse && (!options.figures.empty() || isExact || isOnlyRate)) judged.insert(key);
  }
  // The total of one engine is that engine's.
  const FigureKey total = {kAllEngines, Figure::kBandwidth};
  if (engines.size() != 1 && keys.count(total) != 0) judged.insert(total);
  return judged;
}

// True when the values alone decide.
bool JudgeMissing(ComparedFigure& figure, std::size_t runsOfA, std::size_t runsOfB) {
  const auto decide = [&figure](Verdict verdict, const std::string& note) {
    figure.verdict = verdict;
    figure.notWorse = verdict == Verdict::kNotJudged;
    figure.note = note;
    return true;
  };
  const std::size_t withoutB = runsOfB - figure.bValues.size();
  if (figure.aValues.empty()) return decide(Verdict::kNotJudged, "A does not have it");
  if (figure.bValues.empty()) return decide(Verdict::kWorse, "B does not have it");
  if (withoutB != 0 && figure.aValues.size() == runsOfA) {
    return decide(Verdict::kWorse,
                  Format("%zu of %s of B do not have it", withoutB, Counted(runsOfB, "run").c_str()));
  }
  if (*figure.a == 0 && *figure.b == 0) return decide(Verdict::kNotJudged, "0 on both sides");
  if (!IsPositive(figure.aValues)) return decide(Verdict::kCannotTell, "A has runs with the value 0");
  if (!IsPositive(figure.bValues)) return decide(Verdict::kWorse, "B has runs with the value 0");
  return false;
}

// `fewest` is the number of runs of the smaller side.
void Judge(ComparedFigure& figure, const ErrorShares& shares, double tolerancePercent, bool paired,
           std::size_t fewest) {
  if (figure.aValues.size() < 2 || figure.bValues.size() < 2) {
    figure.verdict = Verdict::kCannotTell;
    figure.notWorse = false;
    if (fewest < 2) return;  // true of every figure
    figure.note = Format("fewer than two runs of %s have it", figure.aValues.size() < 2 ? "A" : "B");
    return;
  }
  const bool lowerIsBetter = KindOf(figure.key.figure).lowerIsBetter;
  const RatioEstimate estimate = paired ? EstimatePairedRatio(figure.aValues, figure.bValues, shares.error)
                                        : EstimateRatio(figure.aValues, figure.bValues, shares.error);
  figure.interval = PercentOf(estimate);
  figure.verdict = JudgeDifference(*figure.interval, lowerIsBetter, tolerancePercent);
  figure.notWorse = IsShownNotWorse(*figure.interval, lowerIsBetter, tolerancePercent);
  if (figure.verdict != Verdict::kCannotTell) return;
  figure.repeats = RepeatsToTell(estimate, tolerancePercent / 100, shares);
  // The repeats would do for sides that do not differ. These runs differ by about the tolerance, or were
  // unlucky.
  const auto least = static_cast<int>(std::min(figure.aValues.size(), figure.bValues.size()));
  if (figure.repeats) figure.repeats = *figure.repeats > least ? *figure.repeats : 2 * least;
}

}  // namespace

RunValues ValuesOf(const RunSummary& summary, double skipS) {
  RunValues values;
  for (const auto& [key, seconds] : FiguresOf(summary, skipS)) values[key] = ValueOf(key.figure, seconds);
  return values;
}

Comparison CompareValues(const std::vector<RunValues>& a, const std::vector<RunValues>& b,
                         const CompareOptions& options, const std::set<std::string>& printedTooCoarsely) {
  if (!(options.tolerancePercent >= 0) || !std::isfinite(options.tolerancePercent)) {
    throw UserError("the tolerance must be a number of per cent from 0 on");
  }
  const std::set<FigureKey> keys = KeysOf(a, b, options);
  const std::set<FigureKey> judged = JudgedOf(keys, options, printedTooCoarsely);
  Comparison comparison;
  comparison.judged = judged.size();
  const auto parts = static_cast<double>(std::max<std::size_t>(judged.size(), 1));
  const ErrorShares shares = {(1 - options.confidence) / (parts * options.looks), kMissShare};
  comparison.figureConfidence = 1 - shares.error;
  bool canTell = true;
  for (const FigureKey& key : keys) {
    ComparedFigure figure;
    figure.key = key;
    figure.aValues = Pick(a, key);
    figure.bValues = Pick(b, key);
    figure.a = Typical(figure.aValues);
    figure.b = Typical(figure.bValues);
    if (figure.a && figure.b && *figure.a != 0) figure.differencePercent = (*figure.b / *figure.a - 1) * 100;
    const bool isPaired = options.paired && figure.aValues.size() == a.size() &&
                          figure.bValues.size() == b.size() && a.size() == b.size();
    if (!JudgeMissing(figure, a.size(), b.size())) {
      Judge(figure, shares, options.tolerancePercent, isPaired, std::min(a.size(), b.size()));
    }
    if (judged.count(key) == 0) {
      figure.verdict = Verdict::kNotJudged;
      figure.notWorse = true;
      figure.repeats.reset();
    } else if (figure.repeats) {
      comparison.repeats = std::max(comparison.repeats.value_or(0), *figure.repeats);
    } else {
      canTell = canTell && figure.verdict != Verdict::kCannotTell;
    }
    if (key.figure == Figure::kPrinted && printedTooCoarsely.count(key.engine) != 0) {
      figure.note = "operations of less than 1 ms count as no time";
    }
    comparison.figures.push_back(std::move(figure));
  }
  // No number of runs makes a figure clear that no number makes clear.
  if (!canTell) comparison.repeats.reset();
  comparison.answer = AnswerOf(comparison);
  return comparison;
}

Answer AnswerOf(const Comparison& comparison) {
  const auto has = [&comparison](Verdict verdict) {
    return std::any_of(comparison.figures.begin(), comparison.figures.end(),
                       [verdict](const ComparedFigure& figure) { return figure.verdict == verdict; });
  };
  const bool isWorse = std::any_of(comparison.findings.begin(), comparison.findings.end(),
                                   [](const Finding& finding) { return finding.worse; });
  if (isWorse || has(Verdict::kWorse)) return Answer::kWorse;
  const bool mayBeWorse = std::any_of(comparison.figures.begin(), comparison.figures.end(),
                                      [](const ComparedFigure& figure) { return !figure.notWorse; });
  if (mayBeWorse) return Answer::kCannotTell;
  if (has(Verdict::kBetter)) return Answer::kBetter;
  if (has(Verdict::kCannotTell)) return Answer::kNotWorse;
  return has(Verdict::kNoDifference) ? Answer::kNoDifference : Answer::kCannotTell;
}

}  // namespace scope
