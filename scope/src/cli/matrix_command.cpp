// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "cell_folder.h"
#include "cell_runner.h"
#include "commands.h"
#include "configuration.h"
#include "control.h"
#include "durable_file.h"
#include "engines.h"
#include "errors.h"
#include "folder_lock.h"
#include "matrix_folder.h"
#include "matrix_plan.h"
#include "matrix_recorder.h"
#include "matrix_text.h"
#include "record.h"
#include "run_tables.h"
#include "series.h"
#include "sweep_plan.h"

namespace scope {
namespace {

struct MatrixOptions {
  std::string config;
  std::string folder;
  std::string resume;
  std::vector<std::string> levels;
  std::vector<std::string> victims;
  std::string worst;
  bool sharesCpus = false;
  SweepSettings settings;
  Output output = Output::kText;
  TextStyle style;
};

// Of the engines that the configuration loads: nothing, and as much as there.
std::vector<SweepAxis> AxesOfConfiguration(const std::string& config) {
  std::vector<SweepAxis> axes;
  unsigned int runTimeS = 0;
  for (const auto& [engine, level] : ReadConfiguration(config, runTimeS).levels) {
    const EngineInfo* const info = FindEngine(&EngineInfo::id, engine);
    if (info != nullptr && level > 0) axes.push_back({info->section, {0, std::min(level, kMostLevel)}});
  }
  return axes;
}

std::vector<MatrixVictim> VictimsOf(const MatrixOptions& options, const std::vector<SweepAxis>& axes) {
  std::vector<std::string> texts = options.victims;
  if (!options.worst.empty()) texts = {options.worst};
  if (texts.empty()) {
    std::vector<std::string> loaded;
    for (const SweepAxis& axis : AxesOfConfiguration(options.config)) loaded.push_back(axis.section);
    texts = UsualVictims(axes, loaded);
  }
  return ParseVictims(texts);
}

// The last of the allowed CPUs, if some are left for the others: interrupts and other programs are more often
// on the first one.
std::vector<int> ChooseOwnCpus(const std::vector<MatrixVictim>& victims) {
  std::size_t wanted = 1;
  for (const MatrixVictim& victim : victims)
    wanted = std::max(wanted, static_cast<std::size_t>(victim.level));
  const std::vector<int> allowed = AllowedCpus();
  if (allowed.size() <= wanted) return {};
  return {allowed.end() - static_cast<std::ptrdiff_t>(wanted), allowed.end()};
}

void PrepareLatency(Matrix& matrix) {
  const auto isLatency = [](const MatrixVictim& victim) { return victim.section == kLatencyVictim; };
  if (std::any_of(matrix.victims.begin(), matrix.victims.end(), isLatency)) {
    FixLatencySize(matrix.settings);
  } else if (!matrix.settings.latencySize.empty()) {
    throw UserError("--latency-size needs the victim latency");
  }
}

Matrix PrepareMatrix(const MatrixOptions& options, std::unique_ptr<FolderLock>& lock) {
  Matrix matrix;
  matrix.settings = options.settings;
  MakeAbsolute(matrix.settings);
  matrix.configPath = options.config;
  matrix.axes = options.levels.empty() ? AxesOfConfiguration(options.config) : ParseAxes(options.levels);
  matrix.victims = VictimsOf(options, matrix.axes);
  matrix.worst = !options.worst.empty();
  if (!options.sharesCpus) matrix.ownCpus = ChooseOwnCpus(matrix.victims);
  if (matrix.worst) {
    RequireSearch(matrix);
  } else {
    matrix.runs = PlanMatrix(matrix);
  }
  // Each section that a run loads must be one that the configuration can have.
  SweepLevels most;
  for (const SweepAxis& axis : matrix.axes) most.emplace_back(axis.section, axis.levels.back());
  for (const MatrixVictim& victim : matrix.victims) {
    if (victim.section != kLatencyVictim) most.emplace_back(victim.section, victim.level);
  }
  const std::string config = PointConfiguration(options.config, most);
  RequireAllRead(options.config);
  CheckRunLength(RunSeconds(options.config, matrix.settings), matrix.settings.warmupS);
  CheckRecord(matrix.settings);
  PrepareLatency(matrix);
  if (IsMatrixFolder(options.folder)) {
    throw UserError(options.folder + " contains a matrix: continue it with --resume " + options.folder +
                    ", or choose another folder");
  }
  lock = MakeSeriesFolder(options.folder, config);
  matrix.started = UtcNow();
  WriteMatrix(options.folder, matrix);
  SyncFolder(std::filesystem::path(AbsolutePath(options.folder)).parent_path().string());
  return matrix;
}

// A matrix's folder may come from elsewhere: it must neither lead to other folders nor hide what it runs.
Matrix ResumeMatrix(const std::string& folder, Output output, std::unique_ptr<FolderLock>& lock) {
  for (const char* const name : {kMatrixName, kSeriesConfig, kAttemptsName})
    RequireNoLink(folder + "/" + name);
  if (IsMatrixFolder(folder)) lock = std::make_unique<FolderLock>(folder);
  Matrix matrix = ReadMatrix(folder);
  for (const MatrixRun& run : matrix.runs) RequireNoLink(folder + "/" + run.folder);
  const std::vector<int> allowed = AllowedCpus();
  for (const int cpu : matrix.ownCpus) {
    if (std::find(allowed.begin(), allowed.end(), cpu) == allowed.end() ||
        allowed.size() <= matrix.ownCpus.size())
      throw UserError(folder + ": its victims have CPU " + std::to_string(cpu) +
                      " to themselves, which this program cannot give them here");
  }
  TellWhatRuns(
      folder + "/" + kMatrixName,
      {{"program to run", matrix.settings.benchmark}, {"library to load into it", matrix.settings.meter}},
      output);
  return matrix;
}

// Sets `status` before it shows the matrix: a page that cannot be written hides no errors of the runs.
void RunMatrix(const MatrixOptions& options, int& status) {
  const bool isResumed = !options.resume.empty();
  const std::string folder = isResumed ? options.resume : options.folder;
  std::unique_ptr<FolderLock> lock;
  Matrix matrix = isResumed ? ResumeMatrix(folder, options.output, lock) : PrepareMatrix(options, lock);
  if (options.output == Output::kText) Print(OwnCpusSentence(matrix) + "\n");
  const bool isDone = MatrixRecorder(folder, matrix, options.output).Run();
  const bool hasErrors = std::any_of(matrix.runs.begin(), matrix.runs.end(), [&folder](const MatrixRun& run) {
    return HasErrors(folder, run.folder, run.state);
  });
  status = hasErrors ? kExitErrors : isDone ? kExitOk : kExitFailure;
  ShowMatrix(folder, options.output, options.style, {folder + "/" + kReportName});
}

}  // namespace

void AddMatrix(CLI::App& app, int& status) {
  CLI::App* const command = app.add_subcommand(
      "matrix", "Measure who disturbs whom: engines alone, with others, and with threads that only compute");
  const auto options = std::make_shared<MatrixOptions>();
  options->settings.repeats = 3;
  CLI::Option* const config =
      command->add_option("CONFIG", options->config, "Configuration file of the benchmark");
  CLI::Option* const resume = command
                                  ->add_option("--resume", options->resume,
                                               "Continue the matrix in this folder; if it is done, show it")
                                  ->type_name("DIR");
  config->excludes(resume);
  CLI::Option* const seed = AddGrid(*command, options->levels, options->settings, "victim and mix", resume);
  CLI::Option* const victim =
      command
          ->add_option("--victim", options->victims,
                       "Section to disturb and its level, as VPC=1, or latency; once for each (default: all)")
          ->type_name("VICTIM")
          ->allow_extra_args(false)
          ->excludes(resume);
  command
      ->add_option("--worst", options->worst,
                   "Look for the mix that slows this victim most, without trying all")
      ->type_name("VICTIM")
      ->excludes(resume)
      ->excludes(victim);
  command->add_flag("--share-cpus", options->sharesCpus, "Give the victim no CPU of its own")
      ->excludes(resume);
  command->add_option("-o,--output", options->folder, "Folder to make (default: matrix-TIME)")
      ->type_name("DIR")
      ->excludes(resume);
  (void)AddLatencySize(*command, options->settings, resume);
  AddRunSettings(*command, options->settings, resume);
  // Printed rates are too coarse, and only the meter can give the victim its CPU.
  (void)command->remove_option(command->get_option("--no-meter"));
  AddOutput(*command, options->output);
  AddColour(*command, options->style);
  command->footer(
      "Examples:\n"
      "  stress_scope matrix config/all.yaml --stop-after 12 -o who\n"
      "  stress_scope matrix config/all.yaml --levels CPU=0..4 --levels VENC=0..4 --worst VPC -o worst\n"
      "  stress_scope matrix --resume who");
  command->callback([options, seed, &status] {
    if (options->resume.empty() && options->config.empty()) throw CLI::RequiredError("CONFIG or --resume");
    if (options->folder.empty()) options->folder = TimedFolder("matrix-");
    if (seed->count() == 0) options->settings.seed = std::random_device()();
    RunMatrix(*options, status);
  });
}

}  // namespace scope
