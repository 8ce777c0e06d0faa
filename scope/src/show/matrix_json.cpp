// SPDX-License-Identifier: Apache-2.0
#include "json.h"
#include "matrix_plan.h"
#include "matrix_text.h"
#include "page_data.h"

namespace scope {
namespace {

Json SlowdownJson(const std::optional<SlowdownPercent>& slowdown) {
  if (!slowdown) return nullptr;
  return Json{{"percent", slowdown->value}, {"low", OrNull(slowdown->low)}, {"high", OrNull(slowdown->high)}};
}

Json FiguresJson(const MatrixFigures& figures) {
  return Json{{"values", figures.main}, {"p99_us", figures.p99Us}};
}

Json CellJson(const MatrixCell& cell) {
  const bool isLatency = cell.victim.section == kLatencyVictim;
  return Json{{"victim", cell.victim.section},
              {"level", cell.victim.level},
              {"aggressors", LevelsJson(cell.mix)},
              {"unit", isLatency ? "ns" : "op/s"},
              {"alone", FiguresJson(cell.alone)},
              {"control", FiguresJson(cell.control)},
              {"with", FiguresJson(cell.with)},
              {"by_memory", SlowdownJson(cell.byMemory)},
              {"by_cpu", SlowdownJson(cell.byCpu)},
              {"total", SlowdownJson(cell.total)},
              {"aggressor_cpus", OrNull(cell.aggressorCpus)},
              {"control_cpus", cell.control.cpus}};
}

}  // namespace

std::string MatrixJson(const std::string& folder, const Matrix& matrix, const MatrixTable& table,
                       bool isComplete) {
  Json levels = Json::object();
  for (const SweepAxis& axis : matrix.axes) levels[axis.section] = axis.levels;
  Json cells = Json::array();
  for (const MatrixCell& cell : table.cells) cells.push_back(CellJson(cell));
  Json worst = nullptr;
  if (matrix.worst) {
    worst = Json{{"runs", table.withRuns}, {"all_runs", ExhaustiveRuns(WorstGridOf(matrix))}};
    for (const MatrixCell& cell : table.cells) {
      if (!cell.control.main.empty()) worst["aggressors"] = LevelsJson(cell.mix);
    }
  }
  return JsonText(Json{{"format", 1},
                       {"kind", "matrix"},
                       {"tool", kToolVersion},
                       {"folder", folder},
                       {"started", matrix.started},
                       {"complete", isComplete},
                       {"levels", levels},
                       {"own_cpus", matrix.ownCpus},
                       {"repeats", matrix.settings.repeats},
                       {"seed", matrix.settings.seed},
                       {"warmup_s", matrix.settings.warmupS},
                       {"runs", table.done},
                       {"cells", cells},
                       {"worst", worst},
                       {"notes", table.notes}});
}

}  // namespace scope
