// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <random>
#include <sstream>

#include "cell_folder.h"
#include "cell_plan.h"
#include "commands.h"
#include "configuration.h"
#include "durable_file.h"
#include "errors.h"
#include "folder_lock.h"
#include "margin_map.h"
#include "record.h"
#include "run_tables.h"
#include "series.h"
#include "sweep_folder.h"
#include "sweep_plan.h"
#include "sweep_recorder.h"
#include "sweep_runs.h"

namespace scope {
namespace {

struct SweepOptions {
  std::string config;
  std::string folder;
  std::string resume;
  std::vector<std::string> levels;
  std::vector<std::string> boardSettings;
  std::string at;
  MarginSettings margin;
  SweepSettings settings;
  Output output = Output::kText;
  TextStyle style;
};

void RequireAxes(const SweepOptions& options) {
  if (options.levels.empty() && options.boardSettings.empty()) {
    throw UserError(
        "nothing to sweep: give --levels, as in --levels CPU=0..4, or --setting, as in --setting "
        "refresh=3900,7800");
  }
  if (options.boardSettings.empty()) {
    if (options.margin.apply.empty() && options.at.empty() && !options.margin.edge &&
        options.margin.tries == 0)
      return;
    throw UserError(
        "--apply, --at, --edge and --tries are for settings of the board: give --setting as well");
  }
  if (options.margin.apply.empty())
    throw UserError("--setting needs --apply, the command that makes the settings");
  if (options.margin.edge && !options.levels.empty())
    throw UserError("--edge looks for the edge of settings: give the levels in CONFIG, not with --levels");
}

// The point that `text` names, as in "refresh=7800,vref=50". Settings that it leaves out have their first
// value.
BoardSettings ParseChosen(const std::string& text, const std::vector<SettingAxis>& axes) {
  BoardSettings chosen;
  for (const auto& [name, values] : axes) chosen.emplace_back(name, values.front());
  std::istringstream parts(text);
  for (std::string part; std::getline(parts, part, ',');) {
    const std::string name = part.substr(0, part.find('='));
    const std::string value = part.size() > name.size() ? part.substr(name.size() + 1) : "";
    const auto axis =
        std::find_if(axes.begin(), axes.end(), [&name](const SettingAxis& one) { return one.first == name; });
    if (axis == axes.end()) throw UserError("--at " + text + ": --setting does not give \"" + name + "\"");
    if (std::find(axis->second.begin(), axis->second.end(), value) == axis->second.end())
      throw UserError("--at " + text + ": expected one of the values of " + name + ", found \"" + value +
                      "\"");
    chosen[static_cast<std::size_t>(axis - axes.begin())].second = value;
  }
  return chosen;
}

Sweep Prepare(const SweepOptions& options, std::unique_ptr<FolderLock>& lock) {
  RequireAxes(options);
  Sweep sweep;
  sweep.settings = options.settings;
  MakeAbsolute(sweep.settings);
  sweep.configPath = options.config;
  sweep.axes = ParseAxes(options.levels);
  sweep.boardAxes = ParseSettings(options.boardSettings);
  sweep.margin = options.margin;
  sweep.margin.chosen = ParseChosen(options.at, sweep.boardAxes);
  sweep.runs = PlanRuns(sweep.axes, sweep.settings.repeats, sweep.settings.seed, sweep.boardAxes);
  const std::string config = PointConfiguration(options.config, sweep.runs.front().levels);
  RequireAllRead(options.config);
  CheckRunLength(RunSeconds(options.config, sweep.settings), sweep.settings.warmupS);
  RequireChecks(sweep.settings);
  CheckRecord(sweep.settings);

  if (IsSweepFolder(options.folder)) {
    throw UserError(options.folder + " contains a sweep: continue it with --resume " + options.folder +
                    ", or choose another folder");
  }
  lock = MakeSeriesFolder(options.folder, config);
  sweep.started = UtcNow();
  WriteSweep(options.folder, sweep);
  SyncFolder(std::filesystem::path(AbsolutePath(options.folder)).parent_path().string());
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
  TellWhatRuns(folder + "/" + kSweepName,
               {{"command that makes the settings", sweep.margin.apply},
                {"program to run", sweep.settings.benchmark},
                {"library to load into it", sweep.settings.meter}},
               output);
  return sweep;
}

// Sets `status` before it shows the sweep: a page that cannot be written hides no errors of the runs.
void RunSweep(const SweepOptions& options, int& status) {
  const bool resumed = !options.resume.empty();
  const std::string folder = resumed ? options.resume : options.folder;
  std::unique_ptr<FolderLock> lock;
  Sweep sweep = resumed ? Resume(folder, options.output, lock) : Prepare(options, lock);
  const bool done =
      SweepRecorder(folder, sweep, options.output, {"sweep", [&] { WriteSweep(folder, sweep); }}).Run();
  const bool hasErrors = sweep.boardAxes.empty() ? HasErrors(folder, sweep) : ChosenFails(sweep);
  status = hasErrors ? kExitErrors : done ? kExitOk : kExitFailure;
  ShowSweep(folder, options.output, options.style, {folder + "/" + kReportName});
}

void AddMargin(CLI::App& command, SweepOptions& options, CLI::Option* resume) {
  const auto add = [&command, resume](const char* name, auto& value, const char* type, const char* help) {
    return command.add_option(name, value, help)->type_name(type)->excludes(resume);
  };
  add("--setting", options.boardSettings, "NAME=VALUES",
      "Setting of the board and its values, as in refresh=3900,7800; once for each setting")
      ->allow_extra_args(false);
  add("--apply", options.margin.apply, "COMMAND",
      "Shell command that makes the settings; it gets NAME=VALUE for each of them");
  add("--at", options.at, "POINT",
      "Point whose margin is asked for, as in refresh=7800,vref=50 (default: the first values)");
  CLI::Option* const edge =
      command.add_flag("--edge", options.margin.edge,
                       "Look for the edge of the settings that pass, instead of recording the whole grid");
  edge->excludes(resume);
  add("--hang-after", options.settings.hangAfterS, "SECONDS",
      "Stop a run without a rate line or an operation for so long; it hangs (default: only after its time)")
      ->check(NumberFrom(1, kMostSeconds));
  add("--tries", options.margin.tries, "N",
      "How often a run in which the machine died is begun again, with --resume")
      ->transform(WholeNumberFrom(0, 1000))
      ->capture_default_str();
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
      ->transform(WholeNumberFrom(1, 1000))
      ->capture_default_str();
  add("--warmup", settings.warmupS, "SECONDS", "Time at the start of each run that figures leave out")
      ->check(NumberFrom(0, kMostSeconds))
      ->capture_default_str();
  return add("--seed", settings.seed, "N", "Seed of the random order (default: a new one each time)")
      ->transform(WholeNumberFrom(0, std::numeric_limits<std::uint64_t>::max()));
}

void AddSweep(CLI::App& app, int& status) {
  CLI::App* const command = app.add_subcommand(
      "sweep", "Record a grid of levels, or of settings of the board and show their margin");
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
  AddMargin(*command, *options, resume);
  AddRunSettings(*command, settings, resume);
  AddChecks(*command, settings, resume);
  AddOutput(*command, options->output);
  AddColour(*command, options->style);
  command->footer(
      "Examples:\n"
      "  stress_scope sweep config/all.yaml --levels CPU=0..4 --levels VENC=0,1,2 -o grid\n"
      "  stress_scope sweep config/all.yaml --setting refresh=3900,7800 --apply ./set-refresh "
      "--verify\n"
      "  stress_scope sweep --resume grid");
  command->callback([options, seed, &status] {
    if (options->resume.empty() && options->config.empty()) throw CLI::RequiredError("CONFIG or --resume");
    if (options->folder.empty()) options->folder = TimedFolder("sweep-");
    if (seed->count() == 0) options->settings.seed = std::random_device()();
    RunSweep(*options, status);
  });
}

}  // namespace scope
