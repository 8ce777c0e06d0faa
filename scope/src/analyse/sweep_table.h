#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "compare_figures.h"
#include "sweep.h"

namespace scope {

/// A point of the grid and what its runs came to.
struct SweepPoint {
  SweepLevels levels;
  std::size_t runs = 0;  ///< that are done
  /// The median over the seconds of each run, in the order of the repeats. Absent: the engine did not work.
  std::map<FigureKey, std::vector<double>> values;
};

/// A sweep, as far as it is done.
struct SweepTable {
  std::vector<SweepAxis> axes;
  std::vector<SweepPoint> points;  ///< of the whole grid, the last axis first
  std::vector<std::string> engines;
  std::vector<std::string> notes;  ///< what is to be known before the figures are used, a sentence each
};

/// Reads the runs of the sweep in `folder` that are done. A run that cannot be read is left out and noted.
SweepTable ReadSweepTable(const std::string& folder, const Sweep& sweep);

/// The median of the point's runs; none where it has no such figure.
std::optional<double> MedianOf(const SweepPoint& point, const FigureKey& key);

/// Where more load stops to bring more total bandwidth.
struct Saturation {
  std::size_t best = 0;  ///< point of the greatest total bandwidth
  /// The point with the fewest threads, over all swept sections, whose median is within 5 % of the best.
  std::size_t lowest = 0;
  bool reached = false;  ///< false: the lowest is the one with the most threads, and more may bring more
  /// A point with fewer threads still that four or more repeats each do not tell from the best, by the test
  /// of `compare`. It may be as good, or the noise hides that it is not.
  std::optional<std::size_t> untold;
};
/// None where no point has a total bandwidth other than 0.
std::optional<Saturation> FindSaturation(const SweepTable& table);

/// The greatest median of the total bandwidth, in GB/s; 0 where there is none.
double GreatestBandwidth(const SweepTable& table);

}  // namespace scope
