// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "curve.h"
#include "curve_fit.h"
#include "estimate.h"
#include "sweep_table.h"

namespace scope {

/// Figures of latency are in microseconds, values of a curve in nanoseconds.
constexpr double kNsPerUs = 1000;

/// What a run of a curve measured after its warm-up: the mean of the engines' bandwidth, and the medians of
/// its seconds' latencies.
struct CurveValue {
  double gigabytesPerS = 0;
  double p50Ns = 0;
  double p99Ns = 0;
  double p999Ns = 0;
  double maxNs = 0;               ///< the longest access of all these seconds
  std::uint64_t bursts = 0;       ///< of the latency probe in these seconds
  std::uint64_t interrupted = 0;  ///< of them; their accesses are in no figure
  double meanNs = 0;              ///< of accesses in batches: the median of the seconds' means
};

/// The value of a recorded run; none if it has no second with a latency, or no bandwidth of all engines.
std::optional<CurveValue> CurveValueOf(const Run& run, const RunSummary& summary, double warmupS);

struct CurveTablePoint {
  double load = 0;   ///< in units of the mix
  std::string name;  ///< "CPU=1 at 50 %", "idle"
  SweepLevels levels;
  double dutyPercent = kWholeDuty;
  std::vector<std::optional<CurveValue>> values;  ///< by repeat; none where it is not recorded
};

/// The finished part of a curve.
struct CurveTable {
  std::string name;  ///< of its folder
  Curve curve;
  std::vector<CurveTablePoint> points;  ///< by load
  std::vector<Run> infos;               ///< the runs without their rows
  std::vector<LatencyGrowth> growth;    ///< medians of what the runs read before their load
  std::vector<std::string> notes;       ///< reasons to doubt the figures, one sentence each
};

/// Reads the finished runs of the curve in `folder`. A run that cannot be read is left out and noted. Throws
/// UserError if `folder` holds no curve.
CurveTable ReadCurveTable(const std::string& folder);

/// The estimate of a figure of a point, of the repeats that have it; none if none has.
std::optional<Estimate> EstimateAt(const CurveTablePoint& point, double CurveValue::* figure);

/// The longest access of a point, of all repeats; none if none is recorded.
std::optional<double> LongestAt(const CurveTablePoint& point);

/// Which share of the point's bursts was interrupted, of all repeats, in per cent; none if none is recorded.
std::optional<double> InterruptedPercentAt(const CurveTablePoint& point);

/// Where more load gives no more bandwidth. Points are judged by the geometric means of the repeats.
struct CurveSaturation {
  std::size_t best = 0;    ///< the point with the most bandwidth
  std::size_t lowest = 0;  ///< the one with the least load that is close to it (kSaturatedPercent)
  std::size_t last = 0;    ///< the one with the greatest load that is
  bool reached = false;    ///< `lowest` is not the greatest load of the curve
  Estimate gigabytesPerS;  ///< at `lowest`; so are the next
  Estimate p50Ns;
  Estimate p99Ns;
  Estimate p999Ns;
};

/// What a curve says. Each repeat is a curve by itself, and gives one value of each figure.
struct CurveFigures {
  std::vector<std::size_t> repeats;  ///< those that are whole, from 0
  std::vector<CurveFit> fits;        ///< one of each, up to the point `saturation.last`
  CurveSaturation saturation;
  Estimate idleNs;             ///< the median latency without load
  Estimate idleMeanNs;         ///< the mean latency without load
  Estimate mostGigabytesPerS;  ///< at `saturation.best`
  /// GB/s, of the repeats that have one; none unless more than half have. Without an interval unless all have
  /// one: those of the others are above what they reach.
  std::optional<Estimate> knee;
  std::size_t withoutKnee = 0;  ///< repeats whose latency stays below it
};

/// None without a repeat that is whole, or without a bandwidth above 0.
std::optional<CurveFigures> FiguresOf(const CurveTable& table);

/// Why it has no figures, in a sentence.
std::string WhyNoFigures(const CurveTable& table);

/// The figures in sentences, or why there are none.
std::vector<std::string> CurveSentences(const CurveTable& table, const std::optional<CurveFigures>& found);

}  // namespace scope
