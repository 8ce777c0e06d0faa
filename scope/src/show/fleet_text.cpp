// SPDX-License-Identifier: Apache-2.0
#include "fleet_text.h"

#include <algorithm>
#include <cmath>

#include "cell_file.h"
#include "fleet_reader.h"
#include "printable.h"
#include "run_error.h"
#include "text_format.h"
#include "text_table.h"

namespace scope {
namespace {

// Ten thousand boards would fill the terminal.
constexpr std::size_t kMostRows = 20;

std::size_t Cells(const FleetReport& report, bool isDone) {
  std::size_t count = 0;
  for (const BoardVerdict& board : report.verdict.boards) {
    for (std::size_t state = 0; state < board.cells.size(); ++state) {
      if (!isDone || state == static_cast<std::size_t>(CellState::kDone)) count += board.cells[state];
    }
  }
  return count;
}

std::string SignedPercent(double percent) {
  return std::abs(percent) < 1000 ? Format("%+.1f %%", percent) : Format("%+.3g %%", percent);
}

std::vector<std::string> FindingRow(const FleetReport& report, const FleetFinding& finding,
                                    const TextStyle& style) {
  const FleetMeasure& measure = report.fleet.measures[finding.measure];
  const auto text = KindOf(measure.figure).text;
  const bool isOdd = finding.kind == FleetFinding::Kind::kOdd;
  return {Printable(report.fleet.boards[finding.board]),
          Painted(isOdd ? "odd" : "worse", Colour::kBad, style),
          Printable(MeasureTitle(measure, false)),
          Printable(PointLabel(measure)),
          text(finding.value),
          text(finding.low) + " to " + text(finding.high),
          SignedPercent(finding.differencePercent)};
}

std::string FindingTable(const FleetReport& report, const TextStyle& style) {
  if (report.verdict.findings.empty()) return "";
  TextTable table("lllll");
  table.Add({"board", "why", "figure", "at", "value", "expected", "difference"});
  std::size_t shown = 0;
  std::size_t cut = 0;
  for (const std::uint32_t board : report.verdict.standOut) {
    for (const FleetFinding& finding : FindingsOf(report.verdict, board)) {
      if (shown == kMostRows) {
        ++cut;
        continue;
      }
      table.Add(FindingRow(report, finding, style));
      ++shown;
    }
  }
  std::string text = "\n" + table.Text(style.width);
  if (cut != 0) text += Counted(cut, "more finding") + "; --json and the page have more\n";
  return text;
}

std::string ReasonText(const FleetReport& report) {
  std::string text;
  for (const FleetReasons& reasons : report.reasons) {
    if (reasons.conditions.empty() && reasons.troubles.empty()) continue;
    text += '\n' + Printable(report.fleet.boards[reasons.board]);
    if (!reasons.typical.empty()) text += " beside " + Printable(Joined(reasons.typical, ", "));
    text += ":\n";
    for (const ConditionDifference& one : reasons.conditions)
      text += "  " + Printable(one.name) + ": " + Printable(one.b) + "; typical boards: " + Printable(one.a) +
              "\n";
    for (const std::string& trouble : reasons.troubles) text += "  " + Printable(trouble) + "\n";
  }
  return text;
}

// What needs a look before all else, the boards in their order.
std::string ErrorLines(const FleetReport& report, const TextStyle& style) {
  std::vector<const ErrorCell*> cells;
  for (const ErrorCell& cell : report.fleet.errors) cells.push_back(&cell);
  std::stable_sort(cells.begin(), cells.end(), [&](const ErrorCell* a, const ErrorCell* b) {
    return AllErrors(report.verdict.boards[a->board].errors) >
           AllErrors(report.verdict.boards[b->board].errors);
  });
  std::string text;
  for (std::size_t i = 0; i < std::min(cells.size(), kMostRows); ++i)
    text += Painted("! ", Colour::kBad, style) + Printable(cells[i]->text) + "\n";
  if (cells.size() > kMostRows)
    text += Counted(cells.size() - kMostRows, "more cell") + " with errors; --json and the page have more\n";
  return text.empty() ? "" : "\n" + text;
}

// A line with the first names.
std::string ListText(const char* title, std::vector<std::string> names, const char* between) {
  if (names.empty()) return "";
  const std::size_t more = names.size() > kMostRows ? names.size() - kMostRows : 0;
  names.resize(names.size() - more);
  return title + Printable(Joined(names, between)) +
         (more == 0 ? "" : between + std::string("and ") + std::to_string(more) + " more") + "\n";
}

// Cells that need a look. Of those that are missing, the boards say how many.
std::string NotDoneText(const FleetReport& report, const TextStyle& style) {
  std::string text;
  std::size_t shown = 0;
  std::size_t cut = 0;
  std::size_t missing = 0;
  for (const FleetCell& cell : report.fleet.notDone) {
    if (cell.state == CellState::kMissing) {
      ++missing;
    } else if (shown == kMostRows) {
      ++cut;
    } else {
      ++shown;
      const bool isBad = cell.state == CellState::kFailed || cell.state == CellState::kDamaged;
      text += Painted(isBad ? "! " : "  ", isBad ? Colour::kBad : Colour::kUnclear, style) +
              Printable(CellText(cell)) + "\n";
    }
  }
  if (cut != 0) text += Counted(cut, "more cell") + " not done\n";
  if (missing != 0) text += Counted(missing, "cell") + " missing\n";
  std::vector<std::string> silent;
  for (std::size_t i = 0; i < report.verdict.boards.size(); ++i) {
    if (report.verdict.boards[i].state == BoardState::kNoRuns) silent.push_back(report.fleet.boards[i]);
  }
  text += ListText("no runs: ", silent, ", ");
  std::vector<std::string> absent;
  for (std::uint32_t i = 0; i < report.verdict.boards.size(); ++i) {
    if (IsAbsent(report.verdict.boards[i])) absent.push_back(AbsentText(report, i));
  }
  text += ListText("absent: ", absent, "; ");
  return text.empty() ? "" : "\n" + text;
}

std::string FleetTable(const FleetReport& report, const TextStyle& style) {
  TextTable table("ll");
  table.Add({"figure", "at", "boards", "median", "5 % are below", "5 % are above", "change"});
  std::size_t shown = 0;
  std::size_t cut = 0;
  for (std::size_t i = 0; i < report.fleet.measures.size(); ++i) {
    const MeasureVerdict& verdict = report.verdict.measures[i];
    const FleetMeasure& measure = report.fleet.measures[i];
    if (!verdict.judged || verdict.nights.back().boards == 0) continue;
    if (shown++ >= kMostRows) {
      ++cut;
      continue;
    }
    const NightSpread& last = verdict.nights.back();
    const auto text = KindOf(measure.figure).text;
    std::string change = verdict.change ? SignedPercent(verdict.change->differencePercent) : "-";
    if (verdict.change && verdict.change->worse) change = Painted(change, Colour::kBad, style);
    table.Add({Printable(MeasureTitle(measure, false)), Printable(PointLabel(measure)),
               std::to_string(last.boards), text(last.median), text(last.low), text(last.high), change});
  }
  if (shown == 0) return "";
  std::string text = "\n" + table.Text(style.width);
  if (cut != 0) text += Counted(cut, "more figure") + "\n";
  return text;
}

// "1 odd, 2 failed"; empty if no board stands out.
std::string CountsText(const FleetVerdict& verdict) {
  std::vector<std::string> parts;
  const std::pair<BoardState, const char*> states[] = {
      {BoardState::kErrors, " with errors"},      {BoardState::kOdd, " odd"},
      {BoardState::kWorse, " worse than before"}, {BoardState::kFailed, " failed"},
      {BoardState::kNoRuns, " without runs"},     {BoardState::kVanished, " vanished"}};
  for (const auto& [state, text] : states) {
    const std::size_t count = CountOf(verdict, state);
    if (count != 0) parts.push_back(std::to_string(count) + text);
  }
  return Joined(parts, ", ");
}

}  // namespace

int ExitStatusOf(const FleetVerdict& verdict) {
  return verdict.isGood ? 0 : 1;
}

std::string FindingText(const FleetReport& report, const FleetFinding& finding) {
  const FleetMeasure& measure = report.fleet.measures[finding.measure];
  const auto text = KindOf(measure.figure).text;
  return std::string(finding.kind == FleetFinding::Kind::kOdd ? "odd: " : "worse than before: ") +
         MeasureTitle(measure, true) + " is " + text(finding.value) + ", expected " + text(finding.low) +
         " to " + text(finding.high) + " (" + SignedPercent(finding.differencePercent) + ")";
}

std::vector<FleetFinding> FindingsOf(const FleetVerdict& verdict, std::uint32_t board) {
  const auto less = [](const FleetFinding& one, std::uint32_t wanted) { return one.board < wanted; };
  const auto from = std::lower_bound(verdict.findings.begin(), verdict.findings.end(), board, less);
  return {from, std::lower_bound(from, verdict.findings.end(), board + 1, less)};
}

std::string CellText(const FleetCell& cell) {
  std::string text = "cell " + std::to_string(cell.number) + " (" + cell.label + ") " + NameOf(cell.state);
  if (!cell.reason.empty()) text += ": " + cell.reason.substr(0, cell.reason.find('\n'));
  return cell.folder.empty() ? text : text + "; see " + cell.folder;
}

bool IsAbsent(const BoardVerdict& board) {
  return (board.state == BoardState::kAbsent && board.lastSeen) || board.state == BoardState::kVanished;
}

std::string AbsentText(const FleetReport& report, std::uint32_t board) {
  return report.fleet.boards[board] + ", last seen " +
         report.fleet.nights[*report.verdict.boards[board].lastSeen].name;
}

std::string FleetSentence(const FleetReport& report) {
  const FleetVerdict& verdict = report.verdict;
  const std::size_t present = static_cast<std::size_t>(
      std::count_if(verdict.boards.begin(), verdict.boards.end(),
                    [](const BoardVerdict& board) { return board.state != BoardState::kAbsent; }));
  const std::string counts = CountsText(verdict);
  const std::size_t all = Cells(report, false);
  const std::size_t done = Cells(report, true);
  std::string text = report.fleet.nights.back().name + ": ";
  text += counts.empty() ? "none of " + Counted(present, "board") + " stands out"
                         : std::to_string(verdict.standOut.size()) + " of " + Counted(present, "board") +
                               " to look at: " + counts;
  text += all == done ? "; all " + Counted(all, "cell") + " done"
                      : "; " + std::to_string(all - done) + " of " + Counted(all, "cell") + " not done";
  for (std::size_t i = 0; i < verdict.measures.size(); ++i) {
    const auto& change = verdict.measures[i].change;
    if (!change || !change->worse) continue;
    return text + "; the whole fleet is worse than before: " + MeasureTitle(report.fleet.measures[i], true) +
           " " + SignedPercent(change->differencePercent);
  }
  return text;
}

std::string FleetText(const FleetReport& report, const TextStyle& style) {
  const FleetVerdict& verdict = report.verdict;
  const Colour colour = verdict.isGood ? Colour::kGood : Colour::kBad;
  std::string text = Painted(Printable(FleetSentence(report)), colour, style) + "\n" +
                     ErrorLines(report, style) + FindingTable(report, style) + ReasonText(report) +
                     NotDoneText(report, style) + FleetTable(report, style);
  std::vector<std::string> notes = report.fleet.notes;
  notes.insert(notes.end(), verdict.notes.begin(), verdict.notes.end());
  for (const std::string& note : notes) text += "\nnote: " + Printable(note);
  return notes.empty() ? text : text + "\n";
}

}  // namespace scope
