// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>

#include "commands.h"
#include "compare.h"
#include "compare_conditions.h"
#include "compare_input.h"
#include "comparison_text.h"
#include "errors.h"
#include "margin_map.h"
#include "margin_text.h"
#include "pages.h"
#include "printable.h"
#include "sweep_folder.h"
#include "sweep_json.h"
#include "sweep_plan.h"
#include "sweep_table.h"
#include "sweep_text.h"
#include "text_format.h"

namespace scope {
namespace {

// A sweep of two points asks which of them is better, so they are compared.
std::optional<ComparedSides> CompareTwo(const std::string& folder, const Sweep& sweep, SweepTable& table) {
  if (table.points.size() != 2 || table.points[0].runs == 0 || table.points[1].runs == 0) return std::nullopt;
  const auto side = [&folder](const SweepPoint& point) {
    std::string name = folder + ":" + PointText(point.levels, point.settings);
    std::replace(name.begin() + static_cast<std::ptrdiff_t>(folder.size()), name.end(), ' ', ',');
    return ReadSide(name);
  };
  try {
    ComparedSides sides;
    sides.a = side(table.points[0]);
    sides.b = side(table.points[1]);
    sides.options.skipS = sweep.settings.warmupS;
    sides.comparison = Compare(sides.a, sides.b, sides.options);
    sides.differences = DifferentConditions(sides.a.runs, sides.b.runs);
    return sides;
  } catch (const UserError& error) {
    // The sweep has its figures anyway.
    table.notes.push_back(std::string("the two points are not compared: ") + error.what());
    return std::nullopt;
  }
}

std::string SweepText(const Sweep& sweep, const SweepTable& table, const TextStyle& style) {
  std::string text = sweep.boardAxes.empty() ? "" : "\n" + MarginText(MarginMapOf(sweep, table), style.width);
  text +=
      Format("\nMedians after a warm-up of %g s\n", sweep.settings.warmupS) + TableText(table, style.width);
  for (const std::string& part : {BandwidthText(table, style.width), SaturationText(table)}) {
    if (!part.empty()) text += '\n' + part;
  }
  for (const std::string& note : table.notes) text += "\nnote: " + Printable(note);
  if (!table.notes.empty()) text += '\n';
  return text;
}

}  // namespace

void ShowSweep(const std::string& folder, Output output, const TextStyle& style, const PageFile& file) {
  const Sweep sweep = ReadSweep(folder);
  SweepTable table = ReadSweepTable(folder, sweep);
  const std::optional<ComparedSides> two = CompareTwo(folder, sweep, table);
  const std::string comparison =
      two ? ComparisonJson(two->a, two->b, two->comparison, two->differences, two->options) : std::string();
  if (output == Output::kJson) Print(SweepJson(folder, sweep, table, comparison));
  if (output == Output::kText) {
    Print(SweepText(sweep, table, style));
    if (two) {
      Print("\n");
      ShowComparison(*two, output, style, {});
    }
  }
  if (file.path.empty()) return;
  WritePage(file, SweepPage(folder, sweep, table, comparison));
  if (output == Output::kText) Print("\nreport in " + Printable(file.path) + "\n");
}

}  // namespace scope
