// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "compare_figures.h"
#include "margin_search.h"
#include "sweep.h"
#include "sweep_table.h"

/// Which settings of a board pass and which fail, with the performance beside it.
namespace scope {

/// True if the run has shown that its setting passes or fails.
bool HasResult(const SweepRun& run);
/// True if it has shown that its setting fails: it failed, hung, did not come back, or had errors.
bool HasFailed(const SweepRun& run);

/// The run that the search for the edge asks for; null at its end. `sweep` has settings and no levels.
SweepRun* NextRun(Sweep& sweep);

/// True if nothing is left to record.
bool IsComplete(const Sweep& sweep);

/// A point of the settings, with the runs at all levels.
struct MarginPoint {
  BoardSettings settings;
  Trials trials;
  std::size_t hangs = 0;             ///< of the failures
  std::vector<std::string> reasons;  ///< why runs failed, each once
  Judgement judgement;
  std::optional<double> performance;  ///< the median of its complete runs; the best of several levels
  /// Why results of an engine were not judged, each text once. From runs that passed and were asked to check
  /// results.
  std::vector<std::string> notJudged;
};

/// How far one setting can be moved from the chosen point until it fails.
struct MarginEdge {
  std::string setting;
  bool isUp = true;                    ///< towards the values that were given later
  std::size_t steps = 0;               ///< from the chosen point to `last`
  std::size_t last = 0;                ///< the farthest point up to which all pass
  std::optional<std::size_t> failing;  ///< the first point that fails; none if none of the values does
  std::size_t unknown = 0;  ///< values after `last`, and before `failing`, of which nothing is known
};

struct MarginMap {
  bool edge = false;  ///< judged as the search for the edge does; false: each point stands for itself
  std::vector<SettingAxis> axes;
  MarginGrid grid;
  FigureKey figure;                 ///< of the performance
  std::vector<MarginPoint> points;  ///< in the order of the grid
  std::vector<MarginEdge> edges;    ///< two of each setting, without those that have no other value
  std::size_t runs = 0;             ///< with a result
  std::size_t gridRuns = 0;         ///< of the whole grid
  bool restored = true;             ///< Sweep::restored
  std::vector<std::string> doubts;  ///< what speaks against the map or is left to do, one sentence each
};

/// The map of a sweep that has settings. `table` is that of the sweep.
MarginMap MarginMapOf(const Sweep& sweep, const SweepTable& table);

/// The chosen point has failed.
bool ChosenFails(const Sweep& sweep);

/// The highest rate of failures that is still possible at a point, with 95 %; none if it fails, or has fewer
/// than four runs. Its own runs alone count: those at points farther out were chosen because they did not
/// fail.
std::optional<double> FailureRateBelow(const MarginPoint& point);

}  // namespace scope
