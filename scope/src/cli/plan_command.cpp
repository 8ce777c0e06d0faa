// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "cell_plan.h"
#include "commands.h"
#include "configuration.h"
#include "durable_file.h"
#include "errors.h"
#include "plan_file.h"
#include "printable.h"
#include "series.h"
#include "sweep_plan.h"
#include "sweep_runs.h"
#include "text_format.h"

namespace scope {
namespace {

struct PlanOptions {
  std::string config;
  std::string file;
  std::vector<std::string> boards;
  std::vector<std::string> levels;
  std::vector<std::string> boardSettings;
  SweepSettings settings;
  Output output = Output::kText;
};

// The greatest level of a section over all cells; that of the configuration if the cells leave it open.
int GreatestLevel(const Plan& plan, const NamedModel& model) {
  int greatest = 0;
  for (const PlanCell& cell : plan.cells) {
    int level = model.level;
    for (const auto& [section, planned] : cell.levels) {
      if (section == model.section) level = planned;
    }
    greatest = std::max(greatest, level);
  }
  return greatest;
}

std::string TimeText(double seconds) {
  return seconds < 90 ? Format("%.0f s", seconds) : Format("%.0f min", seconds / 60);
}

void ShowPlan(const PlanOptions& options, const Plan& plan, std::size_t boards) {
  const double cellS = RunSeconds(options.config, plan.settings) + kBetweenRunsS;
  const auto cells = static_cast<double>(plan.cells.size());
  const std::string file = Printable(options.file);
  std::string text = "plan " + file + ": " + Counted(plan.cells.size(), "cell") + " for " +
                     (boards == 0 ? "any board" : Counted(boards, "board")) + ", in random order of seed " +
                     std::to_string(plan.settings.seed) + "\n";
  text += "A cell takes about " + TimeText(cellS) + ", " +
          (boards > 1 ? "each board " + TimeText(cellS * cells / static_cast<double>(boards))
                      : "all together " + TimeText(cellS * cells)) +
          "\n";
  for (const NamedModel& model : ModelsOf(options.config)) {
    if (GreatestLevel(plan, model) == 0) continue;
    text += model.section + " reads " + Printable(AbsolutePath(model.file)) +
            ": the plan does not contain it. Each board needs it there, or takes --model\n";
  }
  const std::string board = boards == 0 ? "" : " --board NAME";
  Print(text + "Run each on its board: stress_scope cell " + file + " NUMBER" + board + " -o DIR\n");
}

int RunPlan(const PlanOptions& options) {
  PlanGrid grid;
  grid.boards = ParseBoards(options.boards);
  grid.axes = ParseAxes(options.levels);
  grid.settings = ParseSettings(options.boardSettings);
  Plan plan;
  plan.settings = options.settings;
  plan.made = UtcNow();
  plan.configPath = options.config;
  plan.cells = PlanCells(grid, plan.settings.repeats, plan.settings.seed);
  plan.configText = PointConfiguration(options.config, plan.cells.front().levels);
  RequireAllRead(options.config);
  CheckRunLength(RunSeconds(options.config, plan.settings), plan.settings.warmupS);
  RequireChecks(plan.settings);
  const std::string text = PlanFileText(plan);
  if (IsTaken(options.file)) {
    throw UserError(options.file + " exists: choose another file. A plan is not changed once it is made");
  }
  ReplaceFile(options.file, text);
  if (options.output == Output::kJson) Print(PrintableJson(text));
  if (options.output == Output::kText) ShowPlan(options, plan, grid.boards.size());
  return kExitOk;
}

}  // namespace

void AddPlan(CLI::App& app, int& status) {
  CLI::App* const command =
      app.add_subcommand("plan", "Plan runs that are recorded one by one, on one board or on many");
  const auto options = std::make_shared<PlanOptions>();
  SweepSettings& settings = options->settings;
  const auto add = [command](const char* name, auto& value, const char* type, const char* help) {
    return command->add_option(name, value, help)->type_name(type);
  };
  command->add_option("CONFIG", options->config, "Configuration file of the benchmark")->required();
  add("--boards", options->boards, "NAMES",
      "Boards, separated by commas, on each of which all is planned (default: any board)")
      ->allow_extra_args(false);
  add("--setting", options->boardSettings, "NAME=VALUES",
      "Setting of the board and its values, as in refresh=3900,7800; once for each setting")
      ->allow_extra_args(false);
  CLI::Option* const seed = AddGrid(*command, options->levels, settings, "combination", nullptr);
  add("-o,--output", options->file, "FILE", "Plan to make (default: plan-TIME.json)");
  AddRunLimits(*command, settings, nullptr);
  AddChecks(*command, settings, nullptr);
  AddOutput(*command, options->output);
  command->footer(
      "Examples:\n"
      "  stress_scope plan config/all.yaml --boards b1,b2 --levels CPU=1,4 --repeat 4 -o night.json\n"
      "  stress_scope plan config/all.yaml --boards b1,b2 --verify --guard 25% -o checked.json");
  command->callback([options, seed, &status] {
    if (options->file.empty()) options->file = TimedFolder("plan-") + ".json";
    if (seed->count() == 0) options->settings.seed = std::random_device()();
    status = RunPlan(*options);
  });
}

}  // namespace scope
