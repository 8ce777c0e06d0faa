// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "run_summary.h"

/// What a report says of the latency of memory.
namespace scope {

/// The figures under load, what they are of, and the latency before the load: a sentence each. Empty if the
/// run has no latency probe.
std::vector<std::string> LatencyTexts(const Run& run, const RunSummary& summary);

/// "1 MiB 9 ns, 4 MiB 113 ns"
std::string GrowthText(const std::vector<LatencyGrowth>& growth);

/// The latency over parts of the memory before the load, as the median of several runs; without sizes that
/// few of them have.
std::vector<LatencyGrowth> MedianGrowth(const std::vector<Run>& runs);

/// A reason to doubt these figures.
struct LatencyDoubt {
  enum class Kind { kNoCpu, kInterrupted, kOwnLoad, kNoCache, kSmallMemory, kCoarseTimer };

  Kind kind = Kind::kNoCpu;
  double degree = 0;  ///< of two of a kind the greater one is the worse
  std::string text;   ///< a sentence
  std::string run;    ///< its name; empty where there is one run
};

/// At most one of each kind.
std::vector<LatencyDoubt> LatencyDoubts(const Run& run, const RunSummary& summary);

/// Adds the doubts of several runs to `notes`: of each kind a sentence, with how many runs there are and the
/// text of the worst.
void AddLatencyDoubts(const std::vector<LatencyDoubt>& doubts, std::vector<std::string>& notes);

}  // namespace scope
