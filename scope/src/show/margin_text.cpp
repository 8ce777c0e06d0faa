// SPDX-License-Identifier: Apache-2.0
#include "margin_text.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "figures.h"
#include "number_text.h"
#include "printable.h"
#include "sweep_plan.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr std::size_t kMostReasons = 10;

std::size_t RunsOf(const MarginPoint& point) {
  return point.trials.passes + point.trials.failures;
}

std::string PerformanceText(const MarginPoint& point) {
  return point.performance ? ShortNumber(*point.performance) : "-";
}

// "total GB/s".
std::string FigureTitle(const MarginMap& map) {
  return map.figure.engine + " " + KindOf(map.figure.figure).unit;
}

std::string NameOf(const MarginPoint& point) {
  return PointText({}, point.settings);
}

// In percent of the chosen point's.
std::string ChangeText(const MarginMap& map, const MarginPoint& point) {
  const std::optional<double>& from = map.points[map.grid.chosen].performance;
  if (!point.performance || !from || *from <= 0) return "-";
  return Format("%+.2f %%", (*point.performance / *from - 1) * 100);
}

// Of a point that does not fail.
std::string CleanText(const MarginPoint& point) {
  if (RunsOf(point) == 0) return "That follows from points farther out.";
  const std::optional<double> below = FailureRateBelow(point);
  return "No failure in " + Counted(RunsOf(point), "run") + " there" +
         (below ? Format(": failure rate below %.2g per run, 95 %%.", *below) : ", too few for a bound.");
}

std::string Mark(const MarginMap& map, std::size_t point) {
  return point == map.grid.chosen ? " *" : "";
}

std::string TwoSettings(const MarginMap& map, std::size_t width) {
  const auto& [down, rows] = map.axes[0];
  const auto& [across, columns] = map.axes[1];
  TextTable table(std::string(columns.size() + 1, 'l'));
  std::vector<std::string> head = {""};
  for (const std::string& value : columns) head.push_back(across + "=" + value);
  table.Add(head);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    std::vector<std::string> row = {down + "=" + rows[i]};
    for (std::size_t j = 0; j < columns.size(); ++j) {
      const std::size_t point = i * columns.size() + j;
      const MarginPoint& at = map.points[point];
      row.push_back(PointState(at) + (at.performance ? " " + PerformanceText(at) : "") + Mark(map, point));
    }
    table.Add(row);
  }
  return table.Text(width);
}

// The points, a row each.
std::string ListOf(const MarginMap& map, const std::vector<std::size_t>& points, std::size_t width) {
  TextTable table("ll");
  table.Add({"", "result", "runs", FigureTitle(map), "change"});
  for (const std::size_t point : points) {
    const MarginPoint& at = map.points[point];
    table.Add({NameOf(at) + Mark(map, point), PointState(at), std::to_string(RunsOf(at)), PerformanceText(at),
               point == map.grid.chosen ? "" : ChangeText(map, at)});
  }
  return table.Text(width);
}

std::string ReasonsText(const MarginMap& map) {
  std::string text;
  std::size_t rows = 0;
  std::size_t more = 0;
  for (const MarginPoint& point : map.points) {
    for (const std::string& reason : point.reasons) {
      if (++rows > kMostReasons) {
        ++more;
        continue;
      }
      // Only the first line: the others are of the log.
      text += "  " + NameOf(point) + ": " + Printable(reason.substr(0, reason.find('\n'))) + "\n";
    }
  }
  if (more != 0) text += "  " + std::to_string(more) + " more; --json has all\n";
  return text.empty() ? "" : "\nWhy runs failed\n" + text;
}

}  // namespace

std::string PointState(const MarginPoint& point) {
  const std::string runs = std::to_string(RunsOf(point));
  if (point.hangs != 0 && point.hangs == RunsOf(point)) return "hang " + runs + "/" + runs;
  if (point.trials.failures != 0) return "fail " + std::to_string(point.trials.failures) + "/" + runs;
  if (point.judgement.fails) return RunsOf(point) == 0 ? "(fail)" : "(fail) " + runs + "/" + runs + " pass";
  if (RunsOf(point) != 0) return "pass " + runs + "/" + runs;
  return point.judgement.cleanRuns != 0 ? "(pass)" : "-";
}

std::string EdgeSentence(const MarginMap& map, const MarginEdge& edge) {
  const auto valueAt = [&](std::size_t point) {
    const BoardSettings& settings = map.points[point].settings;
    return std::find_if(settings.begin(), settings.end(),
                        [&edge](const auto& setting) { return setting.first == edge.setting; })
        ->second;
  };
  std::string text = edge.setting + " " + (edge.isUp ? "up: " : "down: ");
  if (edge.steps == 0) {
    text += "no value beyond " + valueAt(edge.last) + " passes";
  } else {
    text += "passes to " + valueAt(edge.last) + ", " + Counted(edge.steps, "step") + " away";
    if (!edge.failing && edge.unknown == 0) text += ", the last of the values";
  }
  if (edge.unknown != 0) text += "; nothing is known of the next " + Counted(edge.unknown, "value");
  if (edge.failing) text += "; " + valueAt(*edge.failing) + " fails";
  text += ".";
  return edge.steps == 0 ? text : text + " " + CleanText(map.points[edge.last]);
}

std::vector<std::string> MarginSentences(const MarginMap& map) {
  const MarginPoint& chosen = map.points[map.grid.chosen];
  const std::string name = NameOf(chosen);
  if (chosen.trials.failures != 0) {
    return {name + " fails: " + std::to_string(chosen.trials.failures) + " of " +
            Counted(RunsOf(chosen), "run") + ". It has no margin."};
  }
  if (chosen.judgement.cleanRuns == 0) return {"Nothing is known of " + name + " yet."};
  std::vector<std::string> sentences = {name + " passes. " + CleanText(chosen)};
  for (const MarginEdge& edge : map.edges) sentences.push_back(EdgeSentence(map, edge));
  return sentences;
}

std::string MarginText(const MarginMap& map, std::size_t width) {
  const MarginPoint& chosen = map.points[map.grid.chosen];
  std::string text = "Margin of " + NameOf(chosen) + ", marked with *. " + std::to_string(map.runs) + " of " +
                     Counted(map.gridRuns, "run") + " of the grid; in brackets: follows from other points\n";
  std::vector<std::size_t> listed;
  for (std::size_t i = 0; i < map.points.size(); ++i) {
    if (map.axes.size() == 1 || RunsOf(map.points[i]) != 0) listed.push_back(i);
  }
  text += map.axes.size() == 2 ? TwoSettings(map, width) : ListOf(map, listed, width);
  if (map.axes.size() != 1) {
    std::vector<std::size_t> near = Neighbours(map.grid);
    near.insert(near.begin(), map.grid.chosen);
    text += "\nThe point and its neighbours\n" + ListOf(map, near, width);
  }
  text += "\n";
  for (const std::string& sentence : MarginSentences(map)) text += sentence + "\n";
  text += ReasonsText(map);
  for (const std::string& doubt : map.doubts) text += "\nnote: " + Printable(doubt);
  return text + (map.doubts.empty() ? "" : "\n");
}

}  // namespace scope
