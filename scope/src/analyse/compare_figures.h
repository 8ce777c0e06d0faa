// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>
#include <vector>

#include "run_summary.h"

namespace scope {

/// All engines together. Its only figure is the bandwidth, if the bytes of every engine are known.
constexpr const char* kAllEngines = "total";

/// What the latency probe measured. It is no engine, and does no work.
constexpr const char* kMemory = "memory";

struct FigureKey {
  std::string engine;  ///< its id, kAllEngines or kMemory
  Figure figure = Figure::kOperations;
};
/// Orders by engine, as in the table of engines, and then by figure.
bool operator<(const FigureKey& left, const FigureKey& right);

/// The values of the run's seconds by figure that is compared, in its unit and in order of time:
/// - op/s and GB/s (10^9 bytes) of all threads of the engine, divided by the second's length;
/// - p50 and p99 of EngineSecond;
/// - the printed rate;
/// - p50, p99 and p99.9 of memory, where the latency probe measured them.
/// Only whole seconds count. Seconds whose middle is before `skipS` and printed rates before it are left out.
/// An engine without operations has the single rate 0. If no engine has any, the total is a single 0 too.
/// Engines and figures without a value are absent.
std::map<FigureKey, std::vector<double>> FiguresOf(const RunSummary& run, double skipS);

/// The seconds of the latency probe that count: those of RunSummary::latency whose middle is not before
/// `skipS`. One may be without an access, if all its bursts were interrupted.
std::vector<LatencySecond> LatencyAfter(const RunSummary& run, double skipS);

/// The one value that a run has for a figure, from those of its seconds, of which there is at least one.
/// Operations and bytes per second: the mean. A median of whole operations a second would move in steps: at
/// 20 operations/s by 5 %. Other figures: the median.
double ValueOf(Figure figure, const std::vector<double>& seconds);

}  // namespace scope
