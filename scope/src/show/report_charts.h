#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "report.h"

/// The charts of a report's page, as page/report.js draws them.
namespace scope {

using Runs = std::vector<ReportedRun>;

struct Chart {
  std::string id;  ///< of its canvas
  std::string title;
  /// xTitle, yTitle (with units), xMin, xMax, yMax, xLog, yLog, stacked, stepped, and series: name, colour,
  /// dash, marker, fill and points, an array of [x, y], y null where the line has a gap.
  nlohmann::ordered_json spec;
  bool broad = false;  ///< as wide as the page
};

/// Every engine that a run has figures of: cpu, vpc, venc, aic, then others.
std::vector<std::string> Engines(const Runs& runs);

/// The engine's summary; null where the run has none.
const EngineSummary* Find(const ReportedRun& run, const std::string& engine);

/// Bandwidth of all engines, a chart for each run that has it, on one scale.
std::vector<Chart> TotalCharts(const Runs& runs);

/// Rate, bandwidth, latencies, histogram and printed rate of the engine, all runs in each; what no run has is
/// left out.
std::vector<Chart> EngineCharts(const Runs& runs, const std::string& engine);

/// A chart for each run and source of counters that it recorded.
std::vector<Chart> CounterCharts(const Runs& runs);

}  // namespace scope
