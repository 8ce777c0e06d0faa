#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "run.h"

/// What a recorded run comes to: the figures that every report shows. Gigabytes are 10^9 bytes.
namespace scope {

/// One engine in one second, all its threads together.
struct EngineSecond {
  double timeS = 0;  ///< end of the second
  double spanS = 0;  ///< its length
  /// Seconds before it have no samples. Those are either in this one or lost, so it tells no rate.
  bool afterGap = false;
  std::uint64_t operations = 0;
  std::optional<std::uint64_t> bytes;  ///< none where a thread's are unknown
  std::uint64_t failures = 0;
  /// Of the threads' own: the median, each thread weighing as many operations as it did. 0 without
  /// operations, as the two below.
  std::uint64_t p50Ns = 0;
  std::uint64_t p99Ns = 0;  ///< of the thread that has the greatest; that of all together is at most this
  std::uint64_t maxNs = 0;

  double OperationsPerS() const { return static_cast<double>(operations) / spanS; }
  std::optional<double> GigabytesPerS() const;
};

/// An engine, or one thread of it, over the whole run.
struct WorkSummary {
  std::uint64_t operations = 0;
  std::uint64_t failures = 0;
  double operationsPerS = 0;            ///< over the whole seconds, see EngineSummary
  std::optional<double> gigabytesPerS;  ///< the same; none where bytes are unknown
  std::optional<std::uint64_t> p50Ns;   ///< of all operations; none without operations or histogram
  std::optional<std::uint64_t> p99Ns;
  std::uint64_t maxNs = 0;
  double lastS = 0;  ///< end of the last second with an operation; 0 without one
  /// Operations per second of busy time: what the benchmark would print if it counted exactly. Of several
  /// threads the mean, as it prints. 0 without operations.
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
  /// The seconds between the one in which the engine began and the one in which it ended, or all with
  /// operations where there are no others: [firstWhole, endWhole) of `seconds`. Rates are over those of them
  /// that are not after a gap.
  std::size_t firstWhole = 0;
  std::size_t endWhole = 0;
  double belowMillisecond = 0;  ///< share of its operations that took less than 1 ms, of 0 to 1
};

/// One stress's printed rates.
struct PrintedRates {
  std::string stress;
  std::string engine;  ///< the engine that it loads; empty for a name that is not known
  std::vector<Rate> rates;
  /// Median of the lines from the first on that is not 0; 0 where all are. The lines before come from a
  /// benchmark that has not measured yet.
  double median = 0;
};

struct RunSummary {
  std::vector<EngineSummary> engines;   ///< in the order of their table, then others by name
  std::vector<PrintedRates> printed;    ///< in the same order
  std::optional<double> gigabytesPerS;  ///< of all engines together; none where one is unknown, or none there
  double endS = 0;                      ///< of the last second of all

  const PrintedRates* PrintedOf(const std::string& engine) const;
};

/// An engine of a set-up is among the engines and does not count towards the sum.
RunSummary Summarise(const Run& run);

}  // namespace scope
