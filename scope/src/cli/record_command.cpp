// SPDX-License-Identifier: Apache-2.0
#include <iostream>
#include <memory>

#include "clock.h"
#include "commands.h"
#include "errors.h"
#include "live_view.h"
#include "report.h"

namespace scope {

RecordResult RecordAndPrint(const RecordOptions& options, View& view, Signals& signals, bool summary) {
  const RecordResult result = Record(options, view, signals);
  // Reads the saved run, so the figures are the same as in every other view.
  try {
    if (summary) std::cout << ReportText(ReadRuns({options.folder}));
  } catch (const UserError& error) {
    std::cerr << "stress_scope: " << error.what() << std::endl;
  }
  std::cout << (result.complete ? "saved in " : "incomplete, saved in ") << options.folder << std::endl;
  return result;
}

void AddRunSettings(CLI::App& command, RunSettings& settings, CLI::Option* excluded) {
  const auto add = [&](const char* name, auto& value, const char* help) {
    CLI::Option* const option = command.add_option(name, value, help);
    return excluded == nullptr ? option : option->excludes(excluded);
  };
  add("--benchmark", settings.benchmark, "Program to run (default: stress_benchmark beside this one)");
  add("--meter", settings.meter, "Meter to preload (default: libstress_scope.so of this build)");
  CLI::Option* const noMeter = command.add_flag_callback(
      "--no-meter", [&settings] { settings.useMeter = false; },
      "Record rate lines, counters and conditions alone");
  if (excluded != nullptr) noMeter->excludes(excluded);
  add("--sysfs-root", settings.systemRoot, "Folder that has sys and proc (default: /)");
  add("--stop-after", settings.stopAfterS, "Seconds after which SIGINT ends the run (default: its run time)")
      ->check(CLI::Range(0.0, 1e6));
  add("--grace", settings.graceS, "Seconds without a sign of life after the run time that count as hung")
      ->check(CLI::Range(1.0, 3600.0))
      ->capture_default_str();
  add("EXTRA", settings.extra, "Further arguments of the benchmark, after --");
}

void AddRecord(CLI::App& app, int& status) {
  CLI::App* const command =
      app.add_subcommand("record", "Run the benchmark under the meter and save a run folder");
  const auto options = std::make_shared<RecordOptions>();
  const auto quiet = std::make_shared<bool>(false);
  command->add_option("CONFIG", options->config, "Configuration file of the benchmark")->required();
  command->add_option("-o,--output", options->folder, "Run folder to make (default: run-TIME)");
  command->add_flag("--force", options->force, "Replace the run that is in the folder");
  command->add_option("--label", options->label, "Words to keep with the run");
  command->add_flag("--quiet", *quiet, "Show nothing while it runs");
  command->add_option("--run-time", options->runTimeS,
                      "Seconds that the benchmark runs, where CONFIG does not say it");
  AddRunSettings(*command, *options, nullptr);
  command->callback([options, quiet, &status] {
    if (options->folder.empty()) options->folder = TimedFolder("run-");
    const auto view = *quiet ? MakeSilentView() : OutputIsTerminal() ? MakeLiveView() : MakePlainView();
    Signals signals;
    status = RecordAndPrint(*options, *view, signals, true).complete ? kExitOk : kExitFailure;
  });
}

}  // namespace scope
