#pragma once

#include <optional>
#include <string>
#include <vector>

#include "run.h"
#include "run_summary.h"

namespace scope {

struct Warning {
  std::string text;             ///< a sentence; empty: there is nothing to warn of
  std::optional<double> timeS;  ///< when it began, where that is known
  std::string engine;           ///< the one that it is about; empty for the run or the machine
};

/// What is to be known before the figures of `run` are believed, a sentence each: what the reader noted (an
/// incomplete run, gaps), a build for debugging, a busy machine at the start, failed operations, an engine
/// that stopped working, rates still drifting at the end, printed rates that are not to be used, throttling
/// and memory errors that the counters show. Empty where nothing is amiss.
std::vector<Warning> Warnings(const Run& run, const RunSummary& summary);

/// Where `engine`, or a thread of it, did nothing any more before the run ended at `endS`: a sentence without
/// the engine's name. An empty one where all worked to the end.
Warning EarlyEnd(const EngineSummary& engine, double endS);

/// True where so many operations take less than a millisecond that the printed rate is not to be used.
bool HasShortOperations(const EngineSummary& engine);

/// Changes above this share over the last half of a run are reported.
constexpr double kDrift = 0.02;

/// How much a series of rates, the same time apart, still changes over its last half: the Theil-Sen slope
/// times the half's length, as a share of its median. 0 where the Mann-Kendall test does not tell a trend
/// from noise at the 1 % level, or fewer than kLeastForDrift values are in that half.
double DriftAtEnd(const std::vector<double>& rates);

constexpr std::size_t kLeastForDrift = 8;

}  // namespace scope
