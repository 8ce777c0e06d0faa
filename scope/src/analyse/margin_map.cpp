// SPDX-License-Identifier: Apache-2.0
#include "margin_map.h"

#include <algorithm>

#include "sweep_plan.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr std::size_t kMostDoubts = 3;

MarginGrid GridOf(const Sweep& sweep) {
  MarginGrid grid;
  for (std::size_t i = 0; i < sweep.boardAxes.size(); ++i) {
    const std::vector<std::string>& values = sweep.boardAxes[i].second;
    const auto at = std::find(values.begin(), values.end(), sweep.margin.chosen[i].second);
    grid.counts.push_back(values.size());
    grid.chosen = grid.chosen * values.size() + static_cast<std::size_t>(at - values.begin());
  }
  return grid;
}

// The place of a run's settings among the points. The last setting changes fastest, after the levels.
std::size_t PointOfRun(const Sweep& sweep, const MarginGrid& grid, std::size_t run) {
  return run / static_cast<std::size_t>(sweep.settings.repeats) % PointCount(grid);
}

std::vector<Trials> TrialsOf(const Sweep& sweep, const MarginGrid& grid) {
  std::vector<Trials> trials(PointCount(grid));
  for (std::size_t i = 0; i < sweep.runs.size(); ++i) {
    if (!HasResult(sweep.runs[i])) continue;
    Trials& at = trials[PointOfRun(sweep, grid, i)];
    ++(HasFailed(sweep.runs[i]) ? at.failures : at.passes);
  }
  return trials;
}

// What the performance is measured by: all engines together, or without the meter the first printed rate.
FigureKey FigureOf(const SweepTable& table) {
  const FigureKey total = {kAllEngines, Figure::kBandwidth};
  for (const SweepPoint& point : table.points) {
    if (point.values.count(total) != 0) return total;
  }
  for (const SweepPoint& point : table.points) {
    for (const auto& [key, values] : point.values) {
      if (key.figure == Figure::kPrinted) return key;
    }
  }
  return total;
}

void AddRun(const SweepRun& run, MarginPoint& point) {
  if (run.state == SweepState::kHung) ++point.hangs;
  if (!HasFailed(run) || std::count(point.reasons.begin(), point.reasons.end(), run.reason) != 0) return;
  point.reasons.push_back(run.reason);
}

// `from` is the point of the table at one of the levels.
void AddFromTable(const SweepPoint& from, const FigureKey& figure, MarginPoint& point) {
  const std::optional<double> median = MedianOf(from, figure);
  if (median && (!point.performance || *median > *point.performance)) point.performance = median;
  for (const std::string& text : from.notJudged) {
    if (std::count(point.notJudged.begin(), point.notJudged.end(), text) == 0)
      point.notJudged.push_back(text);
  }
}

MarginEdge EdgeOf(const MarginMap& map, std::size_t axis, bool isUp, std::size_t stride) {
  const std::size_t chosen = ValuesOfPoint(map.grid, map.grid.chosen)[axis];
  const std::size_t room = isUp ? map.grid.counts[axis] - 1 - chosen : chosen;
  const auto pointAt = [&](std::size_t steps) {
    return isUp ? map.grid.chosen + steps * stride : map.grid.chosen - steps * stride;
  };
  const auto fails = [&](std::size_t steps) { return map.points[pointAt(steps)].judgement.fails; };
  MarginEdge edge;
  edge.setting = map.axes[axis].first;
  edge.isUp = isUp;
  std::size_t end = 0;
  while (end < room && !fails(end + 1)) {
    ++end;
    const bool isKnown = map.points[pointAt(end)].judgement.cleanRuns != 0;
    if (!isKnown) ++edge.unknown;
    if (edge.unknown == 0) edge.steps = end;
  }
  if (end < room) edge.failing = pointAt(end + 1);
  edge.last = pointAt(edge.steps);
  return edge;
}

void AddEdges(MarginMap& map) {
  if (map.points[map.grid.chosen].judgement.fails) return;
  std::size_t stride = map.points.size();
  const std::vector<std::size_t> chosen = ValuesOfPoint(map.grid, map.grid.chosen);
  for (std::size_t axis = 0; axis < map.axes.size(); ++axis) {
    stride /= map.grid.counts[axis];
    for (const bool isUp : {false, true}) {
      const bool hasRoom = isUp ? chosen[axis] + 1 < map.grid.counts[axis] : chosen[axis] > 0;
      if (hasRoom) map.edges.push_back(EdgeOf(map, axis, isUp, stride));
    }
  }
}

std::string TrialsText(const MarginPoint& point) {
  return PointText({}, point.settings) + " failed in " + std::to_string(point.trials.failures) + " of " +
         Counted(point.trials.passes + point.trials.failures, "run");
}

// Where the runs speak against what the search for the edge assumes.
void AddContradictions(const Sweep& sweep, const std::vector<Trials>& trials, MarginMap& map) {
  if (!map.edge) return;
  const auto repeats = static_cast<std::size_t>(sweep.settings.repeats);
  for (const auto& [nearer, farther] : Contradictions(map.grid, trials, repeats, kMostDoubts)) {
    map.doubts.push_back(TrialsText(map.points[nearer]) + ", but " +
                         PointText({}, map.points[farther].settings) + ", which is farther out, passed in " +
                         std::to_string(trials[farther].passes) + " of " +
                         Counted(trials[farther].passes, "run") +
                         ". Here a farther point does not always fail more often. Record the whole grid, "
                         "without --edge");
  }
}

void AddDoubts(const Sweep& sweep, const std::vector<Trials>& trials, MarginMap& map) {
  AddContradictions(sweep, trials, map);
  if (!map.restored) {
    map.doubts.emplace_back(
        "the first values are not made again: the board may still have the settings of a run");
  }
  for (const SweepRun& run : sweep.runs) {
    if (run.lost == 0 || run.state != SweepState::kDone) continue;
    map.doubts.push_back(run.folder + " (" + PointText(run.levels, run.settings) +
                         ") came to its end, but before that the machine or the recorder died in it " +
                         (run.lost == 1 ? "once" : std::to_string(run.lost) + " times"));
  }
}

}  // namespace

bool HasResult(const SweepRun& run) {
  return run.state == SweepState::kDone || run.state == SweepState::kFailed || run.state == SweepState::kHung;
}

bool HasFailed(const SweepRun& run) {
  return HasResult(run) && (run.state != SweepState::kDone || !run.reason.empty());
}

SweepRun* NextRun(Sweep& sweep) {
  const MarginGrid grid = GridOf(sweep);
  const auto repeats = static_cast<std::size_t>(sweep.settings.repeats);
  const std::optional<std::size_t> point = NextPoint(grid, TrialsOf(sweep, grid), repeats);
  if (!point) return nullptr;
  const auto first = sweep.runs.begin() + static_cast<std::ptrdiff_t>(*point * repeats);
  return &*std::find_if(first, first + sweep.settings.repeats,
                        [](const SweepRun& run) { return !HasResult(run); });
}

bool IsComplete(const Sweep& sweep) {
  if (sweep.boardAxes.empty()) {
    return std::all_of(sweep.runs.begin(), sweep.runs.end(),
                       [](const SweepRun& run) { return run.state == SweepState::kDone; });
  }
  if (!sweep.margin.edge) return std::all_of(sweep.runs.begin(), sweep.runs.end(), HasResult);
  const MarginGrid grid = GridOf(sweep);
  return !NextPoint(grid, TrialsOf(sweep, grid), static_cast<std::size_t>(sweep.settings.repeats));
}

MarginMap MarginMapOf(const Sweep& sweep, const SweepTable& table) {
  MarginMap map;
  map.edge = sweep.margin.edge;
  map.restored = sweep.restored;
  map.axes = sweep.boardAxes;
  map.grid = GridOf(sweep);
  map.figure = FigureOf(table);
  map.gridRuns = sweep.runs.size();
  for (BoardSettings& settings : CombinationsOf(map.axes)) {
    map.points.emplace_back();
    map.points.back().settings = std::move(settings);
  }
  const std::vector<Trials> trials = TrialsOf(sweep, map.grid);
  const std::vector<Judgement> judgements = map.edge ? Judge(map.grid, trials) : JudgeAlone(trials);
  for (std::size_t i = 0; i < map.points.size(); ++i) {
    map.points[i].trials = trials[i];
    map.points[i].judgement = judgements[i];
    map.runs += trials[i].passes + trials[i].failures;
  }
  for (std::size_t i = 0; i < sweep.runs.size(); ++i)
    AddRun(sweep.runs[i], map.points[PointOfRun(sweep, map.grid, i)]);
  for (std::size_t i = 0; i < table.points.size(); ++i)
    AddFromTable(table.points[i], map.figure, map.points[i % map.points.size()]);
  AddEdges(map);
  AddDoubts(sweep, trials, map);
  return map;
}

bool ChosenFails(const Sweep& sweep) {
  const MarginGrid grid = GridOf(sweep);
  return TrialsOf(sweep, grid)[grid.chosen].failures != 0;
}

std::optional<double> FailureRateBelow(const MarginPoint& point) {
  // The rule of three. It does not hold for a few runs.
  if (point.judgement.fails || point.trials.passes < 4) return std::nullopt;
  return 3.0 / static_cast<double>(point.trials.passes);
}

}  // namespace scope
