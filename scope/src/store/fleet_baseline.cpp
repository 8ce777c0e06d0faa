// SPDX-License-Identifier: Apache-2.0
#include "fleet_baseline.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <optional>

#include "cell_json.h"
#include "durable_file.h"
#include "errors.h"
#include "folder_file.h"
#include "plan_file.h"
#include "series_json.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr SeriesKind kBaseline = {"", "fleet baseline", "a baseline of a fleet", 1};
constexpr std::size_t kSetupDigits = 16;

double NumberOf(const SeriesJson& json, const std::string& where, double least) {
  const auto value = json.get<double>();
  if (std::isfinite(value) && value >= least) return value;
  throw UserError(where + Format(": expected a number from %g on, found %g", least, value));
}

int NightsOf(const SeriesJson& json, const std::string& where) {
  int nights = 0;
  GetWhole(json, where + ": nights", nights);
  if (nights >= 0) return nights;
  throw UserError(where + ": expected a number of nights from 0 on, found " + std::to_string(nights));
}

Figure FigureOf(const std::string& name, const std::string& where) {
  for (const FigureKind* const kind : EngineKinds()) {
    if (kind->compared && name == kind->name) return kind->figure;
  }
  throw UserError(where + ": unknown figure \"" + name + "\"");
}

// The mean and the scatter are of logarithms.
constexpr double kLeastLogarithm = -1000;

MeasureHistory MeasureFromJson(const SeriesJson& json, const std::string& where) {
  MeasureHistory history;
  for (const auto& [section, level] : json.at("levels").items())
    GetWhole(level, where + ": " + section, history.measure.levels.emplace_back(section, 0).second);
  for (const auto& [name, value] : json.at("settings").items())
    history.measure.settings.emplace_back(name, value.get<std::string>());
  json.at("engine").get_to(history.measure.engine);
  history.measure.figure = FigureOf(json.at("figure").get<std::string>(), where);
  history.deviation = NumberOf(json.at("deviation"), where + ": deviation", 0);
  history.nights = NightsOf(json.at("nights"), where);
  history.runs = NumberOf(json.at("runs"), where + ": runs", 0);
  for (const SeriesJson& each : json.at("boards")) {
    BoardHistory board;
    each.at(0).get_to(board.board);
    RequireBoardName(board.board, where + ": board");
    board.middle = NumberOf(each.at(1), where + ": " + board.board, kLeastLogarithm);
    board.deviation = NumberOf(each.at(2), where + ": " + board.board, 0);
    board.nights = NightsOf(each.at(3), where + ": " + board.board);
    if (board.nights == 0) throw UserError(where + ": " + board.board + ": expected at least one night");
    history.boards.push_back(std::move(board));
  }
  return history;
}

FleetHistory HistoryFromJson(const SeriesJson& json) {
  FleetHistory history;
  json.at("made").get_to(history.made);
  json.at("setup").get_to(history.setup);
  if (history.setup.size() != kSetupDigits)
    throw UserError("setup: expected 16 digits, found \"" + history.setup + "\"");
  json.at("nights").get_to(history.nights);
  if (!json.at("measures").is_array()) throw UserError("expected a list of measures");
  for (const SeriesJson& each : json.at("measures")) {
    history.measures.push_back(
        MeasureFromJson(each, "measure " + std::to_string(history.measures.size() + 1)));
  }
  return history;
}

SeriesJson MeasureJson(const MeasureHistory& history) {
  PlanCell point;
  point.levels = history.measure.levels;
  point.settings = history.measure.settings;
  SeriesJson json = CellJson(point);
  json.erase("board");
  json.erase("repeat");
  json["engine"] = history.measure.engine;
  json["figure"] = KindOf(history.measure.figure).name;
  json["deviation"] = history.deviation;
  json["nights"] = history.nights;
  json["runs"] = history.runs;
  json["boards"] = SeriesJson::array();
  for (const BoardHistory& board : history.boards)
    json["boards"].push_back({board.board, board.middle, board.deviation, board.nights});
  return json;
}

}  // namespace

FleetHistory ReadBaseline(const std::string& path) {
  const std::optional<std::string> text = ReadFolderFile(path, kMostJsonBytes);
  if (!text) {
    throw UserError("cannot read the baseline " + path + ": " + std::strerror(errno) +
                    ". Make one with stress_scope fleet DIR --save-baseline " + path);
  }
  return ReadFrom(path, [&] { return HistoryFromJson(ParseSeriesJson(*text, path, kBaseline)); });
}

void WriteBaseline(const std::string& path, const FleetHistory& history) {
  const SeriesJson head{{"format", kBaseline.format}, {"kind", kBaseline.kind}, {"tool", kToolVersion},
                        {"made", history.made},       {"setup", history.setup}, {"nights", history.nights}};
  const std::string text = TextWithLines(head, "measures", history.measures, MeasureJson);
  if (text.size() > kMostJsonBytes) {
    throw UserError("the baseline has " + std::to_string(text.size() >> 20) + " MiB, expected at most " +
                    std::to_string(kMostJsonBytes >> 20));
  }
  ReplaceFile(path, text);
}

}  // namespace scope
