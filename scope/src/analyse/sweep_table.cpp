// SPDX-License-Identifier: Apache-2.0
#include "sweep_table.h"

#include <algorithm>
#include <map>
#include <set>

#include "compare_conditions.h"
#include "errors.h"
#include "margin_map.h"
#include "run_error.h"
#include "run_reader.h"
#include "run_summary.h"
#include "run_warnings.h"
#include "statistics.h"
#include "stream_runs.h"
#include "sweep_plan.h"
#include "text_format.h"

namespace scope {
namespace {

const FigureKey kTotal = {kAllEngines, Figure::kBandwidth};

void NoteStreams(const std::vector<Run>& runs, std::vector<std::string>& notes) {
  std::vector<const Run*> all;
  for (const Run& run : runs) all.push_back(&run);
  for (std::string& text : DifferentStreams(all)) notes.push_back(std::move(text));
}

void NoteNotDone(std::size_t runs, const Sweep& sweep, std::vector<std::string>& notes) {
  if (runs == 0) return;
  notes.push_back("not done: " + std::to_string(runs) + " of " + Counted(sweep.runs.size(), "run"));
}

void NoteResult(const Sweep& sweep, const SweepRun& run, const std::string& name,
                std::vector<std::string>& notes) {
  // What fails at a setting is in the margin map.
  if (!sweep.boardAxes.empty() || !HasFailed(run)) return;
  notes.push_back(name + (run.state == SweepState::kDone ? ": " : " failed: ") + run.reason);
}

// `times` has, for each run at the point that found errors, when the first one came.
void NoteFirstErrors(const SweepPoint& point, const std::vector<double>& times,
                     std::vector<std::string>& notes) {
  if (times.empty()) return;
  notes.push_back(PointText(point.levels, point.settings, point.dutyPercent) +
                  Format(": time to the first error: %.1f s at the least, %.1f s in the median, of ",
                         *std::min_element(times.begin(), times.end()), Median(times)) +
                  Counted(times.size(), "run"));
}

void AddNotJudged(const RunInfo& info, std::vector<std::string>& texts) {
  for (std::string& text : NotJudged(info)) {
    if (std::find(texts.begin(), texts.end(), text) == texts.end()) texts.push_back(std::move(text));
  }
}

bool IsAt(const SweepPoint& point, const SweepRun& run) {
  return point.levels == run.levels && point.settings == run.settings && point.dutyPercent == run.dutyPercent;
}

std::vector<std::string> EnginesOf(const std::set<FigureKey>& keys) {
  std::vector<std::string> engines;
  for (const FigureKey& key : keys) {
    if (key.engine != kAllEngines && (engines.empty() || engines.back() != key.engine)) {
      engines.push_back(key.engine);
    }
  }
  return engines;
}

}  // namespace

SweepTable ReadSweepTable(const std::string& folder, const Sweep& sweep, const RunVisitor& visit) {
  SweepTable table;
  table.axes = sweep.axes;
  table.boardAxes = sweep.boardAxes;
  std::set<FigureKey> keys;
  std::vector<Run> runs;
  std::vector<std::string> disturbances;
  std::map<std::size_t, std::vector<double>> firstErrors;  // by the point's place
  std::size_t notDone = 0;
  for (const SweepRun& planned : sweep.runs) {
    const std::string name =
        planned.folder + " (" + PointText(planned.levels, planned.settings, planned.dutyPercent) + ")";
    if (table.points.empty() || !IsAt(table.points.back(), planned)) {
      table.points.push_back({planned.levels, 0, {}, planned.settings, {}, planned.dutyPercent});
    }
    NoteResult(sweep, planned, name, table.notes);
    if (planned.state != SweepState::kDone) {
      const bool isResult = !sweep.boardAxes.empty() && HasResult(planned);
      if (!isResult && !sweep.margin.edge) ++notDone;
      continue;
    }
    SweepPoint& point = table.points.back();
    try {
      Run run = ReadRun(folder + "/" + planned.folder);
      const RunSummary summary = Summarise(run);
      const auto note = [&](const std::string& engine, const std::string& text) {
        if (!text.empty()) table.notes.push_back(name + ": " + engine + ": " + text);
      };
      const std::string disturbance = Disturbance(run, sweep.settings.warmupS).text;
      if (!disturbance.empty()) disturbances.push_back(name + ": " + disturbance);
      for (const EngineSummary& engine : summary.engines)
        note(engine.engine, EarlyEnd(engine, summary.endS).text);
      auto figures = FiguresOf(summary, sweep.settings.warmupS);
      // No operations: every level is 0.
      if (sweep.settings.useMeter && run.samples.empty()) figures[kTotal] = {0};
      for (const auto& [key, seconds] : figures) {
        keys.insert(key);
        point.values[key].push_back(ValueOf(key.figure, seconds));
        if (key.figure == Figure::kOperations) note(key.engine, Drift(seconds));
      }
      if (const auto firstS = FirstErrorS(run)) firstErrors[table.points.size() - 1].push_back(*firstS);
      if (!HasFailed(planned)) AddNotJudged(run.info, point.notJudged);
      if (visit) visit(planned, run, summary);
      ++point.runs;
      run.samples.clear();
      run.seconds.clear();
      run.histogram.clear();
      runs.push_back(std::move(run));
    } catch (const UserError& error) {
      table.notes.emplace_back(error.what());
      ++notDone;
    }
  }
  for (const auto& [place, times] : firstErrors) NoteFirstErrors(table.points[place], times, table.notes);
  AddDisturbances(disturbances, table.notes);
  NoteNotDone(notDone, sweep, table.notes);
  NoteStreams(runs, table.notes);
  if (!runs.empty()) NoteConditions(runs, {"levels", "duty"}, table.notes);
  table.engines = EnginesOf(keys);
  return table;
}

double GreatestBandwidth(const SweepTable& table) {
  double greatest = 0;
  for (const SweepPoint& point : table.points) {
    greatest = std::max(greatest, MedianOf(point, kTotal).value_or(0));
  }
  return greatest;
}

std::optional<double> MedianOf(const SweepPoint& point, const FigureKey& key) {
  const auto at = point.values.find(key);
  if (at == point.values.end()) return std::nullopt;
  return Median(at->second);
}

}  // namespace scope
