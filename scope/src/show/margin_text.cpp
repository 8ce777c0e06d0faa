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

// The engines that were not judged at the point, each once.
std::string EnginesNotJudged(const MarginPoint& point) {
  std::vector<std::string> engines;
  for (const std::string& text : point.notJudged) {
    const std::string engine = text.substr(0, text.find(':'));
    if (std::find(engines.begin(), engines.end(), engine) == engines.end()) engines.push_back(engine);
  }
  return Joined(engines, ", ");
}

// What is known of a point that does not fail.
std::string CleanText(const MarginPoint& point) {
  if (RunsOf(point) == 0) return "No run was made there: that follows from points farther out.";
  const std::optional<double> below = FailureRateBelow(point);
  const std::string engines = EnginesNotJudged(point);
  return "No failure in " + Counted(RunsOf(point), "run") + " there" +
         (below ? Format(": the failure rate is below %.2g per run (95 %%).", *below)
                : ", too few for a failure rate.") +
         (engines.empty() ? "" : " Not judged there: results of " + engines + ".");
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

// The names of `points`, of `all` that passed.
std::string PointNames(const MarginMap& map, const std::vector<std::size_t>& points, std::size_t all) {
  constexpr std::size_t kMostNames = 3;
  if (points.size() == all) return all == 1 ? NameOf(map.points[points.front()]) : "all points that passed";
  std::vector<std::string> names;
  for (const std::size_t point : points) {
    if (names.size() < kMostNames) names.push_back(NameOf(map.points[point]));
  }
  const std::size_t more = points.size() - names.size();
  return Joined(names, ", ") + (more == 0 ? "" : " and " + Counted(more, "more point"));
}

std::string NotJudgedText(const MarginMap& map) {
  std::vector<std::pair<std::string, std::vector<std::size_t>>> byText;
  std::size_t passed = 0;
  for (std::size_t i = 0; i < map.points.size(); ++i) {
    if (map.points[i].trials.passes != 0) ++passed;
    for (const std::string& text : map.points[i].notJudged) {
      auto at =
          std::find_if(byText.begin(), byText.end(), [&text](const auto& one) { return one.first == text; });
      if (at == byText.end()) at = byText.insert(at, {text, {}});
      at->second.push_back(i);
    }
  }
  if (byText.empty()) return "";
  std::string lines = "\nNot judged: wrong results of these would not have been found\n";
  for (const auto& [text, points] : byText)
    lines += "  " + Printable(text) + "; at " + PointNames(map, points, passed) + "\n";
  return lines;
}

std::string LegendText(const MarginMap& map) {
  std::string text;
  if (map.edge) text += "In brackets: follows from other points. ";
  const bool hasUnjudged = std::any_of(map.points.begin(), map.points.end(),
                                       [](const MarginPoint& point) { return !point.notJudged.empty(); });
  if (hasUnjudged) text += "?: not all results were judged. ";
  if (text.empty()) return "";
  text.back() = '\n';
  return text;
}

}  // namespace

std::string PointState(const MarginPoint& point) {
  const std::string runs = std::to_string(RunsOf(point));
  if (point.hangs != 0 && point.hangs == RunsOf(point)) return "hang " + runs + "/" + runs;
  if (point.trials.failures != 0) return "fail " + std::to_string(point.trials.failures) + "/" + runs;
  if (point.judgement.fails) return RunsOf(point) == 0 ? "(fail)" : "(fail) " + runs + "/" + runs + " pass";
  if (RunsOf(point) != 0) return "pass " + runs + "/" + runs + (point.notJudged.empty() ? "" : " ?");
  return point.judgement.cleanRuns != 0 ? "(pass)" : "-";
}

std::string EdgeSentence(const MarginMap& map, const MarginEdge& edge) {
  const auto axis = std::find_if(map.axes.begin(), map.axes.end(),
                                 [&edge](const SettingAxis& one) { return one.first == edge.setting; });
  // The values may rise or fall: a direction is named by where it leads.
  const std::string& end = edge.isUp ? axis->second.back() : axis->second.front();
  const auto valueAt = [&](std::size_t point) {
    const BoardSettings& settings = map.points[point].settings;
    return std::find_if(settings.begin(), settings.end(),
                        [&edge](const auto& setting) { return setting.first == edge.setting; })
        ->second;
  };
  std::vector<std::string> parts;
  if (edge.steps != 0) {
    const bool isLast = !edge.failing && edge.unknown == 0;
    parts.push_back("passes to " + valueAt(edge.last) + ", " + Counted(edge.steps, "step") + " away" +
                    (isLast ? ", the last value" : ""));
  }
  if (edge.unknown != 0) {
    const std::string where =
        edge.failing ? " before " + valueAt(*edge.failing) : " after " + valueAt(edge.last);
    parts.push_back("no result yet for " + Counted(edge.unknown, "value") + where);
  }
  if (edge.failing) {
    const bool isNext = edge.steps == 0 && edge.unknown == 0;
    parts.push_back((isNext ? "the next value, " + valueAt(*edge.failing) + "," : valueAt(*edge.failing)) +
                    " fails");
  }
  const std::string text = edge.setting + " towards " + end + ": " + Joined(parts, "; ") + ".";
  return edge.steps == 0 ? text : text + " " + CleanText(map.points[edge.last]);
}

std::vector<std::string> MarginSentences(const MarginMap& map) {
  const MarginPoint& chosen = map.points[map.grid.chosen];
  const std::string name = NameOf(chosen);
  if (chosen.trials.failures != 0) {
    return {name + " fails: " + std::to_string(chosen.trials.failures) + " of " +
            Counted(RunsOf(chosen), "run") + ". It has no margin."};
  }
  if (chosen.judgement.cleanRuns == 0) return {"There is no result of " + name + " yet."};
  std::vector<std::string> sentences = {name + " passes. " + CleanText(chosen)};
  for (const MarginEdge& edge : map.edges) sentences.push_back(EdgeSentence(map, edge));
  return sentences;
}

std::string MarginText(const MarginMap& map, std::size_t width) {
  const MarginPoint& chosen = map.points[map.grid.chosen];
  std::string text = "Margin of " + NameOf(chosen) + ", marked with *. The grid has " +
                     Counted(map.gridRuns, "run") + ", " + std::to_string(map.runs) + " with a result.\n" +
                     LegendText(map);
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
  for (const std::string& sentence : MarginSentences(map)) text += Printable(sentence) + "\n";
  text += ReasonsText(map) + NotJudgedText(map);
  for (const std::string& doubt : map.doubts) text += "\nnote: " + Printable(doubt);
  return text + (map.doubts.empty() ? "" : "\n");
}

}  // namespace scope
