// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "figures.h"

/// The figures of a recorded run that every report shows. Gigabytes are 10^9 bytes.
namespace scope {

/// An engine, or one thread of it, over the whole run.
/// A second of an engine, or of one of its threads.
struct EngineSecond : SecondWork {
  double spanS = 0;  ///< its length
  /// True if seconds are missing before it. Their work is counted here or lost, so this second has no rate.
  bool afterGap = false;
};

/// Rates are over the whole seconds, see EngineSummary. Latencies are those of all operations.
struct WorkSummary : Work {
  double lastS = 0;  ///< end of the last second with an operation; 0 without one
};

struct ThreadSummary {
  int thread = 0;
  WorkSummary work;
};

struct EngineSummary {
  std::string engine;
  WorkSummary work;
  std::vector<ThreadSummary> threads;
  std::vector<EngineSecond> seconds;
  /// The whole seconds are [firstWhole, endWhole) of `seconds`: those between the engine's first and last
  /// second with operations. If there is none between, these two count. Rates leave out seconds after a gap.
  std::size_t firstWhole = 0;
  std::size_t endWhole = 0;
  double belowMillisecond = 0;  ///< share (0 to 1) of operations that took less than 1 ms
};

/// One stress's printed rates.
struct PrintedRates {
  std::string stress;
  std::string engine;  ///< the engine that it loads; empty if the stress is unknown
  std::vector<Rate> rates;
  /// Median of the rates from the first one that is not 0; 0 if all are 0. Before it, the benchmark has
  /// not measured yet.
  double median = 0;
};

struct RunSummary {
  std::vector<EngineSummary> engines;   ///< in the order of the table, then others by name
  std::vector<PrintedRates> printed;    ///< in the same order
  std::optional<double> gigabytesPerS;  ///< of all engines; none if one is unknown or there is none
  double endS = 0;                      ///< end of the run's last second
  /// The latency of memory in the seconds in which every engine with an operation has whole seconds; without
  /// such an engine, in all but the last one, which is shorter.
  std::vector<LatencySecond> latency;

  const PrintedRates* PrintedOf(const std::string& engine) const;
};

/// Engines of the set-up are listed, but are not part of the sum.
RunSummary Summarise(const Run& run);

}  // namespace scope
