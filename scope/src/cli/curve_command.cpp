// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <random>
#include <string>

#include "cell_folder.h"
#include "commands.h"
#include "configuration.h"
#include "control.h"
#include "curve_folder.h"
#include "curve_plan.h"
#include "durable_file.h"
#include "engines.h"
#include "errors.h"
#include "folder_lock.h"
#include "latency_probe.h"
#include "record.h"
#include "run_tables.h"
#include "series.h"
#include "sweep_recorder.h"

namespace scope {
namespace {

// Ten points, three times, in less than three minutes: a run takes its four seconds and a little more than
// one around them.
constexpr double kUsualRunS = 4;
constexpr double kUsualWarmupS = 1;
constexpr int kUsualRepeats = 3;
// The first and the last second are left out. One must remain.
constexpr double kLeastOfRunS = 3;

struct CurveOptions {
  std::string config;
  std::string folder;
  std::string resume;
  std::string mix;
  int points = 10;
  int most = 0;  ///< 0: as the CPUs ask for
  SweepSettings settings;
  Output output = Output::kText;
  TextStyle style;
};

// The levels of CONFIG that are above 0.
SweepLevels MixOfConfig(const CurveOptions& options) {
  SweepLevels mix;
  unsigned int runTimeS = 0;
  for (const auto& [id, level] : ReadConfiguration(options.config, runTimeS).levels) {
    const std::string section = FindEngine(&EngineInfo::id, id)->section;
    if (level > kMostLevel) {
      throw UserError(options.config + ": expected a \"Level\" from 0 to " + std::to_string(kMostLevel) +
                      " in the section " + section);
    }
    if (level > 0) mix.emplace_back(section, level);
  }
  if (mix.empty())
    throw UserError(options.config + ": no level is above 0: say what works with --mix, as in --mix CPU");
  return mix;
}

// The mix, with 0 for the other sections of CONFIG: they must not work.
void ChooseLoad(const CurveOptions& options, Curve& curve) {
  curve.mix = options.mix.empty() ? MixOfConfig(options) : ParseMix(options.mix);
  const int divisor = ReduceMix(curve.mix);
  const int greatest = GreatestMost(curve.mix);
  if (options.most > greatest) {
    throw UserError("--most " + std::to_string(options.most) + ": levels allow at most " +
                    std::to_string(greatest) + " times " + MixText(curve.mix));
  }
  // Those that it may use.
  const auto cpus = static_cast<int>(AllowedCpus().size());
  curve.most = options.most != 0 ? options.most : std::clamp(divisor, UsualMost(curve.mix, cpus), greatest);
  unsigned int runTimeS = 0;
  for (const auto& [id, level] : ReadConfiguration(options.config, runTimeS).levels) {
    const std::string section = FindEngine(&EngineInfo::id, id)->section;
    const bool isMixed = std::any_of(curve.mix.begin(), curve.mix.end(),
                                     [&section](const auto& one) { return one.first == section; });
    if (!isMixed) curve.mix.emplace_back(section, 0);
  }
}

Curve PrepareCurve(const CurveOptions& options, std::unique_ptr<FolderLock>& lock) {
  Curve curve;
  Sweep& sweep = curve.sweep;
  sweep.settings = options.settings;
  sweep.settings.latency = true;
  MakeAbsolute(sweep.settings);
  sweep.configPath = options.config;
  curve.points = options.points;
  ChooseLoad(options, curve);
  PlanRunsOf(curve);
  const std::string config = PointConfiguration(options.config, curve.mix);
  RequireAllRead(options.config);
  CheckRunLength(RunSeconds(options.config, sweep.settings), sweep.settings.warmupS, kLeastOfRunS);
  CheckRecord(sweep.settings);
  const int cpu = sweep.settings.latencyCpu;
  if (const int reason = cpu < 0 ? 0 : WhyNotOn(cpu); reason != 0) throw NoCpuForLatency(cpu, reason);
  FixLatencySize(sweep.settings);
  if (IsCurveFolder(options.folder)) {
    throw UserError(options.folder + " contains a curve: continue it with --resume " + options.folder +
                    ", or choose another folder");
  }
  lock = MakeSeriesFolder(options.folder, config);
  sweep.started = UtcNow();
  WriteCurve(options.folder, curve);
  SyncFolder(std::filesystem::path(AbsolutePath(options.folder)).parent_path().string());
  return curve;
}

// A curve's folder may come from elsewhere: it must neither lead to other folders nor hide what it runs.
Curve ResumeCurve(const std::string& folder, Output output, std::unique_ptr<FolderLock>& lock) {
  for (const char* const name : {kCurveName, kSeriesConfig, kAttemptsName})
    RequireNoLink(folder + "/" + name);
  if (IsCurveFolder(folder)) lock = std::make_unique<FolderLock>(folder);
  Curve curve = ReadCurve(folder);
  for (const SweepRun& run : curve.sweep.runs) RequireNoLink(folder + "/" + run.folder);
  TellWhatRuns(folder + "/" + kCurveName,
               {{"program to run", curve.sweep.settings.benchmark},
                {"library to load into it", curve.sweep.settings.meter}},
               output);
  return curve;
}

// Where load and probe share a CPU, the probe loses it in many bursts, and a run may be left without a
// latency.
void TellOfCpus() {
  if (AllowedCpus().size() != 1) return;
  Print(
      "One CPU: the probe shares it with the load. Bursts in which the load takes it are left out, and so "
      "are "
      "runs without others.\n");
}

// Sets `status` before it shows the curve: a page that cannot be written hides no errors of the runs.
void RunCurve(const CurveOptions& options, int& status) {
  const bool isResumed = !options.resume.empty();
  const std::string folder = isResumed ? options.resume : options.folder;
  std::unique_ptr<FolderLock> lock;
  Curve curve = isResumed ? ResumeCurve(folder, options.output, lock) : PrepareCurve(options, lock);
  if (options.output == Output::kText) TellOfCpus();
  const bool isDone =
      SweepRecorder(folder, curve.sweep, options.output, {"curve", [&] { WriteCurve(folder, curve); }}).Run();
  status = HasErrors(folder, curve.sweep) ? kExitErrors : isDone ? kExitOk : kExitFailure;
  ShowCurves({folder}, options.output, options.style, {folder + "/" + kReportName});
}

// What the curve is made of. Returns --seed.
CLI::Option* AddPlanOfCurve(CLI::App& command, CurveOptions& options, CLI::Option* resume) {
  SweepSettings& settings = options.settings;
  const auto add = [&command, resume](const char* name, auto& value, const char* type, const char* help) {
    return command.add_option(name, value, help)->type_name(type)->excludes(resume);
  };
  add("--mix", options.mix, "MIX",
      "Engines and their shares of the load, as in CPU,VPC:2 (default: the levels in CONFIG)");
  add("--points", options.points, "N", "Loads in equal steps from none to the greatest")
      ->transform(WholeNumberFrom(static_cast<std::uint64_t>(kAllowedCurvePoints.least),
                                  static_cast<std::uint64_t>(kAllowedCurvePoints.most)))
      ->capture_default_str();
  add("--most", options.most, "N",
      "Greatest load, in units of the mix (default: five threads for each CPU, of inferences two)")
      ->transform(WholeNumberFrom(1, static_cast<std::uint64_t>(kMostLevel)));
  add("--repeat", settings.repeats, "N", "Runs of each point; each repeat is a whole curve")
      ->transform(WholeNumberFrom(static_cast<std::uint64_t>(kAllowedCurveRepeats.least),
                                  static_cast<std::uint64_t>(kAllowedCurveRepeats.most)))
      ->capture_default_str();
  add("--warmup", settings.warmupS, "SECONDS", "Time at the start of each run that figures leave out")
      ->check(NumberFrom(0, kMostSeconds))
      ->capture_default_str();
  add("-o,--output", options.folder, "DIR", "Folder to make (default: curve-TIME)");
  return add("--seed", settings.seed, "N", "Seed of the random order (default: a new one each time)")
      ->transform(WholeNumberFrom(0, std::numeric_limits<std::uint64_t>::max()));
}

}  // namespace

void AddCurve(CLI::App& app, int& status) {
  CLI::App* const command = app.add_subcommand(
      "curve", "Draw the latency of memory over the bandwidth of engines under rising load");
  const auto options = std::make_shared<CurveOptions>();
  SweepSettings& settings = options->settings;
  settings.repeats = kUsualRepeats;
  settings.warmupS = kUsualWarmupS;
  settings.stopAfterS = kUsualRunS;
  CLI::Option* const config =
      command->add_option("CONFIG", options->config, "Configuration file of the benchmark");
  CLI::Option* const resume =
      command
          ->add_option("--resume", options->resume,
                       "Continue the curve in this folder; if all its runs are done, show it")
          ->type_name("DIR");
  config->excludes(resume);
  CLI::Option* const seed = AddPlanOfCurve(*command, *options, resume);
  AddLatencyPlace(*command, settings, resume, nullptr);
  AddRunSettings(*command, settings, resume);
  // The bandwidth of a point is what the meter counts.
  (void)command->remove_option(command->get_option("--no-meter"));
  command->get_option("--stop-after")
      ->description("End each run with SIGINT after this time")
      ->capture_default_str();
  AddOutput(*command, options->output);
  AddColour(*command, options->style);
  command->footer(
      "Examples:\n"
      "  stress_scope curve config/cpu.yaml -o before\n"
      "  stress_scope curve config/all.yaml --mix CPU,VPC:2 --points 20 -o mixed\n"
      "  stress_scope report before mixed -o both.html\n"
      "  stress_scope compare before after");
  command->callback([options, seed, &status] {
    if (options->resume.empty() && options->config.empty()) throw CLI::RequiredError("CONFIG or --resume");
    if (options->folder.empty()) options->folder = TimedFolder("curve-");
    if (seed->count() == 0) options->settings.seed = std::random_device()();
    RunCurve(*options, status);
  });
}

}  // namespace scope
