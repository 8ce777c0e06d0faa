// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "commands.h"
#include "compare.h"
#include "compare_conditions.h"
#include "compare_input.h"
#include "comparison_text.h"
#include "errors.h"
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
std::string CompareTwo(const std::string& folder, const Sweep& sweep, const SweepTable& table, Output output,
                       const TextStyle& style) {
  const auto side = [&folder](const SweepPoint& point) {
    std::string name = folder + ":" + PointText(point.levels);
    std::replace(name.begin() + static_cast<std::ptrdiff_t>(folder.size()), name.end(), ' ', ',');
    return ReadSide(name);
  };
  const Side a = side(table.points[0]);
  const Side b = side(table.points[1]);
  CompareOptions options;
  options.skipS = sweep.settings.warmupS;
  const Comparison comparison = Compare(a, b, options);
  const std::vector<ConditionDifference> differences = DifferentConditions(a.runs, b.runs);
  return output == Output::kJson ? ComparisonJson(a, b, comparison, differences, options)
                                 : ComparisonText(a, b, comparison, differences, options, style);
}

}  // namespace

void PrintSweep(const std::string& folder, Output output, const TextStyle& style) {
  if (output == Output::kQuiet) return;
  const Sweep sweep = ReadSweep(folder);
  SweepTable table = ReadSweepTable(folder, sweep);
  const bool two = table.points.size() == 2 && table.points[0].runs != 0 && table.points[1].runs != 0;
  std::string comparison;
  try {
    if (two) comparison = CompareTwo(folder, sweep, table, output, style);
  } catch (const UserError& error) {
    // The sweep has its figures anyway.
    table.notes.push_back(std::string("the two points are not compared: ") + error.what());
  }
  if (output == Output::kJson) {
    Print(SweepJson(folder, sweep, table, comparison));
    return;
  }
  std::string text =
      Format("\nMedians after a warm-up of %g s\n", sweep.settings.warmupS) + TableText(table, style.width);
  for (const std::string& part : {BandwidthText(table, style.width), SaturationText(table)}) {
    if (!part.empty()) text += '\n' + part;
  }
  for (const std::string& note : table.notes) text += "\nnote: " + Printable(note);
  if (!table.notes.empty()) text += '\n';
  if (!comparison.empty()) text += '\n' + comparison;
  Print(text);
}

}  // namespace scope
