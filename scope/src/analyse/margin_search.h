// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

/// Where settings of a board stop working: a search that decides from results alone which point to try next.
/// It has no input and output, and no memory: the same results give the same point, so it can go on after the
/// machine has died.
///
/// A point is farther out than another one if it is as far from the chosen point in each setting, or farther
/// in the same direction. The search assumes that farther points fail at least as often. Then a failure also
/// condemns all points farther out, and runs without a failure also speak for all points nearer.
namespace scope {

/// The points of one or more settings. A point's number counts the values of the last setting fastest.
struct MarginGrid {
  std::vector<std::size_t> counts;  ///< how many values each setting has
  std::size_t chosen = 0;           ///< the point whose margin is asked for
};

/// The runs at a point.
struct Trials {
  std::size_t passes = 0;
  std::size_t failures = 0;
};

/// What the runs say about a point.
struct Judgement {
  bool fails = false;  ///< a run failed here or, in what Judge returns, at a point nearer to the chosen one
  /// If it does not fail: the runs here and, in what Judge returns, those at points farther out that do not
  /// fail.
  std::size_t cleanRuns = 0;
};

/// The number of points.
std::size_t PointCount(const MarginGrid& grid);

/// The index of the point's value for each setting.
std::vector<std::size_t> ValuesOfPoint(const MarginGrid& grid, std::size_t point);

/// One for each point. `trials` has an entry for each point.
std::vector<Judgement> Judge(const MarginGrid& grid, const std::vector<Trials>& trials);

/// The same where each point stands for itself: no other one says anything of it.
std::vector<Judgement> JudgeAlone(const std::vector<Trials>& trials);

/// The points one step from the chosen one along one setting, in the order of their numbers.
std::vector<std::size_t> Neighbours(const MarginGrid& grid);

/// The point to try next; none when each point fails or has `repeats` clean runs. If by then fewer than a
/// quarter of the grid's runs were made, the chosen point and its neighbours get `repeats` runs of their own
/// first. No point gets more than `repeats`.
std::optional<std::size_t> NextPoint(const MarginGrid& grid, const std::vector<Trials>& trials,
                                     std::size_t repeats);

/// Pairs of points that speak against the assumption, of at most `repeats` runs each: the second one is
/// farther out and has not failed, although the failures of the first one make that less likely than 5 %, or
/// the first one has never passed. At most `most`.
std::vector<std::pair<std::size_t, std::size_t>> Contradictions(const MarginGrid& grid,
                                                                const std::vector<Trials>& trials,
                                                                std::size_t repeats, std::size_t most);

}  // namespace scope
