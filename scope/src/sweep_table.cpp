#include "sweep_table.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "compare.h"
#include "run_folder.h"
#include "run_summary.h"
#include "run_warnings.h"
#include "statistics.h"
#include "text_format.h"
#include "text_table.h"

namespace scope {
namespace {

constexpr double kCloseShare = 0.05;
constexpr double kConfidence = 0.95;
const FigureKey kTotal = {kAllEngines, Figure::kBandwidth};

int Threads(const SweepPoint& point) {
  int sum = 0;
  for (const auto& [section, level] : point.levels) sum += level;
  return sum;
}

std::string OrDash(const std::optional<double>& value) {
  return value ? ShortNumber(*value) : "-";
}

double Greatest(const SweepTable& table) {
  double greatest = 0;
  for (const SweepPoint& point : table.points) {
    greatest = std::max(greatest, MedianOf(point, kTotal).value_or(0));
  }
  return greatest;
}

bool NoDifferenceShown(const std::vector<double>& a, const std::vector<double>& b) {
  const auto least = static_cast<std::size_t>(LeastRepeats(kConfidence));
  if (a.size() < least || b.size() < least) return false;
  const Interval interval = MedianDifference(a, b, {});
  return (interval.low <= 0 && interval.high >= 0) || RankSumP(a, b) > 1 - kConfidence;
}

bool HasFigure(const SweepTable& table, const FigureKey& key) {
  return std::any_of(table.points.begin(), table.points.end(),
                     [&key](const SweepPoint& point) { return point.values.count(key) != 0; });
}

void NoteConditions(const std::vector<Run>& runs, std::vector<std::string>& notes) {
  for (const ConditionDifference& difference : DifferentConditions(runs, runs)) {
    if (difference.name == "levels") continue;
    notes.push_back("the runs were not all recorded under the same " + difference.name + ": " + difference.a);
  }
}

std::string CurveText(const SweepTable& table) {
  const double greatest = Greatest(table);
  const std::optional<Saturation> saturation = FindSaturation(table);
  TextTable rows("rrl");
  rows.Add({table.axes[0].section, "GB/s", ""});
  for (std::size_t i = 0; i < table.points.size(); ++i) {
    const SweepPoint& point = table.points[i];
    const std::optional<double> total = MedianOf(point, kTotal);
    std::string bar;
    const auto filled =
        static_cast<std::size_t>(std::lround(total.value_or(0) / greatest * static_cast<double>(kBarWidth)));
    for (std::size_t j = 0; j < filled; ++j) bar += "█";
    if (saturation && saturation->reached && saturation->lowest == i) bar += " saturated";
    rows.Add({std::to_string(point.levels[0].second), OrDash(total), bar});
  }
  return "Total bandwidth against the level of " + table.axes[0].section + "\n" + rows.Text();
}

std::string MapText(const SweepTable& table) {
  static const char* const kShades[] = {"  ", "░░", "▒▒", "▓▓", "██"};
  const SweepAxis& down = table.axes[0];
  const SweepAxis& across = table.axes[1];
  const double greatest = Greatest(table);
  TextTable rows("l");
  std::vector<std::string> head = {""};
  for (const int level : across.levels) head.push_back(across.section + "=" + std::to_string(level));
  rows.Add(head);
  auto point = table.points.begin();
  for (const int level : down.levels) {
    std::vector<std::string> row = {down.section + "=" + std::to_string(level)};
    for (std::size_t i = 0; i < across.levels.size(); ++i, ++point) {
      const std::optional<double> total = MedianOf(*point, kTotal);
      const auto shade = static_cast<std::size_t>(std::lround(total.value_or(0) / greatest * 4));
      row.push_back(OrDash(total) + " " + (total ? kShades[shade] : "  "));
    }
    rows.Add(row);
  }
  return "Total bandwidth, GB/s, by the levels of " + down.section + " and " + across.section +
         " (darkest: " + ShortNumber(greatest) + ")\n" + rows.Text();
}

}  // namespace

SweepTable ReadSweepTable(const std::string& folder, const Sweep& sweep) {
  SweepTable table;
  table.axes = sweep.axes;
  std::set<FigureKey> keys;
  std::vector<Run> runs;
  std::size_t notDone = 0;
  for (const SweepRun& planned : sweep.runs) {
    if (table.points.empty() || table.points.back().levels != planned.levels) {
      table.points.push_back({planned.levels, 0, {}});
    }
    if (planned.state != SweepState::kDone) {
      ++notDone;
      if (planned.state == SweepState::kFailed) {
        table.notes.push_back(planned.folder + " (" + PointText(planned.levels) +
                              ") failed: " + planned.reason);
      }
      continue;
    }
    SweepPoint& point = table.points.back();
    try {
      Run run = ReadRun(folder + "/" + planned.folder);
      const RunSummary summary = Summarise(run);
      for (const EngineSummary& engine : summary.engines) {
        const std::string end = IsLoad(engine.engine) ? EarlyEnd(engine, summary.endS) : std::string();
        if (end.empty()) continue;
        table.notes.push_back(planned.folder + " (" + PointText(planned.levels) + "): " + engine.engine +
                              ": " + end);
      }
      auto figures = FiguresOf(summary, sweep.settings.warmupS);
      // No operation at all: every level is 0.
      if (sweep.settings.useMeter && run.samples.empty()) figures[kTotal] = {0};
      for (const auto& [key, seconds] : figures) {
        keys.insert(key);
        point.values[key].push_back(Median(seconds));
        if (key.figure == Figure::kOperations && std::abs(DriftAtEnd(seconds)) > kDrift) {
          table.notes.push_back(planned.folder + " (" + PointText(planned.levels) + "): the rate of " +
                                key.engine + " is still drifting at the end");
        }
      }
      ++point.runs;
      run.samples.clear();
      run.histogram.clear();
      runs.push_back(std::move(run));
    } catch (const RunFolderError& error) {
      table.notes.emplace_back(error.what());
      ++notDone;
    }
  }
  if (notDone != 0) {
    table.notes.push_back(std::to_string(notDone) + " of " + std::to_string(sweep.runs.size()) +
                          " runs are not done");
  }
  if (!runs.empty()) NoteConditions(runs, table.notes);
  for (const FigureKey& key : keys) {
    if (key.engine != kAllEngines && (table.engines.empty() || table.engines.back() != key.engine)) {
      table.engines.push_back(key.engine);
    }
  }
  return table;
}

std::optional<double> MedianOf(const SweepPoint& point, const FigureKey& key) {
  const auto at = point.values.find(key);
  if (at == point.values.end()) return std::nullopt;
  return Median(at->second);
}

std::optional<Saturation> FindSaturation(const SweepTable& table) {
  Saturation saturation;
  const double greatest = Greatest(table);
  if (greatest <= 0) return std::nullopt;
  int mostThreads = 0;
  for (std::size_t i = 0; i < table.points.size(); ++i) {
    const std::optional<double> total = MedianOf(table.points[i], kTotal);
    if (!total) continue;
    mostThreads = std::max(mostThreads, Threads(table.points[i]));
    if (*total >= greatest) saturation.best = i;
  }
  const std::vector<double>& best = table.points[saturation.best].values.at(kTotal);
  saturation.lowest = saturation.best;
  const auto hasFewer = [&table](std::size_t point, std::size_t than) {
    return Threads(table.points[point]) < Threads(table.points[than]);
  };
  for (std::size_t i = 0; i < table.points.size(); ++i) {
    const double total = MedianOf(table.points[i], kTotal).value_or(0);
    if (total >= (1 - kCloseShare) * greatest && hasFewer(i, saturation.lowest)) saturation.lowest = i;
  }
  for (std::size_t i = 0; i < table.points.size(); ++i) {
    const auto values = table.points[i].values.find(kTotal);
    if (values == table.points[i].values.end()) continue;
    if (!hasFewer(i, saturation.untold.value_or(saturation.lowest))) continue;
    if (NoDifferenceShown(values->second, best)) saturation.untold = i;
  }
  saturation.reached = Threads(table.points[saturation.lowest]) < mostThreads;
  return saturation;
}

std::string TableText(const SweepTable& table) {
  std::vector<std::pair<std::string, FigureKey>> columns;
  for (const std::string& engine : table.engines) {
    if (HasFigure(table, {engine, Figure::kOperations})) {
      columns.push_back({engine + " op/s", {engine, Figure::kOperations}});
      columns.push_back({engine + " GB/s", {engine, Figure::kBandwidth}});
    } else {
      columns.push_back({engine + " printed fps", {engine, Figure::kPrinted}});
    }
  }
  if (HasFigure(table, kTotal)) columns.push_back({"total GB/s", kTotal});
  TextTable rows(std::string(table.axes.size(), 'r'));
  std::vector<std::string> head;
  for (const SweepAxis& axis : table.axes) head.push_back(axis.section);
  head.emplace_back("runs");
  for (const auto& [title, key] : columns) head.push_back(title);
  rows.Add(head);
  for (const SweepPoint& point : table.points) {
    std::vector<std::string> row;
    for (const auto& [section, level] : point.levels) row.push_back(std::to_string(level));
    row.push_back(std::to_string(point.runs));
    for (const auto& [title, key] : columns) row.push_back(OrDash(MedianOf(point, key)));
    rows.Add(row);
  }
  return rows.Text();
}

std::string BandwidthText(const SweepTable& table) {
  if (Greatest(table) <= 0) return {};
  if (table.axes.size() == 1) return CurveText(table);
  if (table.axes.size() == 2) return MapText(table);
  return {};
}

std::string SaturationText(const SweepTable& table) {
  const std::optional<Saturation> saturation = FindSaturation(table);
  if (!saturation) return {};
  const auto at = [&table](std::size_t point) {
    return ShortNumber(*MedianOf(table.points[point], kTotal)) + " GB/s at " +
           PointText(table.points[point].levels);
  };
  std::string text;
  if (saturation->reached) {
    text = "Saturates with " + at(saturation->lowest) + ", within 5 % of the best, " + at(saturation->best) +
           ".\n";
  } else {
    text = "No saturation: the best, " + at(saturation->best) + ", takes the most threads that were tried.\n";
  }
  if (saturation->untold) {
    text += "At this noise the repeats do not tell the best from " + at(*saturation->untold) +
            ": record more of them, on a quieter machine.\n";
  }
  return text;
}

}  // namespace scope
