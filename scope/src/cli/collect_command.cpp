// SPDX-License-Identifier: Apache-2.0
#include <memory>
#include <string>
#include <vector>

#include "collection.h"
#include "collection_text.h"
#include "commands.h"
#include "plan_file.h"

namespace scope {
namespace {

struct CollectOptions {
  std::string folder;
  std::string plan;
  Output output = Output::kText;
  TextStyle style;
  std::string toRun;  ///< "", "all" or "lost"
};

int ExitStatusFor(const std::vector<CellStatus>& cells) {
  if (CountOf(cells, CellState::kFailed) + CountOf(cells, CellState::kDamaged) != 0) return kExitFailure;
  return CountOf(cells, CellState::kDone) == cells.size() ? kExitOk : kExitNotYet;
}

int RunCollect(const CollectOptions& options) {
  const Plan plan = ReadPlan(options.plan.empty() ? options.folder + "/" + kPlanName : options.plan);
  const std::vector<CellStatus> cells = Collect(options.folder, plan);
  if (!options.toRun.empty()) {
    Print(NumbersToRunByBoard(plan, cells, options.toRun == "lost"));
    return ExitStatusFor(cells);
  }
  if (options.output == Output::kJson) Print(CollectionJson(options.folder, plan, cells));
  if (options.output == Output::kText) Print(CollectionText(options.folder, plan, cells, options.style));
  return ExitStatusFor(cells);
}

}  // namespace

void AddCollect(CLI::App& app, int& status) {
  CLI::App* const command =
      app.add_subcommand("collect", "Say which runs of a plan are done, failed and missing");
  const auto options = std::make_shared<CollectOptions>();
  command->add_option("DIR", options->folder, "Folder of the cells")->required();
  command->add_option("--plan", options->plan, "Plan of the cells (default: plan.json in DIR)")
      ->type_name("FILE");
  command
      ->add_option(
          "--to-run", options->toRun,
          "Print only the numbers of the cells that are left, a line for each board (- is any): all, "
          "or lost, without those that failed")
      ->type_name("WHICH")
      ->check(OneOf({"all", "lost"}));
  AddOutput(*command, options->output);
  AddColour(*command, options->style);
  command->footer(
      "Examples:\n"
      "  stress_scope collect night\n"
      "  stress_scope collect night --to-run all");
  command->callback([options, &status] { status = RunCollect(*options); });
}

}  // namespace scope
