// SPDX-License-Identifier: Apache-2.0
#include "cell_plan.h"

#include <algorithm>
#include <cstddef>
#include <set>
#include <sstream>

#include "errors.h"
#include "plan_file.h"
#include "sweep_plan.h"

namespace scope {
namespace {

constexpr std::size_t kMostCells = 500'000;

std::vector<std::string> PartsOf(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream stream(text + ",");
  for (std::string part; std::getline(stream, part, ',');) parts.push_back(part);
  return parts;
}

// Each factor may be large: their product must not overflow.
void RequireCount(const PlanGrid& grid, int repeats) {
  std::vector<std::size_t> factors = {std::max<std::size_t>(grid.boards.size(), 1),
                                      static_cast<std::size_t>(repeats)};
  for (const SweepAxis& axis : grid.axes) factors.push_back(axis.levels.size());
  for (const SettingAxis& axis : grid.settings) factors.push_back(axis.second.size());
  std::size_t count = 1;
  for (const std::size_t factor : factors) {
    count *= factor;
    if (count <= kMostCells) continue;
    throw UserError("the plan has more than " + std::to_string(kMostCells) +
                    " cells: give fewer boards, levels, settings or repeats");
  }
}

}  // namespace

std::vector<std::string> ParseBoards(const std::vector<std::string>& texts) {
  std::vector<std::string> boards;
  std::set<std::string> once;
  for (const std::string& text : texts) {
    for (const std::string& name : PartsOf(text)) {
      RequireBoardName(name, "name of a board");
      if (!once.insert(name).second) throw UserError("the board " + name + " is given twice");
      boards.push_back(name);
    }
  }
  return boards;
}

std::vector<SettingAxis> ParseSettings(const std::vector<std::string>& texts) {
  std::vector<SettingAxis> axes;
  for (const std::string& text : texts) {
    const std::size_t sign = text.find('=');
    if (sign == std::string::npos) {
      throw UserError("\"" + text + "\": expected a name, then \"=\" and values, as in refresh=3900,7800");
    }
    const std::string name = text.substr(0, sign);
    RequireSettingName(name, "name of a setting");
    for (const SettingAxis& other : axes) {
      if (other.first == name) throw UserError("values of " + name + " are given twice");
    }
    std::set<std::string> once;
    std::vector<std::string> values = PartsOf(text.substr(sign + 1));
    for (const std::string& value : values) {
      RequireSettingValue(value, "value of " + name);
      if (!once.insert(value).second) throw UserError(name + "=" + value + " is given twice");
    }
    axes.emplace_back(name, std::move(values));
  }
  return axes;
}

std::vector<PlanCell> PlanCells(const PlanGrid& grid, int repeats, std::uint64_t seed) {
  RequireCount(grid, repeats);
  const std::vector<SweepLevels> points = PointsOf(grid.axes);
  const std::vector<BoardSettings> combinations = CombinationsOf(grid.settings);
  const std::size_t boards = std::max<std::size_t>(grid.boards.size(), 1);
  const std::size_t count = boards * points.size() * combinations.size();
  std::vector<PlanCell> cells;
  cells.reserve(count * static_cast<std::size_t>(repeats));
  for (const std::size_t index : RandomOrder(count, repeats, seed)) {
    PlanCell cell;
    cell.repeat = static_cast<int>(cells.size() / count) + 1;
    cell.folder = CellFolder(cells.size() + 1);
    if (!grid.boards.empty()) cell.board = grid.boards[index % boards];
    cell.levels = points[index / boards % points.size()];
    cell.settings = combinations[index / boards / points.size()];
    cells.push_back(std::move(cell));
  }
  return cells;
}

Plan PlanOfSweep(const Sweep& sweep, std::string configText) {
  Plan plan;
  plan.made = sweep.started;
  plan.configPath = sweep.configPath;
  plan.configText = std::move(configText);
  plan.settings = sweep.settings;
  plan.cells.resize(sweep.runs.size());
  for (const SweepRun& run : sweep.runs) {
    plan.cells[static_cast<std::size_t>(run.order - 1)] = {run.folder,   "",         run.levels,
                                                           run.settings, run.repeat, run.dutyPercent};
  }
  return plan;
}

std::string CellLabel(const PlanCell& cell) {
  std::string text = PointText(cell.levels, {}, cell.dutyPercent);
  for (const auto& [name, value] : cell.settings) text += (text.empty() ? "" : ", ") + name + "=" + value;
  text += (text.empty() ? "" : ", ") + std::string("repeat ") + std::to_string(cell.repeat);
  return cell.board.empty() ? text : cell.board + ": " + text;
}

}  // namespace scope
