// SPDX-License-Identifier: Apache-2.0
#include "cell_file.h"

#include <algorithm>
#include <array>
#include <utility>

#include "cell_json.h"
#include "errors.h"
#include "folder_file.h"
#include "run.h"

namespace scope {
namespace {

constexpr SeriesKind kCell = {kCellName, "cell", "a cell", 1};
// A cell has some twenty figures.
constexpr std::uint64_t kMostCellBytes = 1 << 20;

const std::array<std::pair<CellState, const char*>, 6> kCellStates = {
    {{CellState::kDone, "done"},
     {CellState::kFailed, "failed"},
     {CellState::kInterrupted, "interrupted"},
     {CellState::kUnfinished, "unfinished"},
     {CellState::kDamaged, "damaged"},
     {CellState::kMissing, "missing"}}};

CellState CellStateOf(const SeriesJson& json, const std::string& path) {
  const auto text = json.get<std::string>();
  // An attempt that has ended is in one of the first three states.
  const auto* const end = kCellStates.begin() + 3;
  const auto* const at =
      std::find_if(kCellStates.begin(), end, [&text](const auto& one) { return text == one.second; });
  if (at == end) throw DamagedFolder(path + ": unknown state \"" + text + "\"");
  return at->first;
}

}  // namespace

SeriesJson CellJson(const PlanCell& cell) {
  SeriesJson levels = SeriesJson::object();
  for (const auto& [section, level] : cell.levels) levels[section] = level;
  SeriesJson settings = SeriesJson::object();
  for (const auto& [name, value] : cell.settings) settings[name] = value;
  return {{"board", cell.board}, {"levels", levels}, {"settings", settings}, {"repeat", cell.repeat}};
}

PlanCell CellFromJson(const SeriesJson& json) {
  PlanCell cell;
  json.at("board").get_to(cell.board);
  for (const auto& [section, level] : json.at("levels").items())
    cell.levels.emplace_back(section, level.get<int>());
  for (const auto& [name, value] : json.at("settings").items())
    cell.settings.emplace_back(name, value.get<std::string>());
  json.at("repeat").get_to(cell.repeat);
  return cell;
}

std::string CellText(const CellRecord& record) {
  SeriesJson json{{"format", kCell.format},         {"kind", kCell.kind},
                  {"tool", kToolVersion},           {"plan", record.plan},
                  {"number", record.number},        {"cell", CellJson(record.cell)},
                  {"board", record.board},          {"machine", record.machine},
                  {"started", record.started},      {"ended", record.ended},
                  {"state", NameOf(record.state)},  {"reason", record.reason},
                  {"figures", SeriesJson::object()}};
  for (const CellFigure& figure : record.figures)
    json["figures"][figure.engine][figure.figure] = figure.value;
  return json.dump(2, ' ', false, SeriesJson::error_handler_t::replace) + '\n';
}

std::optional<CellRecord> ReadCell(const std::string& folder) {
  const std::string path = folder + "/" + kCellName;
  const std::optional<std::string> text = ReadFolderFile(path, kMostCellBytes);
  if (!text) return std::nullopt;
  try {
    const SeriesJson json = ParseSeriesJson(*text, path, kCell);
    CellRecord record;
    json.at("plan").get_to(record.plan);
    json.at("number").get_to(record.number);
    record.cell = CellFromJson(json.at("cell"));
    json.at("board").get_to(record.board);
    json.at("machine").get_to(record.machine);
    json.at("started").get_to(record.started);
    json.at("ended").get_to(record.ended);
    record.state = CellStateOf(json.at("state"), path);
    json.at("reason").get_to(record.reason);
    for (const auto& [engine, figures] : json.at("figures").items()) {
      for (const auto& [figure, value] : figures.items())
        record.figures.push_back({engine, figure, value.get<double>()});
    }
    return record;
  } catch (const SeriesJson::exception& error) {
    throw DamagedFolder(path + ": " + error.what());
  }
}

const char* NameOf(CellState state) {
  return std::find_if(kCellStates.begin(), kCellStates.end(),
                      [state](const auto& one) { return one.first == state; })
      ->second;
}

}  // namespace scope
