// SPDX-License-Identifier: Apache-2.0
#include <iostream>
#include <memory>

#include "commands.h"
#include "durable_file.h"
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
  add("--benchmark", settings.benchmark,
      "Benchmark to run (default: the stress_benchmark beside stress_scope)");
  add("--meter", settings.meter, "Meter library to preload (default: libstress_scope.so of this build)");
  CLI::Option* const noMeter = command.add_flag_callback(
      "--no-meter", [&settings] { settings.useMeter = false; },
      "Record without the meter: only rate lines, counters and conditions");
  if (excluded != nullptr) noMeter->excludes(excluded);
  add("--sysfs-root", settings.systemRoot, "Folder that contains sys and proc (default: /)");
  add("--stop-after", settings.stopAfterS,
      "End the run with SIGINT after this time (default: the run ends by itself)")
      ->check(CLI::Range(0.0, 1e6));
  add("--grace", settings.graceS, "Stop the benchmark if it does nothing for so long after its run time")
      ->check(CLI::Range(1.0, 3600.0))
      ->capture_default_str();
  add("EXTRA", settings.extra, "More arguments for the benchmark, after --");
}

void AddRecord(CLI::App& app, int& status) {
  CLI::App* const command =
      app.add_subcommand("record", "Run the benchmark under the meter and save a run folder");
  const auto options = std::make_shared<RecordOptions>();
  const auto quiet = std::make_shared<bool>(false);
  command->add_option("CONFIG", options->config, "Configuration file of the benchmark")->required();
  command->add_option("-o,--output", options->folder, "Run folder to make (default: run-TIME)");
  command->add_flag("--force", options->force, "Replace an existing run in the folder");
  command->add_option("--label", options->label, "Text to save with the run");
  command->add_flag("--quiet", *quiet, "Show nothing during the run");
  command->add_option("--run-time", options->runTimeS, "Run time to expect, instead of the one in CONFIG");
  AddRunSettings(*command, *options, nullptr);
  command->callback([options, quiet, &status] {
    if (options->folder.empty()) options->folder = TimedFolder("run-");
    const auto view = *quiet               ? std::make_unique<View>()
                      : OutputIsTerminal() ? MakeLiveView()
                                           : MakePlainView();
    Signals signals;
    status = RecordAndPrint(*options, *view, signals, true).complete ? kExitOk : kExitFailure;
  });
}

}  // namespace scope
