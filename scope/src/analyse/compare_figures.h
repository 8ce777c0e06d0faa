#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "run_summary.h"

namespace scope {

/// What is compared of an engine, in the order in which it is shown.
enum class Figure { kOperations, kBandwidth, kP50, kP99, kPrinted };

struct FigureKind {
  Figure figure;
  const char* name;  ///< on the command line and in JSON: "ops", "bandwidth", "p50", "p99", "printed"
  const char* unit;  ///< "op/s", "GB/s", "us", "us", "fps"
  bool lowerIsBetter;
  /// The figure of a second; none where the second has none. Null: not taken from the meter's seconds.
  std::optional<double> (*ofSecond)(const EngineSecond& second);
};
const std::vector<FigureKind>& FigureKinds();
const FigureKind& KindOf(Figure figure);

/// All engines together; has a bandwidth alone, and only where every engine's bytes are known.
constexpr const char* kAllEngines = "total";

struct FigureKey {
  std::string engine;  ///< its id, or kAllEngines
  Figure figure = Figure::kOperations;
};
/// Engines as they are listed everywhere, then figures.
bool operator<(const FigureKey& left, const FigureKey& right);

/// Values of the run's seconds by figure, in the order of time:
/// - ops/s and GB/s (10^9 bytes) of all the engine's threads together, over the length of the second;
/// - p50 and p99 in us, as EngineSecond has them;
/// - the rate that was printed.
/// They are the engine's whole seconds, of which those that begin before `skipS` are left out, and so are
/// printed rates before it. An engine without any operation has the one rate 0, and where none has any, so
/// has the total. Engines and figures without a value are absent.
std::map<FigureKey, std::vector<double>> FiguresOf(const RunSummary& run, double skipS);

}  // namespace scope
