// SPDX-License-Identifier: Apache-2.0
#include <string>
#include <utility>
#include <vector>

#include "estimate.h"
#include "json.h"
#include "matrix_plan.h"
#include "matrix_text.h"
#include "page_data.h"
#include "pages.h"

namespace scope {
namespace {

Json SlowdownJson(const std::optional<SlowdownPercent>& slowdown) {
  if (!slowdown) return nullptr;
  return Json{{"percent", slowdown->value}, {"low", OrNull(slowdown->low)}, {"high", OrNull(slowdown->high)}};
}

Json ShareJson(const std::optional<MemoryShare>& share) {
  if (!share) return nullptr;
  return Json{{"percent", share->percent}, {"low", share->low}, {"high", share->high}};
}

// The bursts are those of the latency of memory.
Json FiguresJson(const MatrixFigures& figures, bool isLatency) {
  Json tail = nullptr;
  if (!figures.p99Us.empty()) {
    const Estimate estimate = EstimateOf(figures.p99Us);
    tail = Json{{"us", estimate.value}, {"low", OrNull(estimate.low)}, {"high", OrNull(estimate.high)}};
  }
  return Json{{"runs", figures.main.size()},
              {"values", figures.main},
              {"p99_us", figures.p99Us},
              {"p99", tail},
              {"bursts", isLatency ? Json(figures.bursts) : Json(nullptr)},
              {"interrupted", isLatency ? Json(figures.interrupted) : Json(nullptr)}};
}

Json CellJson(const MatrixCell& cell) {
  const bool isLatency = cell.victim.section == kLatencyVictim;
  return Json{{"victim", cell.victim.section},
              {"level", cell.victim.level},
              {"aggressors", LevelsJson(cell.mix)},
              {"unit", isLatency ? "ns" : "op/s"},
              {"alone", FiguresJson(cell.alone, isLatency)},
              {"control", FiguresJson(cell.control, isLatency)},
              {"with", FiguresJson(cell.with, isLatency)},
              {"by_memory", SlowdownJson(cell.byMemory)},
              {"by_cpu", SlowdownJson(cell.byCpu)},
              {"total", SlowdownJson(cell.total)},
              {"memory_share", ShareJson(cell.memoryShare)},
              {"aggressor_cpus", OrNull(cell.aggressorCpus)},
              {"control_cpus", cell.control.cpus}};
}

}  // namespace

Json MatrixData(const std::string& folder, const Matrix& matrix, const MatrixTable& table, bool isComplete) {
  Json levels = Json::object();
  for (const SweepAxis& axis : matrix.axes) levels[axis.section] = axis.levels;
  Json cells = Json::array();
  for (const MatrixCell& cell : table.cells) cells.push_back(CellJson(cell));
  std::vector<std::string> sentences = {OwnCpusSentence(matrix)};
  for (std::string& sentence : ProbeSentences(table)) sentences.push_back(std::move(sentence));
  for (std::string& sentence : MatrixSentences(matrix, table)) sentences.push_back(std::move(sentence));
  Json growth = Json::array();
  for (const LatencyGrowth& part : table.growth)
    growth.push_back(Json{{"bytes", part.bytes}, {"p50_ns", part.p50Ns}});
  Json worst = nullptr;
  if (matrix.worst) {
    worst = Json{{"runs", table.withRuns}, {"all_runs", ExhaustiveRuns(WorstGridOf(matrix))}};
    for (const MatrixCell& cell : table.cells) {
      if (!cell.control.main.empty()) worst["aggressors"] = LevelsJson(cell.mix);
    }
    if (table.next) {
      worst["next"] = LevelsJson(table.next->mix);
      worst["slower_than_next"] = SlowdownJson(table.next->behind);
    }
  }
  return Json{{"format", 1},
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
              {"latency", table.latency},
              {"growth", growth},
              {"sentences", sentences},
              {"notes", table.notes}};
}

std::string MatrixJson(const std::string& folder, const Matrix& matrix, const MatrixTable& table,
                       bool isComplete) {
  return JsonText(MatrixData(folder, matrix, table, isComplete));
}

std::string MatrixPage(const std::string& folder, const Matrix& matrix, const MatrixTable& table,
                       bool isComplete) {
  return PageOf(MatrixData(folder, matrix, table, isComplete));
}

}  // namespace scope
