// SPDX-License-Identifier: Apache-2.0
#include "sweep_text.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>
#include <vector>

#include "number_text.h"
#include "saturation.h"
#include "sweep_plan.h"
#include "text_format.h"
#include "text_table.h"

namespace scope {
namespace {

const FigureKey kTotal = {kAllEngines, Figure::kBandwidth};

std::string OrDash(const std::optional<double>& value) {
  return value ? ShortNumber(*value) : "-";
}

bool HasFigure(const SweepTable& table, const FigureKey& key) {
  return std::any_of(table.points.begin(), table.points.end(),
                     [&key](const SweepPoint& point) { return point.values.count(key) != 0; });
}

std::string CurveText(const SweepTable& table, std::size_t width) {
  // The other columns, and the word behind a bar.
  constexpr std::size_t kBesideBar = 30;
  const std::size_t barWidth = width > kBesideBar ? std::min(kBarWidth, width - kBesideBar) : 1;
  const double greatest = GreatestBandwidth(table);
  const std::optional<Saturation> saturation = FindSaturation(table);
  TextTable rows("rrl");
  rows.Add({table.axes[0].section, "GB/s", ""});
  for (std::size_t i = 0; i < table.points.size(); ++i) {
    const SweepPoint& point = table.points[i];
    const std::optional<double> total = MedianOf(point, kTotal);
    std::string bar;
    const auto filled =
        static_cast<std::size_t>(std::lround(total.value_or(0) / greatest * static_cast<double>(barWidth)));
    for (std::size_t j = 0; j < filled; ++j) bar += "█";
    if (saturation && saturation->reached && saturation->lowest == i) bar += " saturated";
    rows.Add({std::to_string(point.levels[0].second), OrDash(total), bar});
  }
  return "Total bandwidth against the level of " + table.axes[0].section + "\n" + rows.Text(width);
}

std::string MapText(const SweepTable& table, std::size_t width) {
  static const char* const kShades[] = {"  ", "░░", "▒▒", "▓▓", "██"};
  const SweepAxis& down = table.axes[0];
  const SweepAxis& across = table.axes[1];
  const double greatest = GreatestBandwidth(table);
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
         " (darkest: " + ShortNumber(greatest) + ")\n" + rows.Text(width);
}

}  // namespace

std::string TableText(const SweepTable& table, std::size_t width) {
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
  const std::size_t axes = table.axes.size() + table.boardAxes.size();
  TextTable rows(std::string(axes, 'r'));
  std::vector<std::string> head;
  for (const SweepAxis& axis : table.axes) head.push_back(axis.section);
  for (const SettingAxis& axis : table.boardAxes) head.push_back(axis.first);
  head.emplace_back("runs");
  for (const auto& [title, key] : columns) head.push_back(title);
  rows.Add(head);
  for (const SweepPoint& point : table.points) {
    // The search for an edge leaves most points out.
    if (!table.boardAxes.empty() && point.runs == 0) continue;
    std::vector<std::string> row;
    for (const auto& [section, level] : point.levels) row.push_back(std::to_string(level));
    for (const auto& [name, value] : point.settings) row.push_back(value);
    row.push_back(std::to_string(point.runs));
    for (const auto& [title, key] : columns) row.push_back(OrDash(MedianOf(point, key)));
    rows.Add(row);
  }
  return rows.Text(width, axes + 1);
}

std::string BandwidthText(const SweepTable& table, std::size_t width) {
  if (GreatestBandwidth(table) <= 0 || !table.boardAxes.empty()) return {};
  if (table.axes.size() == 1) return CurveText(table, width);
  if (table.axes.size() == 2) return MapText(table, width);
  return {};
}

std::string SaturationSentence(const SweepTable& table, const std::string& engine,
                               const Saturation& saturation) {
  const auto levels = [&table](std::size_t point) { return PointText(table.points[point].levels); };
  const auto value = [&](std::size_t point) {
    return ShortNumber(*MedianOf(table.points[point], {engine, Figure::kBandwidth})) + " GB/s";
  };
  const auto at = [&](std::size_t point) { return value(point) + " at " + levels(point); };
  const std::size_t lowest = saturation.lowest;
  std::string text = engine == kAllEngines ? "The total bandwidth" : "The bandwidth of " + engine;
  if (lowest != saturation.best) {
    text += " saturates at " + levels(lowest) + ": " + value(lowest) + ", within 5 % of the best, " +
            at(saturation.best) + ".";
  } else if (saturation.reached) {
    text += " is best at " + levels(lowest) + ", " + value(lowest) + ": more threads give no more.";
  } else {
    text += " does not saturate: the best, " + at(lowest) + ", has the most threads.";
  }
  if (saturation.fromBest) {
    text += Format(" The repeats put it at %.1f to %.1f %% of the best", 100 + saturation.fromBest->low,
                   100 + saturation.fromBest->high);
    text += saturation.fromBest->low < -kSaturatedPercent ? ", so they do not show that." : ".";
  }
  if (!saturation.fromBest && !saturation.hasRepeats)
    text += " Uncertainty not known: sweep with --repeat 4.";
  if (saturation.indistinct) {
    text += " These repeats cannot distinguish the best from " + at(*saturation.indistinct) +
            ". Record more of them, or use a quieter machine.";
  }
  return text;
}

std::string SaturationText(const SweepTable& table) {
  const std::optional<Saturation> total = FindSaturation(table);
  std::string text = total ? SaturationSentence(table, kAllEngines, *total) + "\n" : "";
  for (const EngineSaturation& each : EngineSaturations(table)) {
    text += SaturationSentence(table, each.engine, each.saturation) + "\n";
  }
  return text;
}

}  // namespace scope
