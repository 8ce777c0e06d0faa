// SPDX-License-Identifier: Apache-2.0
#include "curve_table.h"

#include <algorithm>
#include <utility>

#include "curve_folder.h"
#include "latency_texts.h"
#include "number_text.h"
#include "ratio.h"
#include "statistics.h"
#include "sweep_plan.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr double kEstimateError = 0.05;

std::string PointName(const SweepLevels& levels, double dutyPercent) {
  SweepLevels working;
  for (const auto& level : levels) {
    if (level.second != 0) working.push_back(level);
  }
  return working.empty() ? "idle" : PointText(working, {}, dutyPercent);
}

bool IsWhole(const CurveTable& table, std::size_t repeat) {
  return std::all_of(table.points.begin(), table.points.end(),
                     [repeat](const CurveTablePoint& point) { return point.values[repeat].has_value(); });
}

CurveFit FitOf(const CurveTable& table, std::size_t repeat, std::size_t last) {
  std::vector<double> gigabytesPerS;
  std::vector<double> latencyNs;
  for (std::size_t i = 0; i <= last; ++i) {
    const CurveValue& value = *table.points[i].values[repeat];
    gigabytesPerS.push_back(value.gigabytesPerS);
    latencyNs.push_back(value.p50Ns);
  }
  return FitCurve(gigabytesPerS, latencyNs);
}

std::string EstimateText(const CurveEstimate& estimate, const char* unit) {
  std::string text = ShortNumber(estimate.value) + " " + unit;
  if (estimate.low) text += " (" + ShortNumber(*estimate.low) + " to " + ShortNumber(*estimate.high) + ")";
  return text;
}

}  // namespace

std::optional<CurveValue> CurveValueOf(const Run& run, const RunSummary& summary, double warmupS) {
  const auto figures = FiguresOf(summary, warmupS);
  const auto valueOf = [&figures](const FigureKey& key) -> std::optional<double> {
    const auto at = figures.find(key);
    if (at == figures.end()) return std::nullopt;
    return ValueOf(key.figure, at->second);
  };
  std::optional<double> total = valueOf({kAllEngines, Figure::kBandwidth});
  // No operations: every level is 0.
  if (!total && run.samples.empty()) total = 0;
  const auto p50 = valueOf({kMemory, Figure::kP50});
  const auto p99 = valueOf({kMemory, Figure::kP99});
  const auto p999 = valueOf({kMemory, Figure::kP999});
  if (!total || !p50 || !p99 || !p999) return std::nullopt;
  CurveValue value = {*total, *p50 * kNsPerUs, *p99 * kNsPerUs, *p999 * kNsPerUs};
  for (const LatencySecond& second : summary.latency) {
    if (second.timeS > warmupS) value.maxNs = std::max(value.maxNs, static_cast<double>(second.maxNs));
  }
  return value;
}

CurveTable ReadCurveTable(const std::string& folder) {
  CurveTable table;
  table.name = folder;
  table.curve = ReadCurve(folder);
  const Sweep& sweep = table.curve.sweep;
  const auto repeats = static_cast<std::size_t>(sweep.settings.repeats);
  for (int i = 0; i < table.curve.points; ++i) {
    auto [levels, duty] = LevelsOf(table.curve, i);
    table.points.push_back({LoadOf(table.curve, i), PointName(levels, duty), levels, duty,
                            std::vector<std::optional<CurveValue>>(repeats)});
  }
  std::size_t without = 0;
  std::vector<LatencyDoubt> doubts;
  table.runs =
      ReadSweepTable(folder, sweep, [&](const SweepRun& planned, const Run& run, const RunSummary& summary) {
        const auto index = static_cast<std::size_t>(&planned - sweep.runs.data());
        const auto value = CurveValueOf(run, summary, sweep.settings.warmupS);
        if (!value) ++without;
        table.points[index / repeats].values[index % repeats] = value;
        for (std::string& doubt : LatencyDoubts(run, summary))
          doubts.push_back({planned.folder, std::move(doubt)});
        Run info;
        info.folder = run.folder;
        info.info = run.info;
        table.infos.push_back(std::move(info));
      });
  table.notes = table.runs.notes;
  AddLatencyDoubts(doubts, table.notes);
  if (without != 0) {
    table.notes.push_back(Counted(without, "run") +
                          " without a latency or a bandwidth after the warm-up: left out");
  }
  return table;
}

CurveEstimate EstimateOf(std::vector<double> values) {
  CurveEstimate estimate;
  const bool isPositive = std::all_of(values.begin(), values.end(), [](double value) { return value > 0; });
  if (isPositive && values.size() > 1) {
    // The ratio to a side that is 1 without scatter: its interval is that of the values alone.
    const RatioEstimate ratio = EstimateRatio({1, 1}, values, kEstimateError);
    estimate.value = ratio.ratio;
    estimate.low = ratio.low;
    estimate.high = ratio.high;
  } else {
    estimate.value = Mean(values);
  }
  estimate.values = std::move(values);
  return estimate;
}

std::optional<CurveEstimate> EstimateAt(const CurveTablePoint& point, double CurveValue::* figure) {
  std::vector<double> values;
  for (const std::optional<CurveValue>& value : point.values) {
    if (value) values.push_back((*value).*figure);
  }
  if (values.empty()) return std::nullopt;
  return EstimateOf(std::move(values));
}

std::optional<CurveFigures> FiguresOf(const CurveTable& table) {
  CurveFigures figures;
  const std::optional<Saturation> saturation = FindSaturationInOrder(table.runs);
  if (!saturation || saturation->best == 0) return std::nullopt;
  figures.saturation = *saturation;
  std::vector<double> idle;
  std::vector<double> most;
  std::vector<double> knees;
  for (std::size_t repeat = 0; repeat < table.points.front().values.size(); ++repeat) {
    if (!IsWhole(table, repeat)) continue;
    figures.repeats.push_back(repeat);
    idle.push_back(table.points.front().values[repeat]->p50Ns);
    most.push_back(table.points[saturation->best].values[repeat]->gigabytesPerS);
    figures.fits.push_back(FitOf(table, repeat, saturation->best));
    if (const auto knee = KneeOf(figures.fits.back())) knees.push_back(*knee);
  }
  if (figures.repeats.empty()) return std::nullopt;
  figures.withoutKnee = figures.repeats.size() - knees.size();
  if (figures.withoutKnee == 0) figures.knee = EstimateOf(std::move(knees));
  figures.idleNs = EstimateOf(std::move(idle));
  figures.mostGigabytesPerS = EstimateOf(std::move(most));
  return figures;
}

std::vector<std::string> CurveSentences(const CurveTable& table, const CurveFigures& figures) {
  const Saturation& saturation = figures.saturation;
  const CurveTablePoint& lowest = table.points[saturation.lowest];
  const std::string times = Format("%g times that at idle", kKneeFactor);
  std::vector<std::string> sentences = {"Idle latency: " + EstimateText(figures.idleNs, "ns") + "."};
  if (figures.knee) {
    sentences.push_back("Knee: " + EstimateText(*figures.knee, "GB/s") + "; there the latency is " + times +
                        ".");
  } else {
    sentences.push_back(Format("No knee: in %zu of %s the latency stays below ", figures.withoutKnee,
                               Counted(figures.repeats.size(), "repeat").c_str()) +
                        times + ".");
  }
  sentences.push_back("Most bandwidth: " + EstimateText(figures.mostGigabytesPerS, "GB/s") + " at " +
                      table.points[saturation.best].name + ".");
  const auto latency = EstimateAt(lowest, &CurveValue::p50Ns);
  const auto tail = EstimateAt(lowest, &CurveValue::p99Ns);
  if (saturation.reached && latency) {
    sentences.push_back(Format("Saturation: within %g %% of it from ", kSaturatedPercent) + lowest.name +
                        " on, with a latency of " + EstimateText(*latency, "ns") + ", p99 " +
                        EstimateText(*tail, "ns") + ".");
  } else {
    sentences.push_back("Saturation is not reached: the greatest load has the most bandwidth by more than " +
                        Format("%g %%", kSaturatedPercent) + ". Try --most with a greater number.");
  }
  return sentences;
}

}  // namespace scope
