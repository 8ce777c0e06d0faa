// SPDX-License-Identifier: Apache-2.0
#include "fleet_reader.h"
#include "fleet_text.h"
#include "text_format.h"
#include "xml_text.h"

namespace scope {
namespace {

using stress::XmlText;

std::string Element(const char* name, const char* type, const std::vector<std::string>& lines) {
  const std::string first = lines.empty() ? "" : lines.front();
  return "      <" + std::string(name) + " type=\"" + type + "\" message=\"" + XmlText(first) + "\">" +
         XmlText(Joined(lines, "\n")) + "</" + name + ">\n";
}

// What is wrong with the board, by line.
std::vector<std::string> LinesOf(const FleetReport& report, std::uint32_t board) {
  std::vector<std::string> lines;
  for (const FleetFinding& finding : FindingsOf(report.verdict, board))
    lines.push_back(FindingText(report, finding));
  for (const FleetReasons& reasons : report.reasons) {
    if (reasons.board != board) continue;
    for (const ConditionDifference& one : reasons.conditions)
      lines.push_back(one.name + ": " + one.b + "; typical boards: " + one.a);
    lines.insert(lines.end(), reasons.troubles.begin(), reasons.troubles.end());
  }
  return lines;
}

// One pass over the cells that are not done, not one a board.
std::vector<std::vector<std::string>> NotDoneOf(const Fleet& fleet) {
  std::vector<std::vector<std::string>> lines(fleet.boards.size());
  for (const FleetCell& cell : fleet.notDone) lines[cell.board].push_back(CellText(cell));
  return lines;
}

// The same of the cells with errors.
std::vector<std::vector<std::string>> ErrorLinesOf(const Fleet& fleet) {
  std::vector<std::vector<std::string>> lines(fleet.boards.size());
  for (const ErrorCell& cell : fleet.errors) lines[cell.board].push_back(cell.text);
  return lines;
}

// The content of the board's test: one element at most, as readers of the format expect. `errors` and
// `notDone` are lines on its cells.
std::string ResultOf(const FleetReport& report, std::uint32_t board, const std::vector<std::string>& errors,
                     const std::vector<std::string>& notDone) {
  const BoardState state = report.verdict.boards[board].state;
  std::vector<std::string> lines = LinesOf(report, board);
  lines.insert(lines.begin(), errors.begin(), errors.end());
  lines.insert(lines.end(), notDone.begin(), notDone.end());
  switch (state) {
    case BoardState::kErrors:
    case BoardState::kOdd:
    case BoardState::kWorse:
      return Element("failure", NameOf(state), lines);
    case BoardState::kFailed:
      return Element("error", NameOf(state), lines);
    case BoardState::kNoRuns:
      lines.insert(lines.begin(), "no runs in this night");
      return Element("error", NameOf(state), lines);
    case BoardState::kVanished:
      return Element("error", NameOf(state), {"absent: " + AbsentText(report, board)});
    case BoardState::kAbsent:
      return "      <skipped message=\"" + XmlText("absent: " + AbsentText(report, board)) + "\"/>\n";
    default:
      return "";
  }
}

}  // namespace

std::string FleetJunit(const FleetReport& report) {
  const Fleet& fleet = report.fleet;
  const std::string night = fleet.nights.back().name;
  const auto notDone = NotDoneOf(fleet);
  const auto errorLines = ErrorLinesOf(fleet);
  std::string tests;
  std::size_t count = 0;
  std::size_t skipped = 0;
  for (std::uint32_t board = 0; board < fleet.boards.size(); ++board) {
    const BoardState state = report.verdict.boards[board].state;
    const bool isIncomplete = state == BoardState::kIncomplete;
    // The board of cells that any may run is none.
    if (state == BoardState::kAbsent && !IsAbsent(report.verdict.boards[board])) continue;
    ++count;
    skipped += state == BoardState::kAbsent ? 1 : 0;
    tests += "    <testcase classname=\"" + XmlText("fleet." + night) + "\" name=\"" +
             XmlText(fleet.boards[board]) + "\" time=\"0\">\n" +
             ResultOf(report, board, errorLines[board], notDone[board]);
    // It is not wrong, but whoever reads wants to know.
    if (isIncomplete) {
      std::vector<std::string> lines = notDone[board];
      const std::vector<std::string>& lacking = report.verdict.boards[board].lacking;
      lines.insert(lines.end(), lacking.begin(), lacking.end());
      tests += "      <system-out>" + XmlText(Joined(lines, "\n")) + "</system-out>\n";
    }
    tests += "    </testcase>\n";
  }
  std::vector<std::string> changes;
  for (std::size_t i = 0; i < report.verdict.measures.size(); ++i) {
    const auto& change = report.verdict.measures[i].change;
    if (change && change->worse)
      changes.push_back("the whole fleet is worse than before: " + MeasureTitle(fleet.measures[i], true) +
                        Format(" %+.1f %%", change->differencePercent));
  }
  ++count;
  tests += "    <testcase classname=\"" + XmlText("fleet." + night) +
           "\" name=\"(the whole fleet)\" time=\"0\">\n" +
           (changes.empty() ? "" : Element("failure", "worse", changes)) + "    </testcase>\n";
  const FleetVerdict& verdict = report.verdict;
  const std::size_t failures = CountOf(verdict, BoardState::kErrors) + CountOf(verdict, BoardState::kOdd) +
                               CountOf(verdict, BoardState::kWorse) + (changes.empty() ? 0 : 1);
  const std::size_t errors = CountOf(verdict, BoardState::kFailed) + CountOf(verdict, BoardState::kNoRuns) +
                             CountOf(verdict, BoardState::kVanished);
  const std::string counts =
      Format(" tests=\"%zu\" failures=\"%zu\" errors=\"%zu\" time=\"0\"", count, failures, errors);
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites" + counts + ">\n  <testsuite name=\"" +
         XmlText("stress_scope fleet " + night) + "\"" + counts + Format(" skipped=\"%zu\"", skipped) +
         ">\n" + tests + "  </testsuite>\n</testsuites>\n";
}

}  // namespace scope
