// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "curve.h"
#include "curve_fit.h"
#include "saturation.h"
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
  double maxNs = 0;  ///< the longest access of all these seconds
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
  SweepTable runs;                      ///< the same points with all their figures
  std::vector<Run> infos;               ///< the runs without their rows
  std::vector<std::string> notes;       ///< reasons to doubt the figures, one sentence each
};

/// Reads the finished runs of the curve in `folder`. A run that cannot be read is left out and noted. Throws
/// UserError if `folder` holds no curve.
CurveTable ReadCurveTable(const std::string& folder);

/// A figure over repeats: the geometric mean and its interval of 95 % (t test), which needs two values above
/// 0.
struct CurveEstimate {
  std::vector<double> values;  ///< one of each repeat
  double value = 0;
  std::optional<double> low;
  std::optional<double> high;
};
/// Needs a value.
CurveEstimate EstimateOf(std::vector<double> values);

/// The estimate of a figure of a point, of the repeats that have it; none if none has.
std::optional<CurveEstimate> EstimateAt(const CurveTablePoint& point, double CurveValue::* figure);

/// What a curve says. Each repeat is a curve by itself, and gives one value of each figure.
struct CurveFigures {
  std::vector<std::size_t> repeats;   ///< those that are whole, from 0
  std::vector<CurveFit> fits;         ///< one of each, up to the point `saturation.best`
  Saturation saturation;              ///< of the points of the curve
  CurveEstimate idleNs;               ///< the median latency without load
  CurveEstimate mostGigabytesPerS;    ///< at `saturation.best`
  std::optional<CurveEstimate> knee;  ///< GB/s; none if the latency of a repeat stays below it
  std::size_t withoutKnee = 0;        ///< so many repeats
};

/// None without a repeat that is whole, or without a bandwidth above 0.
std::optional<CurveFigures> FiguresOf(const CurveTable& table);

/// The figures in sentences.
std::vector<std::string> CurveSentences(const CurveTable& table, const CurveFigures& figures);

}  // namespace scope
