// SPDX-License-Identifier: Apache-2.0
#include "comparison_text.h"

#include "number_text.h"
#include "text_format.h"
#include "text_table.h"

namespace scope {
namespace {

// Larger numbers are not practical, and an exact value would suggest a certainty that is not there.
constexpr int kManyRepeats = 9999;

std::string RunsText(const Side& side) {
  return std::to_string(side.runs.size()) + (side.runs.size() == 1 ? " run" : " runs");
}

std::string RepeatsText(const ComparedFigure& figure, bool overRepeats) {
  if (!figure.repeatsForOnePercent) return "-";
  if (*figure.repeatsForOnePercent > kManyRepeats) return "> " + std::to_string(kManyRepeats);
  return (overRepeats ? "" : ">= ") + std::to_string(*figure.repeatsForOnePercent);
}

}  // namespace

std::string VerdictText(Verdict verdict) {
  switch (verdict) {
    case Verdict::kBetter:
      return "better";
    case Verdict::kWorse:
      return "worse";
    case Verdict::kNoDifference:
      return "no difference shown";
    case Verdict::kMissing:
      return "missing";
    case Verdict::kUnusable:
      return "not used";
  }
  return {};
}

std::string ComparisonText(const Side& a, const Side& b, const Comparison& comparison,
                           const std::vector<ConditionDifference>& differences,
                           const CompareOptions& options) {
  std::string text = "A: " + a.name + " (" + RunsText(a) + ")\nB: " + b.name + " (" + RunsText(b) + ")\n";
  text += Format("Medians after the first %g s; %g %% intervals of B against A, bootstrap over %s.\n",
                 options.skipS, options.confidence * 100,
                 comparison.overRepeats ? "repeats" : "the seconds of each run");
  if (!comparison.overRepeats) {
    text +=
        "Within-run noise only: one run a side does not show how runs differ from each other. "
        "Compare repeats for that.\n";
  }
  for (const ConditionDifference& difference : differences) {
    text += "Different, as allowed: " + difference.name + ": " + difference.a + " in A, " + difference.b +
            " in B\n";
  }
  text += '\n';
  TextTable table("lllrrrrrrl");
  table.Add({"engine", "figure", "unit", "A", "B", "B - A", "from", "to", "repeats for 1 %", "verdict"});
  for (const ComparedFigure& figure : comparison.figures) {
    const FigureKind& kind = KindOf(figure.key.figure);
    std::vector<std::string> row = {figure.key.engine, kind.name, kind.unit,
                                    figure.a ? ShortNumber(*figure.a) : "-",
                                    figure.b ? ShortNumber(*figure.b) : "-"};
    if (figure.differencePercent) {
      row.push_back(Format("%+.2f %%", *figure.differencePercent));
      row.push_back(Format("%+.2f %%", figure.lowPercent));
      row.push_back(Format("%+.2f %%", figure.highPercent));
    } else {
      row.insert(row.end(), 3, "-");
    }
    row.push_back(RepeatsText(figure, comparison.overRepeats));
    row.push_back(VerdictText(figure.verdict) + (figure.regression ? ", a regression" : "") +
                  (figure.note.empty() ? "" : ": " + figure.note));
    table.Add(row);
  }
  text += table.Text();
  for (const std::string& note : comparison.notes) text += "\nnote: " + note;
  if (!comparison.notes.empty()) text += '\n';
  text += '\n';
  text += (comparison.regression ? Format("Regression: worse by more than %g %%.\n", options.tolerancePercent)
                                 : Format("No regression beyond %g %% shown.\n", options.tolerancePercent));
  return text;
}

}  // namespace scope
