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

/// Reasons to doubt these figures, one sentence each.
std::vector<std::string> LatencyDoubts(const Run& run, const RunSummary& summary);

/// A reason to doubt the latency of one of several runs.
struct LatencyDoubt {
  std::string run;  ///< its name
  std::string text;
};

/// Adds the doubts of several runs to `notes`: what all or some share once, of the others the first three,
/// and how many more there are.
void AddLatencyDoubts(const std::vector<LatencyDoubt>& doubts, std::vector<std::string>& notes);

}  // namespace scope
