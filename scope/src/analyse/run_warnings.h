// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "run.h"
#include "run_summary.h"

namespace scope {

struct Warning {
  std::string text = {};             ///< a sentence; empty means no warning
  std::optional<double> timeS = {};  ///< when it began, if known
  std::string engine = {};           ///< its engine; empty for the run or the machine
};

/// Reasons to doubt the figures of `run`, one sentence each: the reader's notes (an incomplete run, gaps), a
/// debug build, a busy machine at the start, sources that were to be filled and were not, failed operations,
/// an engine that stopped, rates that still drift at the end, unusable printed rates, throttling and memory
/// errors. Empty if there are none.
std::vector<Warning> Warnings(const Run& run, const RunSummary& summary);

/// Warns of the seconds in which others than the benchmark took processor time; empty if there are none, or
/// if the run does not know. Seconds whose middle is before `skipS` are left out, as in its figures.
Warning Disturbance(const Run& run, double skipS = 0);

/// Adds the notes on disturbed runs to `notes`: the first three, and how many more there are.
void AddDisturbances(const std::vector<std::string>& disturbances, std::vector<std::string>& notes);

/// Warns if `engine`, or a thread of it, stopped working before the run ended at `endS`. The sentence does
/// not name the engine. It is empty if all threads worked to the end, and for an engine of a set-up.
Warning EarlyEnd(const EngineSummary& engine, double endS);

/// True if too many operations take less than a millisecond, which makes the printed rate unusable.
bool HasShortOperations(const EngineSummary& engine);

/// The change of evenly spaced rates over the second half of the series: the Theil-Sen slope times the half's
/// length, as a share of its median. 0 if the Mann-Kendall test finds no trend at the 1 % level, or if that
/// half has fewer than 8 values.
double DriftAtEnd(const std::vector<double>& rates);

/// A sentence where DriftAtEnd is more than 2 %, otherwise empty.
std::string Drift(const std::vector<double>& rates);

}  // namespace scope
