// SPDX-License-Identifier: Apache-2.0
#include "curve_text.h"

#include <algorithm>

#include "curve_plan.h"
#include "number_text.h"
#include "printable.h"
#include "text_format.h"
#include "text_table.h"

namespace scope {
namespace {

std::string SpanText(const std::optional<Estimate>& estimate) {
  if (!estimate || !estimate->low) return "-";
  return ShortNumber(*estimate->low) + " to " + ShortNumber(*estimate->high);
}

std::string ValueText(const std::optional<Estimate>& estimate) {
  return estimate ? ShortNumber(estimate->value) : "-";
}

std::string LongestText(const CurveTablePoint& point) {
  const std::optional<double> longest = LongestAt(point);
  return longest ? ShortNumber(*longest) : "-";
}

std::string InterruptedText(const CurveTablePoint& point) {
  const std::optional<double> percent = InterruptedPercentAt(point);
  return percent ? Format("%.0f %%", *percent) : "-";
}

std::string TableOf(const CurveTable& table, std::size_t width) {
  TextTable rows("lrrlrlrrrr");
  rows.Add({"point", "runs", "GB/s", "95 %", "p50 ns", "95 %", "p99", "p99.9", "longest", "lost"});
  for (const CurveTablePoint& point : table.points) {
    const auto at = [&point](double CurveValue::* figure) { return EstimateAt(point, figure); };
    const auto runs = std::count_if(point.values.begin(), point.values.end(),
                                    [](const auto& value) { return value.has_value(); });
    rows.Add({point.name, std::to_string(runs), ValueText(at(&CurveValue::gigabytesPerS)),
              SpanText(at(&CurveValue::gigabytesPerS)), ValueText(at(&CurveValue::p50Ns)),
              SpanText(at(&CurveValue::p50Ns)), ValueText(at(&CurveValue::p99Ns)),
              ValueText(at(&CurveValue::p999Ns)), LongestText(point), InterruptedText(point)});
  }
  return rows.Text(width);
}

}  // namespace

std::string CurveText(const CurveTable& table, std::size_t width) {
  std::string text = "Latency of memory over the bandwidth of " + MixText(table.curve.mix) +
                     Format(", after a warm-up of %g s\n", table.curve.sweep.settings.warmupS);
  if (!table.infos.empty())
    text += "Latency of " + Printable(table.infos.front().info.conditions.latency) + "\n";
  text += '\n' + TableOf(table, width) +
          "lost: the share of the bursts in which the probe lost its processor; these are in no figure\n\n";
  for (const std::string& sentence : CurveSentences(table, FiguresOf(table))) text += sentence + '\n';
  for (const std::string& note : table.notes) text += "\nnote: " + Printable(note);
  return text + (table.notes.empty() ? "" : "\n");
}

}  // namespace scope
