// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <random>

#include "cell_folder.h"
#include "cell_plan.h"
#include "cell_runner.h"
#include "commands.h"
#include "configuration.h"
#include "durable_file.h"
#include "errors.h"
#include "folder_lock.h"
#include "live_view.h"
#include "printable.h"
#include "record.h"
#include "run_tables.h"
#include "series.h"
#include "sweep_folder.h"
#include "sweep_plan.h"
#include "system_files.h"
#include "tell.h"
#include "text_format.h"

namespace scope {
namespace {

struct SweepOptions {
  std::string config;
  std::string folder;
  std::string resume;
  std::vector<std::string> levels;
  SweepSettings settings;
  Output output = Output::kText;
  TextStyle style;
};

Sweep Prepare(const SweepOptions& options, std::unique_ptr<FolderLock>& lock) {
  if (options.levels.empty()) throw UserError("nothing to sweep: give --levels, as in --levels CPU=0..4");
  Sweep sweep;
  sweep.settings = options.settings;
  MakeAbsolute(sweep.settings);
  sweep.configPath = options.config;
  sweep.axes = ParseAxes(options.levels);
  sweep.runs = PlanRuns(sweep.axes, sweep.settings.repeats, sweep.settings.seed);
  const std::string config = PointConfiguration(options.config, sweep.runs.front().levels);
  RequireAllRead(options.config);
  CheckRunLength(RunSeconds(options.config, sweep.settings), sweep.settings.warmupS);
  CheckRecord(sweep.settings);

  if (IsSweepFolder(options.folder)) {
    throw UserError(options.folder + " contains a sweep: continue it with --resume " + options.folder +
                    ", or choose another folder");
  }
  lock = MakeSeriesFolder(options.folder, config);
  sweep.started = UtcNow();
  WriteSweep(options.folder, sweep);
  return sweep;
}

// A sweep's folder may come from elsewhere: it must neither lead to other folders nor hide what it runs.
Sweep Resume(const std::string& folder, Output output, std::unique_ptr<FolderLock>& lock) {
  RequireNoLink(folder + "/" + kSweepName);
  RequireNoLink(folder + "/" + kSeriesConfig);
  RequireNoLink(folder + "/" + kAttemptsName);
  if (IsSweepFolder(folder)) lock = std::make_unique<FolderLock>(folder);
  Sweep sweep = ReadSweep(folder);
  for (const SweepRun& run : sweep.runs) RequireNoLink(folder + "/" + run.folder);
  if (output == Output::kText) {
    TellWhatRuns(folder + "/" + kSweepName, {{"program to run", sweep.settings.benchmark},
                                             {"library to load into it", sweep.settings.meter}});
  }
  return sweep;
}

std::size_t NumberOf(const SweepRun& run) {
  return static_cast<std::size_t>(run.order);
}

const PlanCell& CellOf(const Plan& plan, const SweepRun& run) {
  return plan.cells[NumberOf(run) - 1];
}

// The runs to record, in order. A run whose folder is missing or incomplete is recorded again. One that is
// done may be unknown to sweep.json, if the recorder was killed between the two.
std::vector<SweepRun*> RunsToRecord(const std::string& folder, const Plan& plan, Sweep& sweep) {
  std::vector<SweepRun*> toRecord;
  for (SweepRun& run : sweep.runs) {
    // Sweeps of earlier versions have no cell.json: then sweep.json alone tells the states of runs.
    const bool isDone = run.state == SweepState::kDone
                            ? IsRecorded(folder + "/" + run.folder)
                            : IsCellDone(folder, plan.id, CellOf(plan, run), NumberOf(run), false);
    if (isDone) {
      run.state = SweepState::kDone;
    } else {
      if (run.state == SweepState::kDone) run.state = SweepState::kPlanned;
      toRecord.push_back(&run);
    }
  }
  std::sort(toRecord.begin(), toRecord.end(),
            [](const SweepRun* a, const SweepRun* b) { return a->order < b->order; });
  return toRecord;
}

SweepState StateAfter(CellState state) {
  if (state == CellState::kDone) return SweepState::kDone;
  return state == CellState::kInterrupted ? SweepState::kInterrupted : SweepState::kFailed;
}

// False if a signal ended the run.
bool RecordOne(const std::string& folder, const Plan& plan, Sweep& sweep, SweepRun& run, Output output,
               Signals& signals) {
  const bool text = output == Output::kText;
  const auto view = text && OutputIsTerminal() ? MakeLiveView() : std::make_unique<View>();
  CellOptions options;
  options.root = folder;
  options.warns = false;  // RunsToRecord did
  // No summary per run: the sweep prints its figures at its end.
  const CellOutcome outcome = RunCell(plan, CellOf(plan, run), NumberOf(run), options, *view, signals);
  const bool isDone = outcome.state == CellState::kDone;
  if (text) Print((isDone ? "saved in " : "incomplete, saved in ") + Printable(outcome.folder) + "\n");
  run.state = StateAfter(outcome.state);
  run.reason = outcome.state == CellState::kFailed ? outcome.reason : "";
  WriteSweep(folder, sweep);
  return outcome.state != CellState::kInterrupted;
}

// True when all runs are done.
bool RecordAll(const std::string& folder, Sweep& sweep, Output output) {
  const std::string config = folder + "/" + kSeriesConfig;
  const Plan plan = PlanOfSweep(sweep, ReadFile(config).value_or(""));
  const std::vector<SweepRun*> toRecord = RunsToRecord(folder, plan, sweep);
  const double runS = toRecord.empty() ? 0 : RunSeconds(config, sweep.settings) + kBetweenRunsS;
  const bool text = output == Output::kText;
  if (text) {
    Print("sweep " + Printable(folder) + ": " + std::to_string(toRecord.size()) + " of " +
          Counted(sweep.runs.size(), "run") + " to record, in random order of seed " +
          std::to_string(sweep.settings.seed) + "\n");
  }
  // Lives across all runs: a signal between two runs must not leave sweep.json out of date.
  Signals signals;
  bool interrupted = false;
  for (std::size_t i = 0; i < toRecord.size() && !interrupted; ++i) {
    SweepRun& run = *toRecord[i];
    const double leftS = runS * static_cast<double>(toRecord.size() - i);
    if (text) {
      Print("run " + std::to_string(run.order) + " of " + std::to_string(sweep.runs.size()) + ": " +
            PointText(run.levels) + ", repeat " + std::to_string(run.repeat) +
            Format(leftS < 90 ? "; %.0f s left\n" : "; %.0f min left\n", leftS < 90 ? leftS : leftS / 60));
    }
    interrupted = !RecordOne(folder, plan, sweep, run, output, signals) || signals.TakeStop();
  }
  // Goes if it is empty.
  (void)rmdir((folder + "/" + kAttemptsName).c_str());
  if (interrupted) {
    Tell("interrupted; the finished runs are kept. Continue with: stress_scope sweep --resume " + folder);
  }
  return std::all_of(sweep.runs.begin(), sweep.runs.end(),
                     [](const SweepRun& run) { return run.state == SweepState::kDone; });
}

int RunSweep(const SweepOptions& options) {
  const bool resumed = !options.resume.empty();
  const std::string folder = resumed ? options.resume : options.folder;
  std::unique_ptr<FolderLock> lock;
  Sweep sweep = resumed ? Resume(folder, options.output, lock) : Prepare(options, lock);
  const bool done = RecordAll(folder, sweep, options.output);
  ShowSweep(folder, options.output, options.style, {folder + "/" + kReportName});
  return done ? kExitOk : kExitFailure;
}

}  // namespace

CLI::Option* AddGrid(CLI::App& command, std::vector<std::string>& levels, SweepSettings& settings,
                     const std::string& point, CLI::Option* excluded) {
  const auto add = [&](const char* name, auto& value, const char* type, const std::string& help) {
    CLI::Option* const option = command.add_option(name, value, help)->type_name(type);
    if (excluded != nullptr) option->excludes(excluded);
    return option;
  };
  add("--levels", levels, "SECTION=LEVELS",
      "Section and its levels, as in CPU=0,1,2..4; once for each section")
      ->allow_extra_args(false);
  add("--repeat", settings.repeats, "N", "Runs of each " + point)
      ->check(WholeNumberFrom(1, 1000))
      ->capture_default_str();
  add("--warmup", settings.warmupS, "SECONDS", "Time at the start of each run that figures leave out")
      ->check(NumberFrom(0, kMostSeconds))
      ->capture_default_str();
  return add("--seed", settings.seed, "N", "Seed of the random order (default: a new one each time)")
      ->check(WholeNumberFrom(0, std::numeric_limits<std::uint64_t>::max()));
}

void AddSweep(CLI::App& app, int& status) {
  CLI::App* const command =
      app.add_subcommand("sweep", "Record a grid of levels, and show where the bandwidth saturates");
  const auto options = std::make_shared<SweepOptions>();
  SweepSettings& settings = options->settings;
  CLI::Option* const config =
      command->add_option("CONFIG", options->config, "Configuration file of the benchmark");
  CLI::Option* const resume =
      command
          ->add_option("--resume", options->resume,
                       "Continue the sweep in this folder; if all its runs are done, show it")
          ->type_name("DIR");
  config->excludes(resume);
  CLI::Option* const seed = AddGrid(*command, options->levels, settings, "point", resume);
  command->add_option("-o,--output", options->folder, "Sweep folder to make (default: sweep-TIME)")
      ->type_name("DIR")
      ->excludes(resume);
  AddRunSettings(*command, settings, resume);
  AddOutput(*command, options->output);
  AddColour(*command, options->style);
  command->footer(
      "Examples:\n"
      "  stress_scope sweep config/all.yaml --levels CPU=0..4 --levels VENC=0,1,2 -o grid\n"
      "  stress_scope sweep --resume grid");
  command->callback([options, seed, &status] {
    if (options->resume.empty() && options->config.empty()) throw CLI::RequiredError("CONFIG or --resume");
    if (options->folder.empty()) options->folder = TimedFolder("sweep-");
    if (seed->count() == 0) options->settings.seed = std::random_device()();
    status = RunSweep(*options);
  });
}

}  // namespace scope
