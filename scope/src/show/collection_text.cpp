// SPDX-License-Identifier: Apache-2.0
#include "collection_text.h"

#include <array>
#include <map>

#include "cell_file.h"
#include "cell_plan.h"
#include "collection.h"
#include "printable.h"
#include "run_error.h"
#include "text_format.h"
#include "text_table.h"

namespace scope {
namespace {

// Boards that are not complete, cells with errors, and cells that are not done. Ten thousand boards would
// fill the terminal.
constexpr std::size_t kMostShown = 20;

constexpr std::array<CellState, 6> kColumns = {CellState::kDone,       CellState::kFailed,
                                               CellState::kDamaged,    CellState::kInterrupted,
                                               CellState::kUnfinished, CellState::kMissing};

using Counts = std::map<CellState, std::size_t>;

std::vector<std::string> RowOf(const std::string& name, const Counts& counts) {
  std::size_t all = 0;
  std::vector<std::string> fields;
  for (const CellState state : kColumns) {
    const auto at = counts.find(state);
    const std::size_t count = at == counts.end() ? 0 : at->second;
    all += count;
    fields.push_back(std::to_string(count));
  }
  fields.insert(fields.begin(), {Printable(name), std::to_string(all)});
  return fields;
}

// The table of all boards if they are few, otherwise of those that are not complete.
std::string BoardTable(const Plan& plan, const std::vector<CellStatus>& cells, const TextStyle& style) {
  std::map<std::string, Counts> boards;
  Counts all;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    ++boards[plan.cells[i].board][cells[i].state];
    ++all[cells[i].state];
  }
  TextTable table("l");
  std::vector<std::string> header = {"board", "cells"};
  for (const CellState state : kColumns) header.emplace_back(NameOf(state));
  table.Add(header);
  const bool few = boards.size() <= kMostShown;
  std::size_t shown = 0;
  std::size_t complete = 0;
  std::size_t cut = 0;
  for (const auto& [board, counts] : boards) {
    const bool isComplete = counts.size() == 1 && counts.begin()->first == CellState::kDone;
    if (!few && isComplete) ++complete;
    if (!few && (isComplete || shown == kMostShown)) {
      if (!isComplete) ++cut;
      continue;
    }
    ++shown;
    table.Add(RowOf(board.empty() ? "(any)" : board, counts));
  }
  if (boards.size() > 1) table.Add(RowOf("(all)", all));
  std::string text = table.Text(style.width);
  if (complete != 0) text += Counted(complete, "board") + " complete and not listed\n";
  if (cut != 0) text += Counted(cut, "more board") + " not complete\n";
  return text;
}

std::string CellLine(const Plan& plan, const CellStatus& cell, std::size_t at, const TextStyle& style) {
  const bool isBad =
      HasFoundErrors(cell) || cell.state == CellState::kFailed || cell.state == CellState::kDamaged;
  std::string text = "cell " + std::to_string(at + 1) + " (" + Printable(CellLabel(plan.cells[at])) + ") " +
                     Painted(Printable(StateText(cell)), isBad ? Colour::kBad : Colour::kUnclear, style);
  if (!cell.reason.empty()) text += ": " + Printable(cell.reason.substr(0, cell.reason.find('\n')));
  text += Printable(EarlierText(cell));
  return cell.folder.empty() ? text + "\n" : text + "; see " + Printable(cell.folder) + "\n";
}

// What all cells have found together, and what is not known; empty if there is nothing to say.
std::string ErrorHead(const std::vector<CellStatus>& cells, const TextStyle& style) {
  SourceErrors all;
  std::size_t unknown = 0;
  for (const CellStatus& cell : cells) {
    AddErrors(cell.earlierErrors, all);
    if (cell.errors) AddErrors(*cell.errors, all);
    if (!cell.errors) ++unknown;
  }
  std::string text;
  if (const std::size_t count = CountWithErrors(cells); count != 0)
    text =
        Painted(Counted(count, "cell") + " with " + Printable(CountsText(all)), Colour::kBad, style) + "\n";
  if (unknown != 0) text += "of " + Counted(unknown, "cell") + " it is not known whether errors were found\n";
  return text;
}

// Cells that have found errors, then those that are not done.
std::string ProblemText(const Plan& plan, const std::vector<CellStatus>& cells, const TextStyle& style) {
  std::string text;
  for (const bool withErrors : {true, false}) {
    std::size_t shown = 0;
    std::size_t cut = 0;
    for (std::size_t i = 0; i < cells.size(); ++i) {
      const CellStatus& cell = cells[i];
      // The table has the number of those that are missing, and there is nothing to say about most of them.
      const bool isMute = cell.state == CellState::kMissing && cell.reason.empty();
      const bool isShown = withErrors || (cell.state != CellState::kDone && !isMute);
      if (HasFoundErrors(cell) != withErrors || !isShown) continue;
      if (++shown > kMostShown) ++cut;
      if (shown <= kMostShown) text += CellLine(plan, cell, i, style);
    }
    if (cut != 0)
      text +=
          Counted(cut, "more cell") + (withErrors ? " with errors" : " not done") + "; --json lists all\n";
  }
  return text;
}

}  // namespace

std::string CollectionText(const std::string& folder, const Plan& plan, const std::vector<CellStatus>& cells,
                           const TextStyle& style) {
  std::string text = Printable(folder) + ": " + std::to_string(CountOf(cells, CellState::kDone)) + " of " +
                     Counted(cells.size(), "cell") + " done, of the plan of " + Printable(plan.made) +
                     ", seed " + std::to_string(plan.settings.seed) + "\n" + ErrorHead(cells, style) + "\n" +
                     BoardTable(plan, cells, style);
  const std::string problems = ProblemText(plan, cells, style);
  if (!problems.empty()) text += '\n' + problems;
  std::string numbers = NumbersToRun(cells);
  if (numbers.empty()) return text;
  constexpr std::size_t kMostNumbers = 400;
  const bool isCut = numbers.size() > kMostNumbers;
  if (isCut) numbers.resize(numbers.rfind(',', kMostNumbers));
  return text + "\nto run: " + numbers + (isCut ? ",... (--json has all)\n" : "\n");
}

}  // namespace scope
