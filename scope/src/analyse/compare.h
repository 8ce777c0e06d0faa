#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "compare_figures.h"
#include "compare_input.h"

namespace scope {

enum class Verdict {
  kBetter,
  kWorse,
  kNoDifference,  ///< none shown at this noise
  kMissing,       ///< one side does not have the figure
  kUnusable       ///< has values that say nothing; `note` says why
};

struct ComparedFigure {
  FigureKey key;
  std::vector<double> aValues;  ///< a repeat each, its median over the seconds; or the seconds
  std::vector<double> bValues;
  std::optional<double> a;  ///< median; none where a side does not have the figure
  std::optional<double> b;
  std::optional<double> differencePercent;  ///< of A's median, and so are the next two
  double lowPercent = 0;
  double highPercent = 0;
  std::optional<double> rankSumP;  ///< over repeats alone
  Verdict verdict = Verdict::kNoDifference;
  bool regression = false;
  std::optional<int> repeatsForOnePercent;
  std::string note;
};

struct Comparison {
  /// True: the noise is that between repeats. False: a side has one run alone, and the noise is that within
  /// the runs, between their seconds; it says nothing on how one run differs from the next.
  bool overRepeats = true;
  std::vector<ComparedFigure> figures;
  std::vector<std::string> notes;
  bool regression = false;
};

struct CompareOptions {
  double skipS = 5;
  double tolerancePercent = 1;
  double confidence = 0.95;
  std::uint64_t seed = 1;
  std::set<Figure> figures;  ///< empty: all
};

/// Compares B with A, figure by figure. A difference is shown when the bootstrap interval of the difference
/// of medians leaves out 0 and, over repeats, the rank-sum test agrees: of few repeats a bootstrap alone
/// makes too much. It is a regression when the whole interval is worse than the tolerance, when the figure is
/// missing in B, or some of its runs, alone, or when its engine, or a thread of it, stops before the end in B
/// alone: a median over the seconds does not show that. Throws UserError for a run without a second
/// after skipS.
Comparison Compare(const Side& a, const Side& b, const CompareOptions& options);

}  // namespace scope
