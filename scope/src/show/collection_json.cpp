// SPDX-License-Identifier: Apache-2.0
#include "cell_file.h"
#include "collection.h"
#include "collection_text.h"
#include "json.h"
#include "page_data.h"
#include "run.h"

namespace scope {

std::string CollectionJson(const std::string& folder, const Plan& plan,
                           const std::vector<CellStatus>& cells) {
  Json counts = Json::object();
  for (const CellState state : {CellState::kDone, CellState::kFailed, CellState::kDamaged,
                                CellState::kInterrupted, CellState::kUnfinished, CellState::kMissing}) {
    counts[NameOf(state)] = CountOf(cells, state);
  }
  Json json{{"format", 1},
            {"kind", "collection"},
            {"tool", kToolVersion},
            {"folder", folder},
            {"plan", plan.id},
            {"made", plan.made},
            {"seed", plan.settings.seed},
            {"warmup_s", plan.settings.warmupS},
            {"complete", CountOf(cells, CellState::kDone) == cells.size()},
            {"counts", counts},
            {"cells_with_errors", CountWithErrors(cells)},
            {"to_run", NumbersToRun(cells)}};
  Json list = Json::array();
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const PlanCell& cell = plan.cells[i];
    Json levels = Json::object();
    for (const auto& [section, level] : cell.levels) levels[section] = level;
    Json settings = Json::object();
    for (const auto& [name, value] : cell.settings) settings[name] = value;
    list.push_back(Json{{"number", i + 1},
                        {"board", cell.board},
                        {"levels", levels},
                        {"settings", settings},
                        {"repeat", cell.repeat},
                        {"state", NameOf(cells[i].state)},
                        {"reason", cells[i].reason},
                        {"errors", cells[i].errors ? ErrorCountsJson(*cells[i].errors) : Json(nullptr)},
                        {"earlier_errors", ErrorCountsJson(cells[i].earlierErrors)},
                        {"folder", cells[i].folder},
                        {"ran_on", cells[i].board}});
  }
  json["cells"] = std::move(list);
  return JsonText(json);
}

}  // namespace scope
