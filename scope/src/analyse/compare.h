// SPDX-License-Identifier: Apache-2.0
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
  kNoDifference,  ///< the noise hides any difference
  kMissing,       ///< one side lacks the figure
  kUnusable       ///< the values mean nothing; `note` says why
};

struct ComparedFigure {
  FigureKey key;
  std::vector<double> aValues;  ///< the median of each repeat, or the values of the seconds
  std::vector<double> bValues;
  std::optional<double> a;  ///< median; none if the side lacks the figure
  std::optional<double> b;
  std::optional<double> differencePercent;  ///< in per cent of A's median, like the next two
  double lowPercent = 0;
  double highPercent = 0;
  std::optional<double> rankSumP;  ///< only when repeats are compared
  Verdict verdict = Verdict::kNoDifference;
  bool regression = false;
  std::optional<int> repeatsForOnePercent;
  std::string note;
};

struct Comparison {
  /// True: the noise between repeats is used. False: a side has only one run, so the noise between the
  /// seconds of a run is used. That noise does not show how much runs differ from each other.
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
  std::set<Figure> figures;  ///< empty means all
};

/// Compares B with A, figure by figure. A difference counts when the bootstrap interval of the difference of
/// medians excludes 0. Over repeats the rank-sum test must agree: with few repeats, a bootstrap alone finds
/// too many differences. It is a regression when the whole interval is worse than the tolerance. It is also
/// one when only B lacks the figure in some runs, or when an engine or one of its threads stops early only
/// in B. Throws UserError for a run without a second after skipS.
Comparison Compare(const Side& a, const Side& b, const CompareOptions& options);

}  // namespace scope
