// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "run.h"

/// The figures of a recorded run that every report shows. Gigabytes are 10^9 bytes.
namespace scope {

/// One engine in one second, all its threads together.
struct EngineSecond {
  double timeS = 0;  ///< end of the second
  double spanS = 0;  ///< its length
  /// True if samples are missing before it. They are counted here or lost, so this second has no rate.
  bool afterGap = false;
  std::uint64_t operations = 0;
  std::optional<std::uint64_t> bytes;  ///< none if a thread's bytes are unknown
  std::uint64_t failures = 0;
  /// Median of the threads' medians, weighted by their operations. This and the next two are 0 without
  /// operations.
  std::uint64_t p50Ns = 0;
  std::uint64_t p99Ns = 0;  ///< the greatest p99 of a thread; the p99 of all threads together is at most this
  std::uint64_t maxNs = 0;

  double OperationsPerS() const { return static_cast<double>(operations) / spanS; }
  std::optional<double> GigabytesPerS() const;
};

/// An engine, or one thread of it, over the whole run.
struct WorkSummary {
  std::uint64_t operations = 0;
  std::uint64_t failures = 0;
  double operationsPerS = 0;            ///< over the whole seconds, see EngineSummary
  std::optional<double> gigabytesPerS;  ///< the same; none if bytes are unknown
  std::optional<std::uint64_t> p50Ns;   ///< of all operations; none without operations or histogram
  std::optional<std::uint64_t> p99Ns;
  std::uint64_t maxNs = 0;
  double lastS = 0;  ///< end of the last second with an operation; 0 without one
  /// Operations per second of busy time: the rate that the benchmark would print if it counted exactly. For
  /// several threads it is their mean, like the printed rate. 0 without operations.
  double busyRate = 0;
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

  const PrintedRates* PrintedOf(const std::string& engine) const;
};

/// Engines of the set-up are listed, but are not part of the sum.
RunSummary Summarise(const Run& run);

}  // namespace scope
