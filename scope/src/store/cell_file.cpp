// SPDX-License-Identifier: Apache-2.0
#include "cell_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <system_error>
#include <utility>

#include "cell_json.h"
#include "errors.h"
#include "folder_file.h"
#include "run.h"
#include "run_json.h"
#include "run_reader.h"

namespace scope {

namespace fs = std::filesystem;

namespace {

constexpr SeriesKind kCell = {kCellName, "cell", "a cell", 1};
constexpr const char* kLooksKey = "looked_for_errors";

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

CellRecord RecordFromJson(const SeriesJson& json, const std::string& path) {
  CellRecord record;
  json.at("plan").get_to(record.plan);
  GetWhole(json.at("number"), "number", record.number);
  record.cell = CellFromJson(json.at("cell"));
  json.at("board").get_to(record.board);
  json.at("machine").get_to(record.machine);
  json.at("started").get_to(record.started);
  json.at("ended").get_to(record.ended);
  record.state = CellStateOf(json.at("state"), path);
  json.at("reason").get_to(record.reason);
  GetFieldIfThere(json, "hung", record.isHung);
  GetFieldIfThere(json, "recorder_failed", record.isRecorderFault);
  for (const auto& [engine, figures] : json.at("figures").items()) {
    for (const auto& [figure, value] : figures.items())
      record.figures.push_back({engine, figure, value.get<double>()});
  }
  // Earlier versions do not have these two.
  record.errors.reset();
  record.looksForErrors.reset();
  if (const auto errors = json.find("errors"); errors != json.end()) {
    record.errors.emplace();
    for (const auto& [source, count] : errors->items())
      GetWhole(count, source, record.errors->emplace_back(source, 0).second);
  }
  if (json.contains(kLooksKey)) GetField(json, kLooksKey, record.looksForErrors.emplace());
  for (const auto& [name, bytes] : json.at("files").items())
    GetWhole(bytes, name, record.files.emplace_back(name, 0).second);
  return record;
}

}  // namespace

SeriesJson CellJson(const PlanCell& cell) {
  SeriesJson levels = SeriesJson::object();
  for (const auto& [section, level] : cell.levels) levels[section] = level;
  return {{"board", cell.board},
          {"levels", levels},
          {"settings", SettingsJson(cell.settings)},
          {"repeat", cell.repeat}};
}

PlanCell CellFromJson(const SeriesJson& json) {
  PlanCell cell;
  json.at("board").get_to(cell.board);
  for (const auto& [section, level] : json.at("levels").items())
    GetWhole(level, section, cell.levels.emplace_back(section, 0).second);
  cell.settings = SettingsFromJson(json.at("settings"));
  GetWhole(json.at("repeat"), "repeat", cell.repeat);
  return cell;
}

std::string CellText(const CellRecord& record) {
  SeriesJson json{{"format", kCell.format},
                  {"kind", kCell.kind},
                  {"tool", kToolVersion},
                  {"plan", record.plan},
                  {"number", record.number},
                  {"cell", CellJson(record.cell)},
                  {"board", record.board},
                  {"machine", record.machine},
                  {"started", record.started},
                  {"ended", record.ended},
                  {"state", NameOf(record.state)},
                  {"reason", record.reason},
                  {"hung", record.isHung},
                  {"recorder_failed", record.isRecorderFault},
                  {"figures", SeriesJson::object()},
                  {"files", SeriesJson::object()}};
  for (const auto& [name, bytes] : record.files) json["files"][name] = bytes;
  if (record.errors) {
    json["errors"] = SeriesJson::object();
    for (const auto& [source, count] : *record.errors) json["errors"][source] = count;
  }
  if (record.looksForErrors) json[kLooksKey] = *record.looksForErrors;
  for (const CellFigure& figure : record.figures)
    json["figures"][figure.engine][figure.figure] = figure.value;
  return json.dump(2, ' ', false, SeriesJson::error_handler_t::replace) + '\n';
}

std::optional<CellRecord> ReadCell(const std::string& folder) {
  const std::string path = folder + "/" + kCellName;
  const std::optional<std::string> text = ReadFolderFile(path, kMostCellBytes);
  if (!text) return std::nullopt;
  return ReadFrom(path, [&] { return RecordFromJson(ParseSeriesJson(*text, path, kCell), path); });
}

std::vector<std::pair<std::string, std::uint64_t>> FilesOf(const std::string& folder) {
  std::vector<std::pair<std::string, std::uint64_t>> files;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    std::error_code ignored;
    if (name != kCellName && entry->is_regular_file(ignored) && !entry->is_symlink(ignored))
      files.emplace_back(name, entry->file_size(ignored));
  }
  if (error) throw UserError("cannot read the folder " + folder + ": " + error.message());
  std::sort(files.begin(), files.end());
  return files;
}

std::string WhatIsMissing(const std::string& folder, const CellRecord& record) {
  bool hasInfo = false;
  for (const auto& [name, bytes] : record.files) {
    hasInfo = hasInfo || name == kInfoName;
    struct stat status{};
    const bool isThere = name.find('/') == std::string::npos &&
                         stat((folder + "/" + name).c_str(), &status) == 0 && S_ISREG(status.st_mode);
    if (!isThere) return name + " is missing";
    const auto found = static_cast<std::uint64_t>(status.st_size);
    if (found != bytes)
      return name + " has " + std::to_string(found) + " bytes, expected " + std::to_string(bytes);
  }
  return hasInfo ? "" : std::string(kInfoName) + " is missing";
}

bool IsWholeCell(const std::string& folder, const std::string& plan, std::size_t number) {
  try {
    const std::optional<CellRecord> record = ReadCell(folder);
    return record && record->plan == plan && record->number == number && record->state == CellState::kDone &&
           WhatIsMissing(folder, *record).empty() && ReadRunInfo(folder).complete;
  } catch (const UserError&) {
    return false;
  }
}

const char* NameOf(CellState state) {
  return std::find_if(kCellStates.begin(), kCellStates.end(),
                      [state](const auto& one) { return one.first == state; })
      ->second;
}

}  // namespace scope
