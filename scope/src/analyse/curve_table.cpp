// SPDX-License-Identifier: Apache-2.0
#include "curve_table.h"

#include <algorithm>
#include <utility>

#include "curve_folder.h"
#include "curve_plan.h"
#include "latency_texts.h"
#include "margin_map.h"
#include "number_text.h"
#include "saturation.h"
#include "statistics.h"
#include "sweep_plan.h"
#include "text_format.h"

namespace scope {
namespace {

std::string PointName(const SweepLevels& levels, double dutyPercent) {
  SweepLevels working;
  for (const auto& level : levels) {
    if (level.second != 0) working.push_back(level);
  }
  return working.empty() ? "idle" : PointText(working, {}, dutyPercent);
}

std::vector<std::size_t> WholeRepeats(const CurveTable& table) {
  std::vector<std::size_t> whole;
  for (std::size_t repeat = 0; repeat < table.points.front().values.size(); ++repeat) {
    const auto has = [repeat](const CurveTablePoint& point) { return point.values[repeat].has_value(); };
    if (std::all_of(table.points.begin(), table.points.end(), has)) whole.push_back(repeat);
  }
  return whole;
}

// The values of these repeats, which the point has.
std::vector<double> ValuesAt(const CurveTablePoint& point, const std::vector<std::size_t>& repeats,
                             double CurveValue::* figure) {
  std::vector<double> values;
  for (const std::size_t repeat : repeats) values.push_back((*point.values[repeat]).*figure);
  return values;
}

// Without the figures of latency.
CurveSaturation SaturationOf(const CurveTable& table, const std::vector<std::size_t>& repeats) {
  std::vector<double> means;
  for (const CurveTablePoint& point : table.points) {
    means.push_back(EstimateOf(ValuesAt(point, repeats, &CurveValue::gigabytesPerS)).value);
  }
  const auto best = std::max_element(means.begin(), means.end());
  const auto isClose = [least = (1 - kSaturatedPercent / 100) * *best](double mean) { return mean >= least; };
  CurveSaturation saturation;
  saturation.best = static_cast<std::size_t>(best - means.begin());
  saturation.lowest =
      static_cast<std::size_t>(std::find_if(means.begin(), means.end(), isClose) - means.begin());
  // On a plateau the best point is one of many by chance: the latency goes on rising behind it.
  saturation.last =
      means.size() - 1 -
      static_cast<std::size_t>(std::find_if(means.rbegin(), means.rend(), isClose) - means.rbegin());
  saturation.reached = saturation.lowest + 1 < means.size();
  return saturation;
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

std::string EstimateText(const Estimate& estimate, const char* unit) {
  std::string text = ShortNumber(estimate.value) + " " + unit;
  if (estimate.low) text += " (" + ShortNumber(*estimate.low) + " to " + ShortNumber(*estimate.high) + ")";
  return text;
}

std::string KneeSentence(const CurveFigures& figures) {
  const std::string times = Format("%g times that at idle", kKneeFactor);
  const std::string repeats = Counted(figures.repeats.size(), "repeat");
  if (!figures.knee) {
    const std::string some = figures.withoutKnee == figures.repeats.size()
                                 ? ""
                                 : " A knee has to be in more than half of the repeats.";
    return Format("No knee: in %zu of ", figures.withoutKnee) + repeats + " the latency stays below " +
           times + "." + some;
  }
  std::string text = "Knee: " + EstimateText(*figures.knee, "GB/s") + "; there the latency is " + times + ".";
  if (figures.withoutKnee != 0) {
    text += Format(" That is of %zu of ", figures.knee->values.size()) + repeats +
            ": in the others the latency stays below.";
  }
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
  std::vector<double> means;
  for (const LatencySecond& second : LatencyAfter(summary, warmupS)) {
    if (second.accesses != 0) means.push_back(second.meanNs);
    value.maxNs = std::max(value.maxNs, static_cast<double>(second.maxNs));
    value.bursts += second.bursts;
    value.interrupted += second.interrupted;
  }
  value.meanNs = Median(std::move(means));
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
  SweepTable runs =
      ReadSweepTable(folder, sweep, [&](const SweepRun& planned, const Run& run, const RunSummary& summary) {
        const auto index = static_cast<std::size_t>(&planned - sweep.runs.data());
        const auto value = CurveValueOf(run, summary, sweep.settings.warmupS);
        if (!value) ++without;
        table.points[index / repeats].values[index % repeats] = value;
        for (LatencyDoubt& doubt : LatencyDoubts(run, summary)) {
          doubt.run = planned.folder;
          doubts.push_back(std::move(doubt));
        }
        Run info;
        info.folder = run.folder;
        info.info = run.info;
        table.infos.push_back(std::move(info));
      });
  table.growth = MedianGrowth(table.infos);
  table.notes = std::move(runs.notes);
  AddLatencyDoubts(doubts, table.notes);
  if (without != 0) {
    table.notes.push_back(Counted(without, "run") +
                          " without a latency or a bandwidth after the warm-up: left out");
  }
  return table;
}

std::optional<Estimate> EstimateAt(const CurveTablePoint& point, double CurveValue::* figure) {
  std::vector<double> values;
  for (const std::optional<CurveValue>& value : point.values) {
    if (value) values.push_back((*value).*figure);
  }
  if (values.empty()) return std::nullopt;
  return EstimateOf(std::move(values));
}

std::optional<double> LongestAt(const CurveTablePoint& point) {
  std::optional<double> longest;
  for (const std::optional<CurveValue>& value : point.values) {
    if (value) longest = std::max(longest.value_or(0), value->maxNs);
  }
  return longest;
}

std::optional<double> InterruptedPercentAt(const CurveTablePoint& point) {
  double bursts = 0;
  double interrupted = 0;
  for (const std::optional<CurveValue>& value : point.values) {
    if (!value) continue;
    bursts += static_cast<double>(value->bursts);
    interrupted += static_cast<double>(value->interrupted);
  }
  if (bursts <= 0) return std::nullopt;
  return interrupted / bursts * 100;
}

std::optional<CurveFigures> FiguresOf(const CurveTable& table) {
  CurveFigures figures;
  figures.repeats = WholeRepeats(table);
  if (figures.repeats.empty()) return std::nullopt;
  const auto at = [&](std::size_t point, double CurveValue::* figure) {
    return EstimateOf(ValuesAt(table.points[point], figures.repeats, figure));
  };
  CurveSaturation& saturation = figures.saturation;
  saturation = SaturationOf(table, figures.repeats);
  figures.mostGigabytesPerS = at(saturation.best, &CurveValue::gigabytesPerS);
  // Without load there is no bandwidth: a curve that has its best there is none.
  if (saturation.best == 0 || figures.mostGigabytesPerS.value <= 0) return std::nullopt;
  saturation.gigabytesPerS = at(saturation.lowest, &CurveValue::gigabytesPerS);
  saturation.p50Ns = at(saturation.lowest, &CurveValue::p50Ns);
  saturation.p99Ns = at(saturation.lowest, &CurveValue::p99Ns);
  saturation.p999Ns = at(saturation.lowest, &CurveValue::p999Ns);
  figures.idleNs = at(0, &CurveValue::p50Ns);
  figures.idleMeanNs = at(0, &CurveValue::meanNs);
  std::vector<double> knees;
  for (const std::size_t repeat : figures.repeats) {
    figures.fits.push_back(FitOf(table, repeat, saturation.last));
    if (const auto knee = KneeOf(figures.fits.back())) knees.push_back(*knee);
  }
  figures.withoutKnee = figures.repeats.size() - knees.size();
  // Where the latency scatters much, a repeat may have one by chance.
  if (knees.size() <= figures.withoutKnee) return figures;
  figures.knee = EstimateOf(std::move(knees));
  if (figures.withoutKnee != 0) figures.knee->low = figures.knee->high = std::nullopt;
  return figures;
}

// Each repeat lacks a run, or what the run should have measured.
std::string WhyNoFigures(const CurveTable& table) {
  if (!WholeRepeats(table).empty()) return "No figures: no load has a bandwidth.";
  if (!IsComplete(table.curve.sweep)) return "No repeat of the curve is whole yet.";
  for (const CurveTablePoint& point : table.points) {
    if (!EstimateAt(point, &CurveValue::p50Ns))
      return "No figures: no run of " + point.name + " has a latency and a bandwidth after the warm-up.";
  }
  return "No figures: no repeat has a latency and a bandwidth at each load.";
}

std::vector<std::string> CurveSentences(const CurveTable& table, const std::optional<CurveFigures>& found) {
  if (!found) return {WhyNoFigures(table)};
  const CurveFigures& figures = *found;
  const CurveSaturation& saturation = figures.saturation;
  std::vector<std::string> sentences = {
      "Idle latency: " + EstimateText(figures.idleNs, "ns") +
      ". Its mean, which other tools show: " + EstimateText(figures.idleMeanNs, "ns") + "."};
  sentences.push_back(KneeSentence(figures));
  sentences.push_back("Most bandwidth: " + EstimateText(figures.mostGigabytesPerS, "GB/s") + " at " +
                      table.points[saturation.best].name + ".");
  if (saturation.reached) {
    sentences.push_back(
        "Saturation: " + table.points[saturation.lowest].name +
        Format(" is the least load within %g %% of that, with a latency of ", kSaturatedPercent) +
        EstimateText(saturation.p50Ns, "ns") + ", p99 " + EstimateText(saturation.p99Ns, "ns") + ".");
  } else {
    const bool isMore = table.curve.most < GreatestMost(table.curve.mix);
    sentences.push_back("Saturation is not reached: the greatest load has the most bandwidth by more than " +
                        Format("%g %%. ", kSaturatedPercent) +
                        (isMore ? "Try --most with a greater number."
                                : "Levels allow no more of this mix: add an engine with --mix."));
  }
  if (!table.growth.empty()) {
    sentences.push_back(
        "Before the load, medians of all runs over parts of this memory: " + GrowthText(table.growth) + ".");
  }
  return sentences;
}

}  // namespace scope
