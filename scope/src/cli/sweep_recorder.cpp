// SPDX-License-Identifier: Apache-2.0
#include "sweep_recorder.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

#include "cell_folder.h"
#include "cell_plan.h"
#include "cell_runner.h"
#include "collection.h"
#include "durable_file.h"
#include "errors.h"
#include "live_view.h"
#include "margin_map.h"
#include "printable.h"
#include "run_error.h"
#include "run_reader.h"
#include "series.h"
#include "setting_switch.h"
#include "sweep_folder.h"
#include "sweep_plan.h"
#include "system_files.h"
#include "tell.h"
#include "text_format.h"

namespace scope {
namespace {

std::size_t NumberOf(const SweepRun& run) {
  return static_cast<std::size_t>(run.order);
}

std::string BootId(const std::string& systemRoot) {
  std::string text = ReadFile(systemRoot + "/proc/sys/kernel/random/boot_id").value_or("");
  text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
  return text;
}

std::string ResultText(const SweepRun& run) {
  switch (run.state) {
    case SweepState::kDone:
      return run.reason.empty() ? "pass" : "fail: " + run.reason;
    case SweepState::kHung:
      return "hang: " + run.reason;
    case SweepState::kFailed:
      return "fail: " + run.reason;
    default:
      return "interrupted";
  }
}

}  // namespace

bool HasErrors(const std::string& folder, const Sweep& sweep) {
  return std::any_of(sweep.runs.begin(), sweep.runs.end(),
                     [&folder](const SweepRun& run) { return HasErrors(folder, run.folder, run.state); });
}

SweepRecorder::SweepRecorder(std::string folder, Sweep& sweep, Output output, SweepKind kind)
    : folder_(std::move(folder)), sweep_(sweep), output_(output), kind_(std::move(kind)) {
  plan_ = PlanOfSweep(sweep_, ReadSeriesConfig(folder_));
  bootId_ = BootId(sweep_.settings.systemRoot);
}

const PlanCell& SweepRecorder::CellOf(const SweepRun& run) const {
  return plan_.cells[NumberOf(run) - 1];
}

// A run that is done may be unknown to sweep.json, if the recorder was killed between the two.
bool SweepRecorder::IsDone(const SweepRun& run) const {
  // Sweeps of earlier versions have no cell.json: then sweep.json alone tells the states of runs.
  return run.state == SweepState::kDone ? IsRecorded(folder_ + "/" + run.folder)
                                        : IsCellDone(folder_, plan_.id, CellOf(run), NumberOf(run), false);
}

// It was running when the recorder ended.
void SweepRecorder::TakeUpLost(SweepRun& run) {
  CellFolders folders(folder_, run.folder);
  CellOptions options;
  options.root = folder_;
  options.warns = false;
  run.state = SweepState::kPlanned;
  if (DoneBefore(folders, plan_, CellOf(run), NumberOf(run), options)) {
    run.state = SweepState::kDone;
    return;
  }
  CellStatus last;
  std::string errors;
  // An earlier attempt says nothing about this one, whose folder may not have reached the disk.
  const int lastAttempt = LastAttempt(folder_, run.folder);
  if (lastAttempt >= run.attempt) {
    last = StatusOf(folder_, plan_.id, CellOf(run), NumberOf(run));
    errors = ErrorsFoundIn(folder_ + "/" + AttemptFolder(run.folder, lastAttempt));
  }
  // Its attempt says how it ended. Only sweep.json does not.
  if (last.state == CellState::kInterrupted || last.isRecorderFault) return;
  if (last.state == CellState::kFailed) {
    run.state = last.isHung ? SweepState::kHung : SweepState::kFailed;
    run.reason = WithErrors(last.reason, folder_ + "/" + last.folder);
    return;
  }
  ++run.lost;
  run.reason = (errors.empty() ? "" : errors + "; ") + "did not come back: ";
  if (bootId_.empty()) {
    run.reason += "the recorder or the machine died";
  } else {
    run.reason += sweep_.bootId == bootId_ ? "the recorder was killed" : "the machine was started again";
  }
  if (run.lost > 1) run.reason += ", " + std::to_string(run.lost) + " times";
  // What dies may do so by chance. Errors are a result.
  const bool isTriedAgain = errors.empty() && run.lost <= sweep_.margin.tries;
  Tell(run.folder + " (" + PointText(run.levels, run.settings) + ") " + run.reason +
       (isTriedAgain ? "; it is tried again" : "; it counts as failed"));
  if (!isTriedAgain) run.state = SweepState::kFailed;
}

void SweepRecorder::TakeUp(SweepRun& run) {
  // Its settings were made, however it ended.
  if (run.state == SweepState::kRunning) sweep_.restored = false;
  if (IsDone(run)) {
    run.state = SweepState::kDone;
  } else if (run.state == SweepState::kDone) {
    run.state = SweepState::kPlanned;
  } else if (run.state == SweepState::kRunning) {
    TakeUpLost(run);
  }
  if (run.state == SweepState::kDone) run.reason = CountsText(ReadRunInfo(folder_ + "/" + run.folder).errors);
}

void SweepRecorder::PrepareRuns() {
  for (SweepRun& run : sweep_.runs) TakeUp(run);
  if (HasSettings()) {
    // A machine that dies again must not lose what was just counted.
    kind_.write();
    SyncFolder(folder_);
    DropKeptSweep(folder_);
  }
  for (SweepRun& run : sweep_.runs) {
    // A failure of a setting is its result. Otherwise it is none, and the run is recorded again.
    if (HasSettings() ? !HasResult(run) : run.state != SweepState::kDone) toRecord_.push_back(&run);
  }
  std::sort(toRecord_.begin(), toRecord_.end(),
            [](const SweepRun* a, const SweepRun* b) { return a->order < b->order; });
  if (!toRecord_.empty()) runS_ = RunSeconds(folder_ + "/" + kSeriesConfig, sweep_.settings) + kBetweenRunsS;
}

SweepRun* SweepRecorder::Next() {
  if (sweep_.margin.edge) return NextRun(sweep_);
  return begun_ < toRecord_.size() ? toRecord_[begun_] : nullptr;
}

void SweepRecorder::TellOfRun(const SweepRun& run) const {
  std::string text = "run ";
  if (sweep_.margin.edge) {
    text += std::to_string(begun_ + 1);
  } else {
    text += std::to_string(run.order) + " of " + std::to_string(sweep_.runs.size());
  }
  text +=
      ": " + PointText(run.levels, run.settings, run.dutyPercent) + ", repeat " + std::to_string(run.repeat);
  const double leftS = runS_ * static_cast<double>(toRecord_.size() - begun_);
  if (!sweep_.margin.edge)
    text += Format(leftS < 90 ? "; %.0f s left" : "; %.0f min left", leftS < 90 ? leftS : leftS / 60);
  Print(text + "\n");
}

// When this returns, the disk says that the run has begun.
void SweepRecorder::Begin(SweepRun& run) {
  sweep_.bootId = bootId_;
  run.attempt = LastAttempt(folder_, run.folder) + 1;
  run.state = SweepState::kRunning;
  kind_.write();
  SyncFolder(folder_);
}

// The run has no result, and did not end this program.
void SweepRecorder::TakeBack(SweepRun& run) {
  run.state = SweepState::kPlanned;
  Tell(run.folder + " (" + PointText(run.levels, run.settings, run.dutyPercent) +
       ") has no result. Continue with: stress_scope " + kind_.command + " --resume " + folder_);
  try {
    if (HasSettings()) {
      TakeBackSweep(folder_);
    } else {
      kind_.write();
    }
  } catch (const UserError& error) {
    Tell(error.what());
    if (HasSettings()) Tell("set its state from \"running\" to \"planned\" there, or it counts as failed");
  }
}

// False if a signal ended the run, or if what ran does not end.
bool SweepRecorder::Record(SweepRun& run) {
  const bool text = output_ == Output::kText;
  const auto view = text && OutputIsTerminal() ? MakeLiveView() : std::make_unique<View>();
  CellOptions options;
  options.root = folder_;
  options.apply = sweep_.margin.apply;
  options.showsApply = text;
  options.warns = false;  // TakeUp did
  if (HasSettings()) {
    sweep_.restored = false;
    KeepSweep(folder_, sweep_);
  }
  CellOutcome outcome;
  std::vector<std::string> notJudged;
  try {
    if (HasSettings()) Begin(run);
    // No summary per run: the sweep prints its figures at its end.
    outcome = RunCell(plan_, CellOf(run), NumberOf(run), options, *view, signals_);
    // A failure of a setting is its result. What the recorder could not do is none.
    if (HasSettings() && outcome.isRecorderFault) throw UserError(outcome.reason);
    if (outcome.state == CellState::kDone) {
      const RunInfo info = ReadRunInfo(outcome.folder);
      run.reason = CountsText(info.errors);
      notJudged = NotJudged(info);
    }
  } catch (...) {
    TakeBack(run);
    throw;
  }
  run.state = StateAfter(outcome);
  isStuck_ = outcome.isStuck;
  const bool isDone = run.state == SweepState::kDone;
  if (!isDone)
    run.reason = run.state == SweepState::kInterrupted ? "" : WithErrors(outcome.reason, outcome.folder);
  kind_.write();
  DropKeptSweep(folder_);
  if (text && HasSettings()) {
    Print(Printable(ResultText(run)) + "\n");
    for (const std::string& note : notJudged) Print("  " + Printable(note) + "\n");
  }
  if (text) Print((isDone ? "saved in " : "incomplete, saved in ") + Printable(outcome.folder) + "\n");
  return run.state != SweepState::kInterrupted && !isStuck_;
}

// False if it ended early.
bool SweepRecorder::RecordAll() {
  while (SweepRun* const run = Next()) {
    if (output_ == Output::kText) TellOfRun(*run);
    ++begun_;
    if (!Record(*run) || signals_.TakeStop()) return false;
  }
  return true;
}

bool SweepRecorder::Restore() {
  if (!HasSettings() || sweep_.restored) return true;
  BoardSettings first;
  for (const auto& [name, values] : sweep_.boardAxes) first.emplace_back(name, values.front());
  const std::string what = "the first values, " + PointText({}, first) + ", are not made: ";
  try {
    sweep_.restored = RunSwitch(ApplyCommand(sweep_.margin.apply, first), output_ == Output::kText, signals_,
                                sweep_.settings.hangAfterS, sweep_.settings.deathS);
    if (!sweep_.restored) Tell(what + "interrupted");
  } catch (const std::exception& error) {
    Tell(what + error.what());
  }
  if (!sweep_.restored) return false;
  try {
    kind_.write();
  } catch (const UserError& error) {
    Tell(error.what());
  }
  return true;
}

bool SweepRecorder::Run() {
  PrepareRuns();
  if (output_ == Output::kText) {
    const std::string name = kind_.command + (" " + Printable(folder_)) + ": ";
    const std::string all = Counted(sweep_.runs.size(), "run");
    Print(sweep_.margin.edge
              ? name + "looking for the edge of a grid of " + all + "\n"
              : name + std::to_string(toRecord_.size()) + " of " + all +
                    " to record, in random order of seed " + std::to_string(sweep_.settings.seed) + "\n");
  }
  bool wentOn = false;
  try {
    wentOn = RecordAll();
  } catch (...) {
    (void)Restore();
    throw;
  }
  const bool isRestored = Restore();
  // Goes if it is empty.
  (void)rmdir((folder_ + "/" + kAttemptsName).c_str());
  if (!wentOn) TellOfEarlyEnd(isStuck_, kind_.command, folder_);
  return isRestored && IsComplete(sweep_);
}

}  // namespace scope
