// SPDX-License-Identifier: Apache-2.0
#include <malloc.h>

#include <cstddef>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "board_shell.h"
#include "cell_file.h"
#include "cell_plan.h"
#include "cell_runner.h"
#include "collection.h"
#include "commands.h"
#include "errors.h"
#include "folder_file.h"
#include "live_view.h"
#include "plan_file.h"
#include "printable.h"
#include "remote_cell.h"
#include "run_error.h"
#include "series.h"

namespace scope {
namespace {

struct CellCommand {
  std::string plan;
  std::size_t number = 0;
  RunSettings programs;
  CellOptions cell;
  RemoteBoard on;
  Output output = Output::kText;
};

Plan ReadPlanFor(const CellCommand& command) {
  Plan plan = ReadPlan(command.plan);
  const std::size_t count = plan.cells.size();
  if (command.number > count) {
    throw UserError("there is no cell " + std::to_string(command.number) + " in " + command.plan +
                    ": its cells are 1 to " + std::to_string(count));
  }
  plan.settings.benchmark = command.programs.benchmark;
  plan.settings.meter = command.programs.meter;
  plan.settings.systemRoot = command.programs.systemRoot;
  return plan;
}

// Errors of a run that was not the cell's are errors of the board, too.
void TellOfEarlierErrors(const CellCommand& command, const Plan& plan, const PlanCell& cell,
                         const CellOutcome& outcome) {
  const std::optional<CellRecord> record = ReadCell(outcome.folder);
  if (record && record->files.empty()) return;  // it says so itself
  const CellStatus status = StatusOf(command.cell.root, plan.id, cell, command.number, CellCheck::kRecord);
  const std::string errors = CountsText(status.earlierErrors);
  if (errors.empty()) return;
  std::cerr << "stress_scope: cell " << command.number << " has an earlier attempt with " << Printable(errors)
            << std::endl;
}

// Returns the exit status.
int ShowOutcome(const CellCommand& command, const CellOutcome& outcome) {
  const std::string folder = Printable(outcome.folder);
  if (command.output == Output::kJson)
    Print(PrintableJson(ReadFolderFile(outcome.folder + "/" + kCellName, kMostCellBytes).value_or("null\n")));
  if (command.output == Output::kText && !outcome.isNew) Print("already done, in " + folder + "\n");
  if (command.output == Output::kText && outcome.isNew)
    Print(NameOf(outcome.state) + std::string(", saved in ") + folder + "\n");
  const std::optional<CellRecord> record = ReadCell(outcome.folder);
  const std::string errors = record && record->errors ? CountsText(*record->errors) : "";
  const bool isDone = outcome.state == CellState::kDone;
  if (isDone && errors.empty()) return kExitOk;
  std::cerr << "stress_scope: cell " << command.number << ' ' << NameOf(outcome.state)
            << (errors.empty() ? "" : ", with " + Printable(errors));
  if (isDone) {
    std::cerr << ", in " << folder << std::endl;
    return kExitErrors;
  }
  std::cerr << ": " << Printable(outcome.reason) << "; run it again with the same command" << std::endl;
  return outcome.isBoardAway ? kExitBoardAway : kExitFailure;
}

int RunCellCommand(CellCommand& command) {
  Plan plan = ReadPlanFor(command);
  const std::size_t count = plan.cells.size();
  const PlanCell cell = std::move(plan.cells[command.number - 1]);
  // A large plan takes memory, which the run is to measure.
  plan.cells = std::vector<PlanCell>();
  (void)malloc_trim(0);
  CellOptions options = command.cell;
  options.planPath = command.plan;
  const bool isHere = command.on.host.empty();
  if (isHere && !options.model.empty()) options.model = AbsolutePath(options.model);
  const bool text = command.output == Output::kText;
  options.showsApply = text;
  if (text) {
    Print("cell " + std::to_string(command.number) + " of " + std::to_string(count) + ", " + CellLabel(cell) +
          (isHere ? "\n" : ", on " + Printable(command.on.host) + "\n"));
  }
  const auto view = isHere && text && OutputIsTerminal() ? MakeLiveView() : std::make_unique<View>();
  // Lives to the end: a signal after the run must not leave it half saved.
  Signals signals;
  const CellOutcome outcome = isHere ? RunCell(plan, cell, command.number, options, *view, signals)
                                     : RunCellOn(command.on, plan, cell, command.number, options, signals);
  TellOfEarlierErrors(command, plan, cell, outcome);
  return ShowOutcome(command, outcome);
}

}  // namespace

void AddCell(CLI::App& app, int& status) {
  CLI::App* const command =
      app.add_subcommand("cell", "Record one run of a plan, unless it is done, into a folder of its own");
  const auto options = std::make_shared<CellCommand>();
  const auto add = [command](const char* name, std::string& value, const char* type, const char* help) {
    return command->add_option(name, value, help)->type_name(type);
  };
  command->add_option("PLAN", options->plan, "File that stress_scope plan made")->required();
  command->add_option("NUMBER", options->number, "Number of the cell in the plan, from 1")
      ->required()
      ->transform(WholeNumberFrom(1, 1'000'000'000));
  add("-o,--output", options->cell.root, "DIR", "Folder of all cells of the plan")->required();
  add("--board", options->cell.board, "NAME", "Name of this board; a cell of another one is refused");
  add("--model", options->cell.model, "FILE",
      "Model on this machine, instead of the one that the plan names");
  command
      ->add_option("--wait", options->cell.waitS,
                   "Time to wait for the end of another process that records the cell")
      ->type_name("SECONDS")
      ->check(NumberFrom(0, kMostSeconds));
  add("--apply", options->cell.apply, "COMMAND",
      "Shell command that makes the settings of the cell; it gets NAME=VALUE for each");
  CLI::Option* const on =
      add("--on", options->on.host, "HOST",
          "Run the cell on this board, by ssh, and bring the result back; --model, --apply and "
          "programs are then those of the board");
  add("--bundle", options->on.bundle, "FILE",
      "With --on: programs to copy there once, a tar file of scripts/bundle (default: the board's own)")
      ->needs(on);
  add("--folder", options->on.folder, "DIR", "With --on: folder for all of this on the board")
      ->needs(on)
      ->capture_default_str();
  add("--ssh-config", options->on.sshConfig, "FILE", "With --on: configuration of ssh (default: the user's)")
      ->needs(on);
  AddPrograms(*command, options->programs, nullptr);
  AddOutput(*command, options->output);
  command->footer(
      "Example:\n"
      "  stress_scope cell night.json 3 --board b1 -o night");
  command->callback([options, &status] {
    // Most boards are reached under their names.
    const std::string& host = options->on.host;
    if (options->cell.board.empty()) options->cell.board = host.substr(host.find('@') + 1);
    if (!options->cell.board.empty()) RequireBoardName(options->cell.board, "--board");
    try {
      status = RunCellCommand(*options);
    } catch (const BoardAway&) {
      status = kExitBoardAway;
      throw;
    }
  });
}

}  // namespace scope
