// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "durable_file.h"
#include "errors.h"
#include "fleet_baseline.h"
#include "fleet_reader.h"
#include "fleet_text.h"
#include "printable.h"
#include "standard_output.h"
#include "text_format.h"

namespace scope {
namespace {

struct FleetCommand {
  std::string folder;
  std::string page;
  std::string junit;
  std::string baseline;
  std::string saveBaseline;
  std::vector<std::string> boards;
  std::vector<std::string> figures;
  FleetOptions options;
  Output output = Output::kText;
  TextStyle style;
};

FleetHistory HistoryFor(const FleetCommand& command, const Fleet& fleet) {
  if (command.baseline.empty()) return HistoryOf(fleet, fleet.nights.size() - 1, "");
  FleetHistory history = ReadBaseline(command.baseline);
  if (history.setup == fleet.nights.back().setup) return history;
  throw UserError("the baseline " + command.baseline +
                  " is of another plan: its configuration, times or checks differ from those of the night " +
                  fleet.nights.back().name + ". Make a new one with --save-baseline");
}

std::vector<std::uint32_t> PlacesOf(const std::vector<std::string>& names, const Fleet& fleet) {
  std::vector<std::uint32_t> places;
  for (const std::string& name : names) {
    const auto at = std::find(fleet.boards.begin(), fleet.boards.end(), name);
    if (at == fleet.boards.end()) throw UserError("there is no board " + name + " in " + fleet.folder);
    places.push_back(static_cast<std::uint32_t>(at - fleet.boards.begin()));
  }
  return places;
}

void Save(const FleetCommand& command, const FleetReport& report) {
  std::string told;
  if (!command.page.empty()) {
    WritePage({command.page, true}, FleetPage(report));
    told += "\nreport in " + Printable(command.page) + "\n";
  }
  if (!command.junit.empty()) WritePage({command.junit, true}, FleetJunit(report));
  if (!command.saveBaseline.empty()) {
    // Nights of another configuration, other times or other checks are no part of it.
    const FleetHistory history = HistoryOf(report.fleet, report.fleet.nights.size(), UtcNow());
    WriteBaseline(command.saveBaseline, history);
    told += "\nbaseline of " + Counted(history.nights.size(), "night") + " in " +
            Printable(command.saveBaseline) + "\n";
    if (history.nights.size() < kFewestNightsBefore) {
      told += "note: a baseline of fewer than " + std::to_string(kFewestNightsBefore) +
              " nights is not compared with\n";
    }
  }
  if (command.output == Output::kText) Print(told);
}

int RunFleet(FleetCommand& command) {
  for (const std::string& name : command.figures) {
    for (const FigureKind* const kind : EngineKinds()) {
      if (name == kind->name) command.options.figures.insert(kind->figure);
    }
  }
  FleetReport report;
  report.fleet = ReadFleet(command.folder);
  report.options = command.options;
  report.named = PlacesOf(command.boards, report.fleet);
  report.baseline = command.baseline;
  {
    const FleetHistory history = HistoryFor(command, report.fleet);
    report.nightsBefore = history.nights.size();
    report.verdict = JudgeFleet(report.fleet, history, report.options);
  }
  report.reasons = FindReasons(report.fleet, report.verdict);
  if (command.output == Output::kJson) Print(FleetJson(report));
  if (command.output == Output::kText) Print(FleetText(report, command.style));
  Save(command, report);
  RequireStandardOutput();  // an answer that is lost must not have an exit status
  return ExitStatusOf(report.verdict);
}

}  // namespace

void AddFleet(CLI::App& app, int& status) {
  CLI::App* const command =
      app.add_subcommand("fleet", "Tell which boards stand out, failed, or are worse than before");
  const auto options = std::make_shared<FleetCommand>();
  const auto add = [command](const char* name, auto& value, const char* type, const char* help) {
    return command->add_option(name, value, help)->type_name(type);
  };
  command->add_option("DIR", options->folder, "Folder of cells, or of such folders, one a night")->required();
  add("-o,--output", options->page, "FILE", "Page to write as well");
  add("--junit", options->junit, "FILE", "Test report to write, for a job server: a test for each board");
  add("--baseline", options->baseline, "FILE", "Compare with this file, not with the nights before the last");
  add("--save-baseline", options->saveBaseline, "FILE",
      "Keep what the boards did in all nights in this file");
  add("--board", options->boards, "NAMES", "Boards to show in detail as well, in the page and JSON")
      ->delimiter(',')
      ->allow_extra_args(false);
  std::vector<std::string> figures;
  for (const FigureKind* const kind : EngineKinds()) {
    if (kind->compared) figures.emplace_back(kind->name);
  }
  add("--figure", options->figures, "NAMES", "Judge these (default: rates, and the bandwidth of all engines)")
      ->delimiter(',')
      ->allow_extra_args(false)
      ->check(OneOf(figures));
  add("--tolerance", options->options.tolerancePercent, "PERCENT",
      "Difference up to which figures count as equal")
      ->check(NumberFrom(0, 100))
      ->capture_default_str();
  add("--confidence", options->options.confidence, "SHARE",
      "Confidence that no good board is called odd or worse, 0.5 to 0.999")
      ->check(NumberFrom(0.5, 0.999))
      ->capture_default_str();
  AddOutput(*command, options->output);
  AddColour(*command, options->style);
  command->footer(
      "Examples:\n"
      "  stress_scope fleet nights -o morning.html\n"
      "  stress_scope fleet nights --baseline good.json --junit fleet.xml");
  command->callback([options, &status] { status = RunFleet(*options); });
}

}  // namespace scope
