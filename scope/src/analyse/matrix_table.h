// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "matrix.h"
#include "run.h"
#include "worst_search.h"

namespace scope {

/// How much slower, in percent: 100 means that the same work takes twice as long.
struct SlowdownPercent {
  double value = 0;
  /// The limits of its interval of 95 %; none with fewer than two runs a side.
  std::optional<double> low;
  std::optional<double> high;
};

/// Which part of a slowdown is that by memory, in percent.
struct MemoryShare {
  double percent = 0;
  double low = 0;  ///< limits of its interval of 95 %
  double high = 0;
};

/// One value for each run, in the order of recording.
struct MatrixFigures {
  std::vector<double> main;   ///< the victim's op/s; of the latency of memory: the median in ns
  std::vector<double> p99Us;  ///< its 99th percentile
  std::vector<double> cpus;   ///< processor time a second of the aggressors or the control; see MatrixTable
  std::uint64_t bursts = 0;   ///< of the latency probe in all runs after the warm-up, if that is the victim
  std::uint64_t interrupted = 0;  ///< of them; their accesses are in no figure
};

/// A victim and a mix of aggressors.
struct MatrixCell {
  MatrixVictim victim;
  SweepLevels mix;
  MatrixFigures alone;
  MatrixFigures with;
  MatrixFigures control;
  /// What the aggressors took without the victim; none if that is not recorded.
  std::optional<double> aggressorCpus;
  std::optional<SlowdownPercent> byMemory;  ///< with the aggressors against the control
  std::optional<SlowdownPercent> byCpu;     ///< with the control against alone
  std::optional<SlowdownPercent> total;     ///< with the aggressors against alone
  /// The share of `total`, in logarithms, because slowdowns multiply; none unless `total` is known to be
  /// above 0.
  std::optional<MemoryShare> memoryShare;
};

/// The mix that comes after the one that a search has found.
struct NextWorst {
  SweepLevels mix;
  /// How much slower the victim is beside the worst mix than beside this one.
  std::optional<SlowdownPercent> behind;
};

struct MatrixTable {
  std::vector<MatrixCell> cells;  ///< those with a finished run, the strongest by memory first
  std::size_t done = 0;           ///< finished runs
  std::size_t withRuns = 0;       ///< of them, those of victims with aggressors
  /// What the latency of memory is of: "256 MiB in pages of 2 MiB, CPU 1"; empty without that victim.
  std::string latency;
  std::vector<LatencyGrowth> growth;  ///< medians of what the runs with the probe read before their load
  std::optional<NextWorst> next;      ///< of a search that has found a mix, and tried another one
  std::vector<std::string> notes;
};

/// Reads the finished runs of the matrix in `folder`. A run that cannot be read is left out and noted.
MatrixTable ReadMatrixTable(const std::string& folder, const Matrix& matrix);

/// The results of a search so far, by the number of the mix: time per operation, or latency. An engine that
/// did nothing is as slow as can be; without an undisturbed burst, the latency is not known.
std::vector<Slowness> ReadSlowness(const std::string& folder, const Matrix& matrix);

/// Threads that take the processor time that the aggressors took in the run `folder`, which had no victim:
/// for each engine as many threads, and in each as many periods as it had operations. Throws UserError if the
/// run cannot tell.
std::vector<ControlThreads> ControlOf(const std::string& folder, double warmupS);

/// How much slower `b` is than `a`; both are rates, or latencies if `isLatency`. None without a value of each
/// side, or if one is not above 0.
std::optional<SlowdownPercent> SlowdownOf(const std::vector<double>& a, const std::vector<double>& b,
                                          bool isLatency);

}  // namespace scope
