// SPDX-License-Identifier: Apache-2.0
#include <iterator>
#include <memory>

#include "commands.h"
#include "durable_file.h"
#include "errors.h"
#include "live_view.h"
#include "memory_amount.h"
#include "printable.h"
#include "protocol.h"
#include "record.h"
#include "report.h"
#include "tell.h"

namespace scope {
namespace {

int RunRecord(const RecordOptions& options, Output output) {
  const auto view = output != Output::kText ? std::make_unique<View>()
                    : OutputIsTerminal()    ? MakeLiveView()
                                            : MakePlainView();
  Signals signals;
  const RecordResult result = Record(options, *view, signals);
  // Reads the saved run, so the figures are the same as in every other view.
  try {
    if (output == Output::kText) Print(ReportText(ReadRuns({options.folder}), OutputWidth()));
    if (output == Output::kJson) Print(ReportJson(ReadRuns({options.folder})));
  } catch (const UserError& error) {
    Tell(error.what());
  }
  if (output == Output::kText) {
    Print((result.complete ? "saved in " : "incomplete, saved in ") + Printable(options.folder) + "\n");
  }
  if (result.errors != 0) return kExitErrors;
  return result.complete && result.exported && !result.late ? kExitOk : kExitFailure;
}

constexpr std::uint64_t kMostCpu = 1023;

// Adds an option that excludes `excluded` if that is not null.
template <typename Value>
CLI::Option* AddUnless(CLI::App& command, CLI::Option* excluded, const char* name, Value& value,
                       const char* type, const char* help) {
  CLI::Option* const option = command.add_option(name, value, help)->type_name(type);
  return excluded == nullptr ? option : option->excludes(excluded);
}

void AddDeadlines(CLI::App& command, RecordOptions& options) {
  CLI::Option* const deadline =
      command
          .add_option_function<std::vector<std::string>>(
              "--deadline",
              [&options](const std::vector<std::string>& texts) {
                for (const std::string& text : texts) options.deadlines.push_back(ParseDeadline(text));
              },
              "Count operations that take longer, as vpc=16.7ms; may be given for several engines")
          ->type_name("ENGINE=TIME")
          ->allow_extra_args(false)
          ->excludes(command.get_option("--no-meter"));
  command
      .add_option_function<std::string>(
          "--fail-over", [&options](const std::string& text) { options.failOver = ParseMissedShare(text); },
          "End with status 1 if more of the operations miss their deadline, as 0.1%")
      ->type_name("SHARE")
      ->needs(deadline);
}

}  // namespace

void AddPrograms(CLI::App& command, RunSettings& settings, CLI::Option* excluded) {
  AddUnless(command, excluded, "--benchmark", settings.benchmark, "FILE",
            "Benchmark to run (default: the stress_benchmark beside stress_scope)");
  AddUnless(command, excluded, "--meter", settings.meter, "FILE",
            "Meter library to preload (default: libstress_scope.so of this build)");
  AddUnless(command, excluded, "--sysfs-root", settings.systemRoot, "DIR",
            "Folder that contains sys and proc (default: /)");
}

void AddRunLimits(CLI::App& command, RunSettings& settings, CLI::Option* excluded) {
  CLI::Option* const noMeter = command.add_flag_callback(
      "--no-meter", [&settings] { settings.useMeter = false; },
      "Record without the meter: only rate lines, counters and conditions");
  if (excluded != nullptr) noMeter->excludes(excluded);
  AddUnless(command, excluded, "--stop-after", settings.stopAfterS, "SECONDS",
            "End the run with SIGINT after this time (default: the run ends by itself)")
      ->check(NumberFrom(0, kMostSeconds));
  AddUnless(command, excluded, "--grace", settings.graceS, "SECONDS",
            "Stop the benchmark if it does nothing for so long after its run time")
      ->check(NumberFrom(1, 3600))
      ->capture_default_str();
  AddUnless(command, excluded, "ARGUMENT", settings.extra, "WORD",
            "More arguments for the benchmark, after --");
}

void AddRunSettings(CLI::App& command, RunSettings& settings, CLI::Option* excluded) {
  AddPrograms(command, settings, excluded);
  AddRunLimits(command, settings, excluded);
}

void AddChecks(CLI::App& command, RunSettings& settings, CLI::Option* excluded) {
  CLI::Option* const noMeter = command.get_option("--no-meter");
  AddUnless(command, excluded, "--fill", settings.fill, "PATTERN",
            "Fill sources and frames: zeros, ones, random, checker, walking or worst")
      ->check(OneOf({std::begin(kFillNames), std::end(kFillNames)}))
      ->excludes(noMeter);
  CLI::Option* const verify = command.add_flag("--verify", settings.verify,
                                               "Check the results of the engines; errors end with status 3");
  verify->excludes(noMeter);
  if (excluded != nullptr) verify->excludes(excluded);
  AddUnless(command, excluded, "--duty", settings.dutyPercent, "PERCENT",
            "Share of the time in which threads of engines work; then they sleep")
      ->check(NumberFrom(kLeastDuty, kWholeDuty))
      ->capture_default_str()
      ->excludes(noMeter);
  CLI::Option* const guard =
      AddUnless(command, excluded, "--guard", settings.guard, "SIZE",
                "Watch so much memory for changes, as 512M or 25% of what is available");
  // An empty one would mean no guard.
  guard->check([](const std::string& text) {
    return text.empty() ? kMemoryAmountWords + std::string(", found \"\"") : std::string();
  });
  command.add_option("--guard-rate", settings.guardRate, "How many MB of it are checked in a second")
      ->type_name("NUMBER")
      ->check(NumberFrom(kLeastGuardRate, kMostGuardRate))
      ->capture_default_str()
      ->needs(guard);
}

void AddLatency(CLI::App& command, RunSettings& settings) {
  CLI::Option* const latency =
      command.add_flag("--latency", settings.latency,
                       "Measure the latency of memory during the run, one access after another");
  AddLatencyPlace(command, settings, nullptr, latency);
}

CLI::Option* AddLatencySize(CLI::App& command, RunSettings& settings, CLI::Option* excluded) {
  return AddUnless(command, excluded, "--latency-size", settings.latencySize, "SIZE",
                   "Memory to go through, as 512M (default: as the caches ask for, 256M or more)");
}

void AddLatencyPlace(CLI::App& command, RunSettings& settings, CLI::Option* excluded, CLI::Option* needed) {
  CLI::Option* const cpu = AddUnless(command, excluded, "--latency-cpu", settings.latencyCpu, "NUMBER",
                                     "CPU of the latency probe (default: the last one that is allowed)");
  cpu->transform(WholeNumberFrom(0, kMostCpu));
  CLI::Option* const size = AddLatencySize(command, settings, excluded);
  if (needed == nullptr) return;
  cpu->needs(needed);
  size->needs(needed);
}

void AddRecord(CLI::App& app, int& status) {
  CLI::App* const command =
      app.add_subcommand("record", "Run the benchmark under the meter and save a run folder");
  const auto options = std::make_shared<RecordOptions>();
  const auto output = std::make_shared<Output>(Output::kText);
  command->add_option("CONFIG", options->config, "Configuration file of the benchmark")->required();
  command->add_option("-o,--output", options->folder, "Run folder to make (default: run-TIME)")
      ->type_name("DIR");
  command->add_flag("--force", options->force, "Replace an existing run in the folder");
  command->add_option("--label", options->label, "Text to save with the run")->type_name("WORDS");
  command->add_option("--run-time", options->runTimeS, "Run time to expect, instead of the one in CONFIG")
      ->type_name("SECONDS")
      ->transform(WholeNumberFrom(0, static_cast<std::uint64_t>(kMostSeconds)));
  command
      ->add_option("--metrics", options->exports.metrics,
                   "Keep the figures of the last second in FILE, for Prometheus' node exporter")
      ->type_name("FILE");
  command->add_option("--trace", options->exports.trace, "Write a trace of the run for Perfetto")
      ->type_name("FILE");
  AddRunSettings(*command, *options, nullptr);
  AddChecks(*command, *options, nullptr);
  AddDeadlines(*command, *options);
  AddLatency(*command, *options);
  AddOutput(*command, *output);
  command->footer(
      "Examples:\n"
      "  stress_scope record config/all.yaml -o before --label \"tRFC 350\"\n"
      "  stress_scope record config/cpu.yaml --stop-after 15 --json\n"
      "  stress_scope record config/all.yaml --fill random --verify --guard 512M");
  command->callback([options, output, &status] {
    if (options->folder.empty()) options->folder = TimedFolder("run-");
    RequireOwnFiles(options->exports, options->config, options->folder);
    status = RunRecord(*options, *output);
  });
}

}  // namespace scope
