// SPDX-License-Identifier: Apache-2.0
#include "matrix_text.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "matrix_plan.h"
#include "number_text.h"
#include "printable.h"
#include "statistics.h"
#include "sweep_plan.h"
#include "text_format.h"

namespace scope {
namespace {

std::string MainText(const MatrixCell& cell, const MatrixFigures& figures) {
  if (figures.main.empty()) return "-";
  const double median = Median(figures.main);
  return cell.victim.section == kLatencyVictim ? Format("%.0f ns", median) : RateText(median);
}

std::string TailText(const MatrixFigures& figures) {
  if (figures.p99Us.empty()) return "-";
  return Latency(static_cast<std::uint64_t>(Median(figures.p99Us) * 1e3));
}

std::string SlowdownText(const std::optional<SlowdownPercent>& slowdown) {
  if (!slowdown) return "-";
  // Without "-0.0".
  const auto shown = [](double percent) { return std::round(percent * 10) / 10 + 0.0; };
  const std::string value = Format("%+.1f %%", shown(slowdown->value));
  return slowdown->low ? value + Format(" [%+.1f, %+.1f]", shown(*slowdown->low), shown(*slowdown->high))
                       : value;
}

std::string CpusText(const MatrixCell& cell) {
  const std::string load = cell.aggressorCpus ? Format("%.2f", *cell.aggressorCpus) : "-";
  return load + " / " + (cell.control.cpus.empty() ? "-" : Format("%.2f", Median(cell.control.cpus)));
}

std::string WorstText(const Matrix& matrix, const MatrixTable& table) {
  const MatrixCell* worst = nullptr;
  for (const MatrixCell& cell : table.cells) {
    if (!cell.control.main.empty()) worst = &cell;
  }
  const std::size_t all = ExhaustiveRuns(WorstGridOf(matrix));
  std::string text = "The search made " + std::to_string(table.withRuns) + " of the " + std::to_string(all) +
                     " runs with aggressors that recording every mix would take.\n";
  if (worst == nullptr) return text + "It has not ended.\n";
  return "The worst mix for " + VictimText(worst->victim) + " is " + PointText(worst->mix) + ": slower by " +
         SlowdownText(worst->total) + " in all, by " + SlowdownText(worst->byMemory) +
         " because of memory.\n" + text;
}

}  // namespace

std::string OwnCpusSentence(const Matrix& matrix) {
  if (!matrix.ownCpus.empty()) {
    std::vector<std::string> cpus;
    for (const int cpu : matrix.ownCpus) cpus.push_back(std::to_string(cpu));
    return (cpus.size() == 1 ? "The victim has CPU " : "The victim has the CPUs ") + Joined(cpus, ", ") +
           " to itself; aggressors and controls share the others.\n";
  }
  return "The victim has no CPU to itself: it shares the CPUs with aggressors and controls.\n";
}

std::string MatrixText(const Matrix& matrix, const MatrixTable& table, std::size_t width) {
  std::string text = OwnCpusSentence(matrix);
  text += Format("Medians after a warm-up of %g s; slowdowns with their intervals of 95 %%\n",
                 matrix.settings.warmupS);
  TextTable rows("ll");
  rows.Add({"victim", "aggressors", "by memory", "by CPU", "alone", "control", "with", "p99 alone", "with",
            "CPUs of aggressors / control"});
  for (const MatrixCell& cell : table.cells) {
    rows.Add({VictimText(cell.victim), PointText(cell.mix), SlowdownText(cell.byMemory),
              SlowdownText(cell.byCpu), MainText(cell, cell.alone), MainText(cell, cell.control),
              MainText(cell, cell.with), TailText(cell.alone), TailText(cell.with), CpusText(cell)});
  }
  text += rows.Text(width, 2);
  if (matrix.worst) text += "\n" + WorstText(matrix, table);
  for (const std::string& note : table.notes) text += "\nnote: " + Printable(note);
  if (!table.notes.empty()) text += '\n';
  return text;
}

}  // namespace scope
