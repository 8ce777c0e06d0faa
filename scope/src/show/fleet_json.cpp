// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cmath>
#include <set>

#include "cell_file.h"
#include "distributions.h"
#include "fleet_reader.h"
#include "fleet_text.h"
#include "page_data.h"
#include "text_format.h"

namespace scope {
namespace {

// The page of ten thousand boards stays below 5 MB.
constexpr std::size_t kMostDetailed = 30;
constexpr std::size_t kFewBoards = 12;  // all of them are shown in detail
constexpr std::size_t kMostFigures = 20;
constexpr std::size_t kMostNights = 60;
constexpr std::size_t kMostMeasures = 300;
constexpr std::size_t kMostCells = 2000;
constexpr double kIntervalError = 0.05;

std::size_t FirstNight(const Fleet& fleet) {
  return fleet.nights.size() > kMostNights ? fleet.nights.size() - kMostNights : 0;
}

Json PointJson(const FleetMeasure& measure) {
  Json levels = Json::object();
  for (const auto& [section, level] : measure.levels) levels[section] = level;
  Json settings = Json::object();
  for (const auto& [name, value] : measure.settings) settings[name] = value;
  return Json{{"levels", levels}, {"settings", settings}};
}

Json MeasureJson(const FleetReport& report, std::size_t index, bool hasNights) {
  const FleetMeasure& measure = report.fleet.measures[index];
  const MeasureVerdict& verdict = report.verdict.measures[index];
  const FigureKind& kind = KindOf(measure.figure);
  Json json = PointJson(measure);
  json.update(Json{{"engine", measure.engine},
                   {"figure", kind.name},
                   {"title", MeasureTitle(measure, true)},
                   {"unit", kind.unit},
                   {"lower_is_better", kind.lowerIsBetter},
                   {"judged", verdict.judged}});
  Json nights = Json::array();
  for (std::size_t night = FirstNight(report.fleet); hasNights && night < verdict.nights.size(); ++night) {
    const NightSpread& spread = verdict.nights[night];
    if (spread.boards != 0)
      nights.push_back(
          {night, spread.boards, Rounded(spread.median), Rounded(spread.low), Rounded(spread.high)});
  }
  json["nights"] = std::move(nights);
  json["change_percent"] = verdict.change ? Rounded(verdict.change->differencePercent) : Json(nullptr);
  json["change_limit_percent"] = verdict.change ? Rounded(verdict.change->limitPercent) : Json(nullptr);
  json["worse"] = verdict.change && verdict.change->worse;
  return json;
}

Json FindingJson(const FleetReport& report, const FleetFinding& finding) {
  return Json{{"kind", finding.kind == FleetFinding::Kind::kOdd ? "odd" : "worse"},
              {"measure", finding.measure},
              {"value", Rounded(finding.value)},
              {"expected", Rounded(finding.expected)},
              {"low", Rounded(finding.low)},
              {"high", Rounded(finding.high)},
              {"difference_percent", Rounded(finding.differencePercent)},
              {"text", FindingText(report, finding)}};
}

// The board's nights in a measure: night, value, and the limits of its interval over the runs of the night.
Json ValuesJson(const FleetReport& report, std::uint32_t measure, std::uint32_t board) {
  const Fleet& fleet = report.fleet;
  const MeasureVerdict& verdict = report.verdict.measures[measure];
  const auto [from, to] = SpanOf(fleet, measure);
  const auto begin = fleet.values.begin();
  auto at = std::lower_bound(
      begin + static_cast<std::ptrdiff_t>(from), begin + static_cast<std::ptrdiff_t>(to), board,
      [](const FleetValue& value, std::uint32_t wanted) { return value.board < wanted; });
  Json values = Json::array();
  for (; at != begin + static_cast<std::ptrdiff_t>(to) && at->board == board; ++at) {
    if (at->night < FirstNight(fleet)) continue;
    Json low = nullptr;
    Json high = nullptr;
    if (verdict.runFreedom >= 1) {
      const double reach = StudentQuantile(1 - kIntervalError / 2, verdict.runFreedom) *
                           verdict.runDeviation / std::sqrt(static_cast<double>(at->runs));
      low = Rounded(std::exp(at->middle - reach));
      high = Rounded(std::exp(at->middle + reach));
    }
    values.push_back({at->night, Rounded(std::exp(at->middle)), low, high});
  }
  return values;
}

// The figures with findings first, then those that are judged, then others.
std::vector<std::uint32_t> FiguresOf(const FleetReport& report, std::uint32_t board) {
  std::vector<std::uint32_t> figures;
  std::set<std::uint32_t> taken;
  const auto take = [&](std::uint32_t measure) {
    if (figures.size() < kMostFigures && taken.insert(measure).second) figures.push_back(measure);
  };
  for (const FleetFinding& finding : FindingsOf(report.verdict, board)) take(finding.measure);
  for (const bool judged : {true, false}) {
    for (std::uint32_t i = 0; i < report.verdict.measures.size(); ++i) {
      if (report.verdict.measures[i].judged == judged) take(i);
    }
  }
  return figures;
}

Json DetailJson(const FleetReport& report, std::uint32_t board) {
  Json findings = Json::array();
  for (const FleetFinding& finding : FindingsOf(report.verdict, board)) {
    if (findings.size() < kMostFigures) findings.push_back(FindingJson(report, finding));
  }
  Json figures = Json::array();
  for (const std::uint32_t measure : FiguresOf(report, board)) {
    Json values = ValuesJson(report, measure, board);
    if (!values.empty()) figures.push_back(Json{{"measure", measure}, {"values", std::move(values)}});
  }
  Json conditions = Json::array();
  Json troubles = Json::array();
  Json typical = Json::array();
  for (const FleetReasons& reasons : report.reasons) {
    if (reasons.board != board) continue;
    typical = reasons.typical;
    troubles = reasons.troubles;
    for (const ConditionDifference& one : reasons.conditions)
      conditions.push_back(Json{{"name", one.name}, {"typical", one.a}, {"here", one.b}});
  }
  return Json{{"board", report.fleet.boards[board]},
              {"state", NameOf(report.verdict.boards[board].state)},
              {"errors", ErrorCountsJson(report.verdict.boards[board].errors)},
              {"findings", findings},
              {"figures", figures},
              {"typical_boards", typical},
              {"conditions", conditions},
              {"troubles", troubles}};
}

std::vector<std::uint32_t> DetailedOf(const FleetReport& report) {
  std::vector<std::uint32_t> boards = report.verdict.standOut;
  if (boards.size() > kMostDetailed) boards.resize(kMostDetailed);
  std::vector<std::uint32_t> more = report.named;
  for (std::uint32_t i = 0; report.fleet.boards.size() <= kFewBoards && i < report.fleet.boards.size(); ++i)
    more.push_back(i);
  for (const std::uint32_t board : more) {
    if (std::count(boards.begin(), boards.end(), board) == 0) boards.push_back(board);
  }
  return boards;
}

Json BoardJson(const FleetReport& report, std::size_t index) {
  const BoardVerdict& board = report.verdict.boards[index];
  std::size_t cells = 0;
  for (const std::uint32_t each : board.cells) cells += each;
  Json nights = Json::array();
  for (std::size_t night = FirstNight(report.fleet); night < board.index.size(); ++night) {
    // One decimal, and null where there are no runs.
    const float value = board.index[night];
    nights.push_back(value > 0 ? Json(std::round(static_cast<double>(value) * 10) / 10) : Json(nullptr));
  }
  return Json{{"board", report.fleet.boards[index]},
              {"state", NameOf(board.state)},
              {"cells", cells},
              {"done", board.cells[static_cast<std::size_t>(CellState::kDone)]},
              {"index", std::move(nights)}};
}

Json NightsJson(const Fleet& fleet) {
  Json nights = Json::array();
  for (const FleetNight& night : fleet.nights) {
    std::size_t cells = 0;
    std::size_t done = 0;
    for (const CellCounts& board : night.cells) {
      for (const std::uint32_t count : board) cells += count;
      done += board[static_cast<std::size_t>(CellState::kDone)];
    }
    std::uint64_t errors = 0;
    for (const std::uint64_t board : night.errors) errors += board;
    nights.push_back(Json{{"night", night.name},
                          {"plan", night.plan},
                          {"made", night.made},
                          {"compared", night.setup == fleet.nights.back().setup},
                          {"cells", cells},
                          {"done", done},
                          {"errors", errors}});
  }
  return nights;
}

Json ErrorCellsJson(const Fleet& fleet) {
  Json cells = Json::array();
  for (const ErrorCell& cell : fleet.errors) {
    if (cells.size() == kMostCells) break;
    cells.push_back(Json{{"number", cell.number},
                         {"board", fleet.boards[cell.board]},
                         {"errors", ErrorCountsJson(cell.errors)},
                         {"text", cell.text}});
  }
  return cells;
}

Json NotDoneJson(const Fleet& fleet) {
  Json cells = Json::array();
  for (const bool missing : {false, true}) {
    for (const FleetCell& cell : fleet.notDone) {
      if ((cell.state == CellState::kMissing) != missing || cells.size() == kMostCells) continue;
      cells.push_back(Json{{"number", cell.number},
                           {"board", fleet.boards[cell.board]},
                           {"state", NameOf(cell.state)},
                           {"reason", cell.reason},
                           {"folder", cell.folder},
                           {"text", CellText(cell)}});
    }
  }
  return cells;
}

Json AbsentJson(const FleetReport& report) {
  Json boards = Json::array();
  for (std::uint32_t i = 0; i < report.verdict.boards.size(); ++i) {
    const BoardVerdict& board = report.verdict.boards[i];
    if (!IsAbsent(board) || boards.size() == kMostCells) continue;
    boards.push_back(Json{{"board", report.fleet.boards[i]},
                          {"last_seen", report.fleet.nights[*board.lastSeen].name},
                          {"text", "absent: " + AbsentText(report, i)}});
  }
  return boards;
}

Json CountsJson(const FleetReport& report) {
  Json counts = Json::object();
  for (int state = static_cast<int>(BoardState::kErrors); state >= 0; --state) {
    const auto each = static_cast<BoardState>(state);
    counts[NameOf(each)] = CountOf(report.verdict, each);
  }
  return counts;
}

Json FleetData(const FleetReport& report) {
  const Fleet& fleet = report.fleet;
  Json details = Json::array();
  for (const std::uint32_t board : DetailedOf(report)) details.push_back(DetailJson(report, board));
  Json measures = Json::array();
  for (std::size_t i = 0; i < fleet.measures.size(); ++i)
    measures.push_back(MeasureJson(report, i, i < kMostMeasures));
  Json boards = Json::array();
  for (std::size_t i = 0; i < fleet.boards.size(); ++i) boards.push_back(BoardJson(report, i));
  Json notes = fleet.notes;
  for (const std::string& note : report.verdict.notes) notes.push_back(note);
  return Json{{"format", 1},
              {"kind", "fleet"},
              {"tool", kToolVersion},
              {"folder", fleet.folder},
              {"night", fleet.nights.back().name},
              {"sentence", FleetSentence(report)},
              {"exit_status", ExitStatusOf(report.verdict)},
              {"confidence", report.options.confidence},
              {"tolerance_percent", report.options.tolerancePercent},
              {"baseline", report.baseline.empty() ? Json(nullptr) : Json(report.baseline)},
              {"nights_before", report.nightsBefore},
              {"boards_compared", report.verdict.judgedBoards},
              {"boards_with_history", report.verdict.judgedBefore},
              {"first_night", FirstNight(fleet)},
              {"counts", CountsJson(report)},
              {"nights", NightsJson(fleet)},
              {"measures", std::move(measures)},
              {"details", std::move(details)},
              {"boards", std::move(boards)},
              {"with_errors", ErrorCellsJson(fleet)},
              {"cells_with_errors", fleet.errors.size()},
              {"not_done", NotDoneJson(fleet)},
              {"not_done_cells", fleet.notDone.size()},
              {"absent", AbsentJson(report)},
              {"notes", notes}};
}

}  // namespace

std::string FleetJson(const FleetReport& report) {
  return JsonText(FleetData(report));
}

std::string FleetPage(const FleetReport& report) {
  return PageOf(FleetData(report));
}

}  // namespace scope
