// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include "commands.h"
#include "compare.h"
#include "comparison_text.h"
#include "configuration.h"
#include "durable_file.h"
#include "errors.h"
#include "experiment_folder.h"
#include "experiment_look.h"
#include "experiment_plan.h"
#include "folder_lock.h"
#include "live_view.h"
#include "printable.h"
#include "record.h"
#include "run_tables.h"
#include "series.h"
#include "setting_switch.h"
#include "standard_output.h"
#include "text_format.h"

namespace scope {
namespace {

struct AbOptions {
  std::string config;
  std::string folder;
  std::string resume;
  ExperimentSettings settings;
  Output output = Output::kText;
  TextStyle style;
  bool allowUnclear = false;
};

const char* NameOf(bool isB) {
  return isB ? "B" : "A";
}

RecordOptions RecordingOf(const Experiment& experiment, const std::string& folder,
                          const std::string& runFolder) {
  RecordOptions options;
  static_cast<RunSettings&>(options) = experiment.settings;
  options.folder = runFolder;
  options.config = folder + "/" + kSeriesConfig;
  options.force = true;  // the folder belongs to the experiment
  return options;
}

Experiment PrepareExperiment(const AbOptions& options, std::unique_ptr<FolderLock>& lock) {
  Experiment experiment;
  experiment.settings = options.settings;
  ExperimentSettings& settings = experiment.settings;
  if (settings.commandA.empty() != settings.commandB.empty()) {
    throw UserError("say both --a and --b, the commands that make the settings, or none of them");
  }
  if (settings.commandA.empty() && isatty(STDIN_FILENO) == 0) {
    throw UserError(
        "there is no terminal to ask for the settings: say --a and --b, the commands that make them");
  }
  MakeAbsolute(settings);
  experiment.configPath = options.config;
  experiment.runs = PlanExperiment(settings);
  const std::string config = PointConfiguration(options.config, {});
  RequireAllRead(options.config);
  CheckRunLength(RunSeconds(options.config, settings), settings.warmupS);
  CheckRecord(RecordingOf(experiment, options.folder, options.folder));
  if (IsExperimentFolder(options.folder)) {
    throw UserError(options.folder + " has an experiment: continue it with --resume " + options.folder +
                    ", or choose another folder");
  }
  lock = MakeSeriesFolder(options.folder, config);
  experiment.started = UtcNow();
  WriteExperiment(options.folder, experiment);
  return experiment;
}

// An experiment's folder may come from elsewhere: it must neither lead to other folders nor hide what it
// runs.
Experiment ResumeExperiment(const std::string& folder, Output output, std::unique_ptr<FolderLock>& lock) {
  for (const std::string name : {kExperimentName, kSeriesConfig, "a", "b"})
    RequireNoLink(folder + "/" + name);
  if (IsExperimentFolder(folder)) lock = std::make_unique<FolderLock>(folder);
  Experiment experiment = ReadExperiment(folder);
  for (const ExperimentRun& run : experiment.runs) RequireNoLink(folder + "/" + run.folder);
  const ExperimentSettings& settings = experiment.settings;
  TellWhatRuns(folder + "/" + kExperimentName,
               {{"command of A", settings.commandA},
                {"command of B", settings.commandB},
                {"program to run", settings.benchmark},
                {"library to load into it", settings.meter}},
               output);
  return experiment;
}

/// Records an experiment until its answer is clear.
class Runner {
 public:
  Runner(std::string folder, Experiment& experiment, Output output)
      : folder_(std::move(folder)),
        experiment_(experiment),
        text_(output == Output::kText),
        showsSwitches_(output != Output::kQuiet) {}

  /// The look with which the experiment ends; none if a signal ended it. Throws UserError if it cannot go on.
  std::optional<ComparedSides> Run() {
    for (std::size_t i = 0; i < experiment_.runs.size(); ++i) {
      ExperimentRun& run = experiment_.runs[i];
      if (!IsDone(run) && (!Switch(run.isB) || !Record(run, i))) return std::nullopt;
      // What fails in B alone is an answer. What fails in A is not.
      if (run.state == SweepState::kFailed && !run.isB) {
        throw UserError(run.folder + " of " + folder_ + " is not complete: " + run.reason);
      }
      const std::size_t count = i + 1;
      if (!IsLook(experiment_, count)) continue;
      ComparedSides sides = LookAt(folder_, experiment_, count);
      if (IsLastLook(experiment_, count, sides.comparison.answer)) return sides;
      if (text_) Print("after " + Counted(count / 2, "run") + " of each: not clear yet\n");
    }
    return LookAt(folder_, experiment_, experiment_.runs.size());
  }

 private:
  bool IsDone(ExperimentRun& run) const {
    if (run.state == SweepState::kDone && IsRecorded(folder_ + "/" + run.folder)) return true;
    run.state = SweepState::kPlanned;
    return false;
  }

  bool Switch(bool isB) {
    if (setting_ == isB) return true;
    const ExperimentSettings& settings = experiment_.settings;
    const bool isSwitched = settings.commandA.empty() ? AskForSwitch(NameOf(isB), signals_)
                                                      : RunSwitch(isB ? settings.commandB : settings.commandA,
                                                                  showsSwitches_, signals_);
    if (isSwitched) setting_ = isB;
    return isSwitched;
  }

  // False if a signal ended the run.
  bool Record(ExperimentRun& run, std::size_t index) {
    if (text_) {
      Print("run " + std::to_string(index + 1) + " of at most " + std::to_string(experiment_.runs.size()) +
            ": " + NameOf(run.isB) + "\n");
    }
    RecordOptions options = RecordingOf(experiment_, folder_, folder_ + "/" + run.folder);
    options.label = NameOf(run.isB);
    MakeFolder(options.folder);
    const auto view = text_ && OutputIsTerminal() ? MakeLiveView() : std::make_unique<View>();
    const RecordResult result = scope::Record(options, *view, signals_);
    if (text_)
      Print((result.complete ? "saved in " : "incomplete, saved in ") + Printable(options.folder) + "\n");
    const bool isStopped = result.stopped || signals_.TakeStop();
    run.reason = result.reason;
    run.state = result.stopped    ? SweepState::kInterrupted
                : result.complete ? SweepState::kDone
                                  : SweepState::kFailed;
    WriteExperiment(folder_, experiment_);
    // It would disturb all that follows, and the runs of B that it failed in are no answer.
    if (result.stuck) throw UserError(run.folder + " of " + folder_ + ": " + result.reason);
    return !isStopped;
  }

  std::string folder_;
  Experiment& experiment_;
  bool text_;
  bool showsSwitches_;
  std::optional<bool> setting_;  // the one that is made; none if that is unknown
  // Lives across all runs: a signal between two runs must not leave experiment.json out of date.
  Signals signals_;
};

int RunAb(const AbOptions& options) {
  const bool isResumed = !options.resume.empty();
  const std::string folder = isResumed ? options.resume : options.folder;
  std::unique_ptr<FolderLock> lock;
  Experiment experiment =
      isResumed ? ResumeExperiment(folder, options.output, lock) : PrepareExperiment(options, lock);
  const bool text = options.output == Output::kText;
  if (text) {
    Print("experiment " + Printable(folder) + ": at most " + Counted(experiment.runs.size(), "run") +
          ", in random order of seed " + std::to_string(experiment.settings.seed) + "\n");
  }
  Runner runner(folder, experiment, options.output);
  std::optional<ComparedSides> sides;
  try {
    sides = runner.Run();
  } catch (const std::exception& error) {
    throw UserError(std::string(error.what()) + "\nContinue with: stress_scope ab --resume " + folder);
  }
  if (!sides) {
    throw UserError("interrupted; what was recorded is kept. Continue with: stress_scope ab --resume " +
                    folder);
  }
  if (text) Print("\n");
  ShowComparison(*sides, options.output, options.style, {folder + "/" + kReportName});
  RequireStandardOutput();
  const Answer answer = sides->comparison.answer;
  if (answer == Answer::kCannotTell && options.allowUnclear) return kExitOk;
  return ExitStatusOf(answer);
}

}  // namespace

void AddAb(CLI::App& app, int& status) {
  CLI::App* const command = app.add_subcommand(
      "ab", "Switch between two settings, record each until it is clear whether B is better or worse than A");
  const auto options = std::make_shared<AbOptions>();
  ExperimentSettings& settings = options->settings;
  CLI::Option* const config =
      command->add_option("CONFIG", options->config, "Configuration file of the benchmark");
  CLI::Option* const resume =
      command->add_option("--resume", options->resume, "Continue the experiment in this folder")
          ->type_name("DIR");
  const auto add = [command, resume](const char* name, auto& value, const char* type, const char* help) {
    return command->add_option(name, value, help)->type_name(type)->excludes(resume);
  };
  config->excludes(resume);
  add("--a", settings.commandA, "COMMAND",
      "Shell command that makes setting A (default: ask on the terminal)");
  add("--b", settings.commandB, "COMMAND", "Shell command that makes setting B");
  add("--max-runs", settings.mostRuns, "N", "Most runs to record, of both sides together")
      ->transform(WholeNumberFrom(static_cast<std::uint64_t>(kAllowedMaxRuns.least),
                                  static_cast<std::uint64_t>(kAllowedMaxRuns.most)))
      ->capture_default_str();
  add("--tolerance", settings.tolerancePercent, "PERCENT", "Difference up to which figures count as equal")
      ->check(NumberFrom(kAllowedTolerancePercent.least, kAllowedTolerancePercent.most))
      ->capture_default_str();
  add("--confidence", settings.confidence, "SHARE", "Confidence that no verdict is wrong, 0.5 to 0.999")
      ->check(NumberFrom(kAllowedConfidence.least, kAllowedConfidence.most))
      ->capture_default_str();
  add("--warmup", settings.warmupS, "SECONDS", "Time at the start of each run that figures leave out")
      ->check(NumberFrom(kAllowedWarmupS.least, kAllowedWarmupS.most))
      ->capture_default_str();
  CLI::Option* const seed =
      add("--seed", settings.seed, "N", "Seed of the random order (default: a new one each time)")
          ->transform(WholeNumberFrom(0, std::numeric_limits<std::uint64_t>::max()));
  add("-o,--output", options->folder, "DIR", "Folder to make (default: ab-TIME)");
  AddRunSettings(*command, settings, resume);
  command->add_flag("--allow-unclear", options->allowUnclear,
                    "End with status 0 instead of 4 if the runs cannot tell");
  AddOutput(*command, options->output);
  AddColour(*command, options->style);
  command->footer(
      "Example:\n"
      "  stress_scope ab config/all.yaml --a ./old-timing.sh --b ./new-timing.sh -o timing");
  command->callback([options, seed, &status] {
    if (options->resume.empty() && options->config.empty()) throw CLI::RequiredError("CONFIG or --resume");
    if (options->folder.empty()) options->folder = TimedFolder("ab-");
    if (seed->count() == 0) options->settings.seed = std::random_device()();
    try {
      status = RunAb(*options);
    } catch (const UserError&) {
      throw;
    } catch (const std::exception& error) {
      // An experiment that fails, for example for lack of memory, is not a regression.
      throw UserError(std::string("cannot finish the experiment: ") + error.what());
    }
  });
}

}  // namespace scope
