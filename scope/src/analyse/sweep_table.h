// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "compare_figures.h"
#include "sweep.h"

namespace scope {

/// A point of the grid with the figures of its runs.
struct SweepPoint {
  SweepLevels levels;
  std::size_t runs = 0;  ///< finished runs
  /// The value of each run, in the order of the repeats. Engines that did not work are absent.
  std::map<FigureKey, std::vector<double>> values;
  BoardSettings settings;
  /// NotJudged of the runs without an error, each text once.
  std::vector<std::string> notJudged = {};
  double dutyPercent = kWholeDuty;  ///< as SweepRun::dutyPercent
};

/// The finished part of a sweep.
struct SweepTable {
  std::vector<SweepAxis> axes;
  std::vector<SettingAxis> boardAxes;
  std::vector<SweepPoint> points;  ///< the whole grid; the last axis changes fastest
  std::vector<std::string> engines;
  std::vector<std::string> notes;  ///< reasons to doubt the figures, one sentence each
};

/// Gets each finished run of a sweep.
using RunVisitor = std::function<void(const SweepRun& planned, const Run& run, const RunSummary& summary)>;

/// Reads the finished runs of the sweep in `folder`. A run that cannot be read is left out and noted.
SweepTable ReadSweepTable(const std::string& folder, const Sweep& sweep, const RunVisitor& visit = {});

/// The median over the point's runs; none if the point lacks the figure.
std::optional<double> MedianOf(const SweepPoint& point, const FigureKey& key);

/// The greatest median of the total bandwidth, in GB/s; 0 if there is none.
double GreatestBandwidth(const SweepTable& table);

}  // namespace scope
