// SPDX-License-Identifier: Apache-2.0
#include "cell_runner.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iostream>
#include <optional>

#include "cell_plan.h"
#include "collection.h"
#include "compare_figures.h"
#include "configuration.h"
#include "durable_file.h"
#include "errors.h"
#include "figures.h"
#include "printable.h"
#include "record.h"
#include "run_error.h"
#include "run_reader.h"
#include "run_summary.h"
#include "series.h"
#include "setting_switch.h"
#include "tell.h"

namespace scope {
namespace {

std::string NumberedCell(std::size_t number) {
  return "cell " + std::to_string(number);
}

// Writes the cell's configuration to `path`.
void WriteConfiguration(const Plan& plan, const PlanCell& cell, const std::string& model,
                        const std::string& path) {
  try {
    ReplaceFile(path, plan.configText);
    ReplaceFile(path, PointConfiguration(path, cell.levels, model));
    // A sweep's model was there when the sweep began.
    if (plan.id.empty()) return;
    for (const NamedModel& named : ModelsOf(path)) {
      if (named.level == 0 || access(named.file.c_str(), R_OK) == 0) continue;
      throw UserError("cannot read the model of " + named.section + ", " + named.file + ": " +
                      std::strerror(errno) + ". Copy it there, or give its path here with --model");
    }
  } catch (const DamagedFolder&) {
    throw;
  } catch (const UserError& error) {
    throw UserError(std::string("the configuration of the plan cannot be used here: ") + error.what());
  }
}

// Fills in `end` if the settings are not made.
void Apply(const PlanCell& cell, const CellOptions& options, const RunSettings& settings, Signals& signals,
           RecordResult& end) {
  if (cell.settings.empty()) return;
  try {
    end.stopped = !RunSwitch(ApplyCommand(options.apply, cell.settings), options.showsApply, signals,
                             settings.hangAfterS, settings.deathS);
    if (end.stopped) end.reason = "interrupted while the settings were made";
  } catch (const CommandMissing&) {
    // It says nothing about the setting.
    throw;
  } catch (const std::exception& error) {
    end.reason = std::string("cannot make the settings of the board: ") + error.what();
    end.hung = dynamic_cast<const CommandHangs*>(&error) != nullptr;
    end.stuck = dynamic_cast<const CommandStuck*>(&error) != nullptr;
    // Not the command's fault: for example, the system starts no more processes.
    end.recorderFailed = dynamic_cast<const UserError*>(&error) == nullptr;
  }
}

// Adds what is known from the files of the attempt.
void AddFromRun(const std::string& attempt, double warmupS, CellRecord& record) {
  if (!IsRunFolder(attempt)) return;
  // The recorder may have ended, or its disk been full, before run.json had them.
  record.errors = KnownErrors(attempt);
  try {
    const RunInfo info = ReadRunInfo(attempt);
    record.machine = info.conditions.hostnameHash;
    record.looksForErrors = LooksForErrors(info);
    if (record.state != CellState::kDone) return;
    for (const auto& [key, seconds] : FiguresOf(Summarise(ReadRun(attempt)), warmupS)) {
      record.figures.push_back({key.engine, KindOf(key.figure).name, ValueOf(key.figure, seconds)});
    }
  } catch (const UserError& error) {
    if (record.state != CellState::kDone) return;  // it has its reason
    record.state = CellState::kFailed;
    record.reason = error.what();
    record.isRecorderFault = true;
  }
}

RecordOptions RecordingOf(const Plan& plan, const PlanCell& cell, const std::string& attempt,
                          const std::string& final) {
  RecordOptions options;
  static_cast<RunSettings&>(options) = plan.settings;
  options.dutyPercent = std::min(options.dutyPercent, cell.dutyPercent);
  options.folder = attempt;
  options.config = attempt + "/" + kSeriesConfig;
  options.savedConfig = final + "/" + kSeriesConfig;
  options.force = true;  // it holds this run's configuration
  options.label = CellLabel(cell);
  return options;
}

// Returns true if what ran does not end.
bool RecordInto(const std::string& attempt, const Plan& plan, const CellOptions& options, View& view,
                Signals& signals, const std::string& final, CellRecord& record) {
  RecordResult end;
  Apply(record.cell, options, plan.settings, signals, end);
  if (end.reason.empty()) {
    try {
      end = Record(RecordingOf(plan, record.cell, attempt, final), view, signals);
      if (end.stopped && !end.stuck) end.reason = "interrupted by a signal";
      if (end.complete && !end.stopped) record.state = CellState::kDone;
    } catch (const Interrupted& error) {
      end.reason = error.what();
      end.stopped = true;
    } catch (const std::exception& error) {
      // For example a benchmark that is made for another processor.
      end.reason = error.what();
      end.recorderFailed = true;
    }
  }
  record.reason = end.reason;
  record.isHung = end.hung;
  // Errors are the board's, whatever came after them.
  record.isRecorderFault = end.recorderFailed && end.errors == 0;
  if (end.stopped) record.state = CellState::kInterrupted;
  record.ended = UtcNow();
  AddFromRun(attempt, plan.settings.warmupS, record);
  return end.stuck;
}

}  // namespace

std::string ApplyCommand(const std::string& command, const BoardSettings& settings) {
  std::string text = command;
  // Names and values have no character that a shell would not pass on as it is.
  for (const auto& [name, value] : settings) text.append(" ").append(name).append("=").append(value);
  return text;
}

SweepState StateAfter(const CellOutcome& outcome) {
  if (outcome.state == CellState::kDone) return SweepState::kDone;
  if (outcome.state == CellState::kInterrupted) return SweepState::kInterrupted;
  return outcome.isHung ? SweepState::kHung : SweepState::kFailed;
}

std::string ErrorsFoundIn(const std::string& runFolder) {
  const FoundErrors found = ReadFoundErrors(runFolder);
  for (const std::string& text : found.unreadable) Tell(text);
  return CountsText(found.counts);
}

std::string WithErrors(const std::string& reason, const std::string& folder) {
  const std::string errors = ErrorsFoundIn(folder);
  return errors.empty() ? reason : errors + "; " + reason;
}

bool HasErrors(const std::string& root, const std::string& cellFolder, SweepState state) {
  if (state == SweepState::kDone) return !ErrorsFoundIn(root + "/" + cellFolder).empty();
  const int attempt = LastAttempt(root, cellFolder);
  return attempt != 0 && !ErrorsFoundIn(root + "/" + AttemptFolder(cellFolder, attempt)).empty();
}

void RequireThisBoard(const PlanCell& cell, std::size_t number, const CellOptions& options) {
  if (!cell.board.empty() && cell.board != options.board) {
    throw UserError(NumberedCell(number) + " is for the board " + cell.board +
                    (options.board.empty() ? ": say --board " + cell.board + " if this is it"
                                           : ", and this is " + options.board));
  }
  if (cell.settings.empty() || !options.apply.empty()) return;
  throw UserError(NumberedCell(number) + " has settings of the board (" + CellLabel(cell) +
                  "): give the command that makes them with --apply");
}

CellFolders LockCell(const PlanCell& cell, const CellOptions& options, Signals& signals) {
  constexpr int kBetweenTriesMs = 200;
  using Clock = std::chrono::steady_clock;
  const Clock::time_point end =
      Clock::now() + std::chrono::milliseconds(static_cast<std::int64_t>(options.waitS * 1000));
  while (true) {
    try {
      return {options.root, cell.folder};
    } catch (const FolderInUse&) {
      if (Clock::now() >= end) throw;
    }
    pollfd wait = {signals.Descriptor(), POLLIN, 0};
    (void)poll(&wait, 1, kBetweenTriesMs);
    if (signals.TakeStop()) throw UserError("interrupted while another stress_scope had the cell");
  }
}

bool IsCellDone(const std::string& root, const std::string& plan, const PlanCell& cell, std::size_t number,
                bool warns) {
  const CellStatus status = StatusOf(root, plan, cell, number);
  const std::string folder = root + "/" + status.folder;
  std::string damage = status.state == CellState::kDamaged ? folder + ": " + status.reason : "";
  try {
    if (status.state == CellState::kDone && ReadRunInfo(folder).complete) return true;
  } catch (const DamagedFolder& error) {
    damage = error.what();
  }
  if (warns && !damage.empty())
    std::cerr << "stress_scope: " << Printable(damage) << "; the run is recorded again" << std::endl;
  return false;
}

std::optional<CellOutcome> DoneBefore(CellFolders& folders, const Plan& plan, const PlanCell& cell,
                                      std::size_t number, const CellOptions& options) {
  const CellOutcome before = {CellState::kDone, "", folders.Final(), false};
  if (IsCellDone(options.root, plan.id, cell, number, options.warns)) {
    folders.RemoveAttemptsIfEmpty();
    return before;
  }
  const std::optional<std::string> done = folders.Done(plan.id, number);
  if (!done) return std::nullopt;
  (void)folders.Publish(*done, plan.id, number);
  return before;
}

CellOutcome RunCell(const Plan& plan, const PlanCell& cell, std::size_t number, const CellOptions& options,
                    View& view, Signals& signals) {
  RequireThisBoard(cell, number, options);
  CellFolders folders = LockCell(cell, options, signals);
  if (!options.planPath.empty()) folders.PutPlan(options.planPath, plan.id);
  // Not before the lock: another runner may have finished it a moment ago.
  if (const auto before = DoneBefore(folders, plan, cell, number, options)) return *before;
  const std::string attempt = folders.NewAttempt();
  try {
    CheckRecord(plan.settings);
    WriteConfiguration(plan, cell, options.model, attempt + "/" + kSeriesConfig);
  } catch (...) {
    folders.Discard(attempt);
    throw;
  }
  CellRecord record;
  record.plan = plan.id;
  record.number = number;
  record.cell = cell;
  record.board = options.board;
  record.started = UtcNow();
  bool isStuck = false;
  try {
    isStuck = RecordInto(attempt, plan, options, view, signals, folders.Final(), record);
  } catch (const CommandMissing&) {
    folders.Discard(attempt);
    throw;
  }
  folders.Finish(attempt, record);
  if (record.state != CellState::kDone)
    return {record.state, record.reason,          attempt, true, record.isHung,
            false,        record.isRecorderFault, isStuck};
  const bool isNew = folders.Publish(attempt, plan.id, number);
  return {CellState::kDone, "", folders.Final(), isNew};
}

}  // namespace scope
