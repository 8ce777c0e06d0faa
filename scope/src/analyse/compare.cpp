// SPDX-License-Identifier: Apache-2.0
#include "compare.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <tuple>

#include "errors.h"
#include "run_summary.h"
#include "run_warnings.h"
#include "statistics.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr double kOnePercent = 0.01;

using Values = std::map<FigureKey, std::vector<double>>;

struct SideFigures {
  std::vector<Values> runs;  ///< the values of each run's seconds
  /// Engines whose printed rates are unusable.
  std::set<std::string> printedTooCoarsely;
  /// Engines that stopped before the end of a run, each with a sentence about when.
  std::map<std::string, std::string> stopped;
};

SideFigures Read(const Side& side, const CompareOptions& options) {
  SideFigures figures;
  for (const Run& run : side.runs) {
    const RunSummary summary = Summarise(run);
    for (const EngineSummary& engine : summary.engines) {
      if (HasShortOperations(engine)) figures.printedTooCoarsely.insert(engine.engine);
      if (engine.work.operations == 0) continue;
      const std::string end = EarlyEnd(engine, summary.endS).text;
      if (!end.empty()) figures.stopped.emplace(engine.engine, end);
    }
    figures.runs.push_back(FiguresOf(summary, options.skipS));
    if (figures.runs.back().empty()) {
      throw UserError(run.folder + ": there is no second to compare after the first " +
                      Format("%g", options.skipS) + " s; --skip says how many are left out");
    }
  }
  return figures;
}

// One median per run, or the values of all seconds of all runs.
std::vector<double> Pick(const SideFigures& figures, const FigureKey& key, bool overRepeats) {
  std::vector<double> values;
  for (const Values& run : figures.runs) {
    const auto at = run.find(key);
    if (at == run.end()) continue;
    if (overRepeats) {
      values.push_back(Median(at->second));
    } else {
      values.insert(values.end(), at->second.begin(), at->second.end());
    }
  }
  return values;
}

// Neighbouring seconds depend on each other. The cube root is the usual block length for this bootstrap.
std::size_t Block(std::size_t seconds) {
  return static_cast<std::size_t>(std::lround(std::cbrt(static_cast<double>(seconds))));
}

// The coefficient of variation of a run's median. None for fewer than two values or a median of 0.
std::optional<double> Variation(const std::vector<double>& values, bool overRepeats,
                                const BootstrapOptions& bootstrap) {
  const double median = std::abs(Median(values));
  if (values.size() < 2 || median == 0) return std::nullopt;
  return StandardDeviation(overRepeats ? values : BootstrapMedians(values, bootstrap)) / median;
}

void Judge(ComparedFigure& figure, bool overRepeats, const CompareOptions& options) {
  const auto& [a, b] = std::tie(figure.aValues, figure.bValues);
  if (a.empty() || b.empty()) {
    figure.verdict = Verdict::kMissing;
    figure.regression = b.empty();
    figure.note = b.empty() ? "B does not have it" : "A does not have it";
    return;
  }
  const double base = *figure.a;
  if (base == 0) {
    if (*figure.b == 0) {
      figure.note = "0 on both sides";
    } else {
      figure.note = "A's median is 0";
    }
    figure.verdict = Verdict::kUnusable;
    return;
  }
  BootstrapOptions bootstrap;
  bootstrap.confidence = options.confidence;
  bootstrap.seed = options.seed;
  if (!overRepeats) bootstrap.block = Block(std::min(a.size(), b.size()));
  const Difference difference = TestDifference(a, b, overRepeats, bootstrap);
  const double percent = 100 / std::abs(base);
  figure.differencePercent = (*figure.b - base) * percent;
  figure.lowPercent = difference.interval.low * percent;
  figure.highPercent = difference.interval.high * percent;
  figure.rankSumP = difference.rankSumP;
  const auto variationA = Variation(a, overRepeats, bootstrap);
  const auto variationB = Variation(b, overRepeats, bootstrap);
  if (variationA && variationB) {
    const double pooled = std::sqrt((*variationA * *variationA + *variationB * *variationB) / 2);
    figure.repeatsForOnePercent = RepeatsToShow(pooled, kOnePercent, options.confidence);
  }
  if (!difference.shown) return;
  const bool lowerIsBetter = KindOf(figure.key.figure).lowerIsBetter;
  const double least =
      lowerIsBetter ? figure.lowPercent : -figure.highPercent;  // B is worse by at least this
  figure.verdict = least > 0 ? Verdict::kWorse : Verdict::kBetter;
  figure.regression = least > options.tolerancePercent;
}

std::size_t RunsWith(const SideFigures& figures, const FigureKey& key) {
  return static_cast<std::size_t>(std::count_if(figures.runs.begin(), figures.runs.end(),
                                                [&key](const Values& run) { return run.count(key) != 0; }));
}

// The medians cover only the runs that have the figure. They do not show that other runs lack it.
void JudgeMissingRuns(ComparedFigure& figure, const SideFigures& a, const SideFigures& b) {
  const std::size_t missing = b.runs.size() - RunsWith(b, figure.key);
  if (figure.verdict == Verdict::kMissing || missing == 0 || RunsWith(a, figure.key) != a.runs.size()) return;
  figure.verdict = Verdict::kWorse;
  figure.regression = true;
  figure.note = Format("%zu of %zu runs of B do not have it", missing, b.runs.size());
}

// A median covers only the seconds before the engine stopped, and those may be as good as in A.
void JudgeEarlyEnd(ComparedFigure& figure, const SideFigures& a, const SideFigures& b) {
  if (figure.verdict == Verdict::kMissing) return;
  for (const auto& [engine, end] : b.stopped) {
    if (a.stopped.count(engine) != 0) continue;
    if (figure.key.engine != engine && figure.key.engine != kAllEngines) continue;
    figure.verdict = Verdict::kWorse;
    figure.regression = true;
    figure.note = "in B, " + engine + " stops early: " + end;
    return;
  }
}

void NoteEarlyEnds(const char* side, const SideFigures& figures, std::vector<std::string>& notes) {
  for (const auto& [engine, end] : figures.stopped)
    notes.push_back(std::string("in ") + side + ", " + engine + " stops early: " + end);
}

void NoteDrift(const Side& side, const SideFigures& figures, std::vector<std::string>& notes) {
  for (std::size_t i = 0; i < figures.runs.size(); ++i) {
    for (const auto& [key, values] : figures.runs[i]) {
      const std::string drift = key.figure == Figure::kOperations ? Drift(values) : std::string();
      if (!drift.empty()) notes.push_back(side.runs[i].folder + ": " + key.engine + ": " + drift);
    }
  }
}

void NoteRuns(const Side& side, std::vector<std::string>& notes) {
  for (const Run& run : side.runs) {
    for (const std::string& note : run.notes) notes.push_back(run.folder + ": " + note);
    std::map<std::string, std::uint64_t> failures;
    for (const Sample& sample : run.samples) failures[sample.engine] += sample.failures;
    for (const auto& [engine, count] : failures) {
      if (count == 0) continue;
      notes.push_back(run.folder + ": " + engine + ": " + std::to_string(count) + " operations failed");
    }
  }
}

}  // namespace

Comparison Compare(const Side& a, const Side& b, const CompareOptions& options) {
  const SideFigures ofA = Read(a, options);
  const SideFigures ofB = Read(b, options);
  Comparison comparison;
  comparison.overRepeats = a.runs.size() > 1 && b.runs.size() > 1;
  std::set<FigureKey> keys;
  for (const SideFigures* side : {&ofA, &ofB}) {
    for (const Values& run : side->runs) {
      for (const auto& [key, values] : run) keys.insert(key);
    }
  }
  for (const FigureKey& key : keys) {
    if (!options.figures.empty() && options.figures.count(key.figure) == 0) continue;
    ComparedFigure figure;
    figure.key = key;
    figure.aValues = Pick(ofA, key, comparison.overRepeats);
    figure.bValues = Pick(ofB, key, comparison.overRepeats);
    if (!figure.aValues.empty()) figure.a = Median(figure.aValues);
    if (!figure.bValues.empty()) figure.b = Median(figure.bValues);
    const bool tooCoarse =
        ofA.printedTooCoarsely.count(key.engine) + ofB.printedTooCoarsely.count(key.engine) != 0;
    if (key.figure == Figure::kPrinted && tooCoarse) {
      figure.verdict = Verdict::kUnusable;
      figure.note = "operations of less than 1 ms, which count as no time";
    } else {
      Judge(figure, comparison.overRepeats, options);
    }
    JudgeMissingRuns(figure, ofA, ofB);
    JudgeEarlyEnd(figure, ofA, ofB);
    comparison.regression = comparison.regression || figure.regression;
    comparison.figures.push_back(std::move(figure));
  }
  if (comparison.figures.empty()) throw UserError("neither side has a figure that was asked for");
  const std::size_t least = std::min(a.runs.size(), b.runs.size());
  const auto needed = static_cast<std::size_t>(LeastRepeats(options.confidence));
  if (comparison.overRepeats && least < needed && a.runs.size() + b.runs.size() < 2 * needed) {
    comparison.notes.push_back(std::to_string(least) + " repeats a side cannot show a difference at " +
                               Format("%g %%", options.confidence * 100) + ": record " +
                               std::to_string(needed) + " or more");
  }
  NoteRuns(a, comparison.notes);
  NoteRuns(b, comparison.notes);
  NoteEarlyEnds("A", ofA, comparison.notes);
  NoteEarlyEnds("B", ofB, comparison.notes);
  NoteDrift(a, ofA, comparison.notes);
  NoteDrift(b, ofB, comparison.notes);
  return comparison;
}

}  // namespace scope
