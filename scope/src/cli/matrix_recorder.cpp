// SPDX-License-Identifier: Apache-2.0
#include "matrix_recorder.h"

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "cell_folder.h"
#include "cell_runner.h"
#include "configuration.h"
#include "engines.h"
#include "errors.h"
#include "live_view.h"
#include "matrix_folder.h"
#include "matrix_plan.h"
#include "matrix_table.h"
#include "printable.h"
#include "series.h"
#include "sweep_plan.h"
#include "tell.h"
#include "text_format.h"

namespace scope {
namespace {

std::string WhatRuns(const Matrix& matrix, const MatrixRun& run) {
  const MatrixVictim* const victim = VictimOf(matrix, run);
  const std::string mix = PointText(run.mix);
  switch (run.part) {
    case MatrixPart::kLoad:
      return mix + " without a victim";
    case MatrixPart::kAlone:
      return VictimText(*victim) + " alone";
    case MatrixPart::kWith:
      return VictimText(*victim) + " with " + mix;
    case MatrixPart::kControl:
      return VictimText(*victim) + " with the control of " + mix;
  }
  return mix;
}

}  // namespace

MatrixRecorder::MatrixRecorder(std::string folder, Matrix& matrix, Output output)
    : folder_(std::move(folder)), matrix_(matrix), output_(output) {
  const std::string config = folder_ + "/" + kSeriesConfig;
  plan_.made = matrix_.started;
  plan_.configPath = matrix_.configPath;
  plan_.configText = ReadSeriesConfig(folder_);
  plan_.settings = matrix_.settings;
  unsigned int runTimeS = 0;
  for (const auto& [engine, level] : ReadConfiguration(config, runTimeS).levels) {
    const EngineInfo* const info = FindEngine(&EngineInfo::id, engine);
    if (info != nullptr) sections_.emplace_back(info->section);
  }
  runS_ = RunSeconds(config, matrix_.settings) + kBetweenRunsS;
}

PlanCell MatrixRecorder::CellOf(std::size_t index) const {
  const MatrixRun& run = matrix_.runs[index];
  PlanCell cell;
  cell.folder = run.folder;
  cell.levels = LevelsOf(matrix_, run, sections_);
  cell.repeat = run.repeat;
  return cell;
}

// A run that is done may be unknown to matrix.json, if the recorder was killed between the two.
void MatrixRecorder::TakeUp() {
  for (std::size_t i = 0; i < matrix_.runs.size(); ++i) {
    const bool isDone = IsCellDone(folder_, plan_.id, CellOf(i), i + 1, true);
    matrix_.runs[i].state = isDone ? SweepState::kDone : SweepState::kPlanned;
    matrix_.runs[i].reason = isDone ? ErrorsFoundIn(folder_ + "/" + matrix_.runs[i].folder) : "";
  }
}

std::optional<std::size_t> MatrixRecorder::NextOfSearch() {
  const std::optional<MatrixRun> next = NextOfWorst(matrix_, ReadSlowness(folder_, matrix_));
  if (!next) return std::nullopt;
  const auto at = std::find_if(matrix_.runs.begin(), matrix_.runs.end(),
                               [&next](const MatrixRun& run) { return run.folder == next->folder; });
  const auto index = static_cast<std::size_t>(at - matrix_.runs.begin());
  if (at == matrix_.runs.end()) matrix_.runs.push_back(*next);
  if (index >= isTried_.size() || !isTried_[index]) return index;
  Tell(next->folder + " of " + folder_ + " is not complete, and the search needs it: " + next->reason);
  return std::nullopt;
}

std::optional<std::size_t> MatrixRecorder::Next() {
  if (matrix_.worst) return NextOfSearch();
  for (std::size_t i = 0; i < matrix_.runs.size(); ++i) {
    const bool isTried = i < isTried_.size() && isTried_[i];
    if (matrix_.runs[i].state != SweepState::kDone && !isTried) return i;
  }
  return std::nullopt;
}

void MatrixRecorder::TellOfRun(std::size_t index) const {
  const MatrixRun& run = matrix_.runs[index];
  std::string text = "run " + std::to_string(index + 1);
  if (!matrix_.worst) text += " of " + std::to_string(matrix_.runs.size());
  text += ": " + WhatRuns(matrix_, run) + ", repeat " + std::to_string(run.repeat);
  const double leftS = runS_ * static_cast<double>(matrix_.runs.size() - index);
  if (!matrix_.worst)
    text += Format(leftS < 90 ? "; %.0f s left" : "; %.0f min left", leftS < 90 ? leftS : leftS / 60);
  Print(text + "\n");
}

// False if the aggressors' own run cannot tell what the control has to do.
bool MatrixRecorder::PrepareControl(MatrixRun& run, RunSettings& settings) const {
  for (const MatrixRun& load : matrix_.runs) {
    if (load.part != MatrixPart::kLoad || load.mix != run.mix || load.state != SweepState::kDone) continue;
    try {
      settings.control = ControlOf(folder_ + "/" + load.folder, matrix_.settings.warmupS);
      return true;
    } catch (const UserError& error) {
      run.reason = error.what();
      return false;
    }
  }
  run.reason = "the run of its aggressors alone is not complete";
  return false;
}

// False if a signal ended the run, or if what ran does not end.
bool MatrixRecorder::Record(std::size_t index) {
  MatrixRun& run = matrix_.runs[index];
  const bool text = output_ == Output::kText;
  Plan plan = plan_;
  const EngineInfo* const victim = FindEngine(&EngineInfo::section, run.victim);
  plan.settings.own = {run.part == MatrixPart::kLoad || victim == nullptr ? "" : victim->id, matrix_.ownCpus};
  plan.settings.latency = run.victim == kLatencyVictim;
  if (plan.settings.latency && !matrix_.ownCpus.empty()) plan.settings.latencyCpu = matrix_.ownCpus.front();
  if (run.part == MatrixPart::kControl && !PrepareControl(run, plan.settings)) {
    run.state = SweepState::kFailed;
    WriteMatrix(folder_, matrix_);
    if (text) Print("not recorded: " + Printable(run.reason) + "\n");
    return true;
  }
  const auto view = text && OutputIsTerminal() ? MakeLiveView() : std::make_unique<View>();
  CellOptions options;
  options.root = folder_;
  options.warns = false;  // TakeUp did
  const CellOutcome outcome = RunCell(plan, CellOf(index), index + 1, options, *view, signals_);
  run.state = StateAfter(outcome);
  isStuck_ = outcome.isStuck;
  const bool isDone = run.state == SweepState::kDone;
  if (isDone) {
    run.reason = ErrorsFoundIn(outcome.folder);
  } else {
    run.reason = run.state == SweepState::kInterrupted ? "" : WithErrors(outcome.reason, outcome.folder);
  }
  WriteMatrix(folder_, matrix_);
  if (text) Print((isDone ? "saved in " : "incomplete, saved in ") + Printable(outcome.folder) + "\n");
  return run.state != SweepState::kInterrupted && !isStuck_;
}

bool MatrixRecorder::Run() {
  TakeUp();
  WriteMatrix(folder_, matrix_);
  if (output_ == Output::kText) {
    Print("matrix " + Printable(folder_) + ": " +
          (matrix_.worst ? "looking for the worst mix" : Counted(matrix_.runs.size(), "run")) +
          ", in random order of seed " + std::to_string(matrix_.settings.seed) + "\n");
  }
  bool isEarly = false;
  while (const std::optional<std::size_t> next = Next()) {
    if (output_ == Output::kText) TellOfRun(*next);
    isTried_.resize(std::max(isTried_.size(), *next + 1));
    isTried_[*next] = true;
    isEarly = !Record(*next) || signals_.TakeStop();
    if (isEarly) break;
  }
  // Goes if it is empty.
  (void)rmdir((folder_ + "/" + kAttemptsName).c_str());
  if (isEarly) {
    TellOfEarlyEnd(isStuck_, "matrix", folder_);
    return false;
  }
  return std::all_of(matrix_.runs.begin(), matrix_.runs.end(),
                     [](const MatrixRun& run) { return run.state == SweepState::kDone; });
}

}  // namespace scope
