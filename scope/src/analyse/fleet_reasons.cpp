// SPDX-License-Identifier: Apache-2.0
#include "fleet_reasons.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <utility>

#include "compare_findings.h"
#include "errors.h"
#include "plan_file.h"
#include "run_reader.h"
#include "statistics.h"
#include "text_format.h"

namespace scope {
namespace {

// A whole run is some megabytes.
constexpr std::size_t kMostBoards = 20;
constexpr std::size_t kTypicalBoards = 3;
constexpr std::size_t kMostTries = 20;
constexpr std::size_t kRunsOfABoard = 2;

constexpr const char* kTypical = "typical boards";
constexpr const char* kThisBoard = "this board";

using Cells = std::map<std::pair<std::uint32_t, std::uint32_t>, std::vector<std::size_t>>;

// Boards of which nothing is reported, those nearest to the middle of the fleet first.
std::vector<std::uint32_t> TypicalBoards(const FleetVerdict& verdict) {
  std::vector<std::uint32_t> boards;
  std::vector<double> values;
  for (std::uint32_t i = 0; i < verdict.boards.size(); ++i) {
    const BoardVerdict& board = verdict.boards[i];
    if (board.state != BoardState::kGood || !(board.index.back() > 0)) continue;
    boards.push_back(i);
    values.push_back(static_cast<double>(board.index.back()));
  }
  if (boards.empty()) return boards;
  const double middle = Median(values);
  std::stable_sort(boards.begin(), boards.end(), [&](std::uint32_t a, std::uint32_t b) {
    const auto distance = [&](std::uint32_t board) {
      return std::abs(static_cast<double>(verdict.boards[board].index.back()) - middle);
    };
    return distance(a) < distance(b);
  });
  return boards;
}

// The hottest zone of a run in degC; none if it did not record one.
std::optional<double> HottestOf(const Run& run) {
  std::optional<double> hottest;
  for (const CounterValue& counter : run.counters) {
    if (counter.source == "thermal" && (!hottest || counter.value > *hottest)) hottest = counter.value;
  }
  return hottest;
}

std::string HottestText(const std::vector<Run>& runs) {
  std::vector<double> all;
  for (const Run& run : runs) {
    if (const auto hottest = HottestOf(run)) all.push_back(*hottest);
  }
  if (all.empty()) return "";
  const auto [least, most] = std::minmax_element(all.begin(), all.end());
  return *least == *most ? Format("%.1f degC", *most) : Format("%.1f to %.1f degC", *least, *most);
}

std::vector<SummarisedRun> Summarised(const std::vector<Run>& runs) {
  std::vector<SummarisedRun> summarised;
  summarised.reserve(runs.size());
  for (const Run& run : runs) summarised.push_back({&run, Summarise(run)});
  return summarised;
}

class Reasons {
 public:
  Reasons(const Fleet& fleet, const FleetVerdict& verdict)
      : fleet_(fleet), verdict_(verdict), typical_(TypicalBoards(verdict)) {
    // Of a board, the runs that found errors come first.
    for (const bool hasErrors : {true, false}) {
      for (const DoneCell& cell : fleet.done) {
        if (cell.hasErrors == hasErrors) cells_[{cell.board, cell.point}].push_back(cell.number);
      }
    }
  }

  FleetReasons Of(std::uint32_t board) {
    FleetReasons reasons;
    reasons.board = board;
    const std::optional<std::uint32_t> place = PointOf(board);
    if (!place) return reasons;
    const std::uint32_t point = *place;
    const std::vector<Run> here = Read(board, point, reasons.troubles);
    if (here.empty()) return reasons;
    std::vector<Run> there;
    for (std::size_t i = 0; i < std::min(typical_.size(), kMostTries); ++i) {
      if (reasons.typical.size() == kTypicalBoards) break;
      const std::uint32_t other = typical_[i];
      std::vector<std::string> ignored;
      std::vector<Run> runs = Read(other, point, ignored);
      if (runs.empty()) continue;
      reasons.typical.push_back(fleet_.boards[other]);
      there.insert(there.end(), std::make_move_iterator(runs.begin()), std::make_move_iterator(runs.end()));
    }
    if (there.empty()) return reasons;
    reasons.conditions = DifferentConditions(there, here);
    for (const Finding& trouble :
         CompareTroubles(Summarised(there), Summarised(here), kTypical, kThisBoard)) {
      if (trouble.worse) reasons.troubles.push_back(trouble.text);
    }
    const std::string hot = HottestText(here);
    const std::string usual = HottestText(there);
    if (!hot.empty() && hot != usual)
      reasons.troubles.push_back("hottest zone: " + hot + "; " + kTypical + ": " +
                                 (usual.empty() ? "not known" : usual));
    return reasons;
  }

 private:
  // Where the board found errors; otherwise that of its greatest difference. None: its errors are those of
  // attempts.
  std::optional<std::uint32_t> PointOf(std::uint32_t board) const {
    const auto cell = std::find_if(fleet_.done.begin(), fleet_.done.end(), [board](const DoneCell& one) {
      return one.board == board && one.hasErrors;
    });
    if (cell != fleet_.done.end()) return cell->point;
    const auto finding = std::find_if(verdict_.findings.begin(), verdict_.findings.end(),
                                      [board](const FleetFinding& one) { return one.board == board; });
    if (finding == verdict_.findings.end()) return std::nullopt;
    return fleet_.measures[finding->measure].point;
  }

  std::vector<Run> Read(std::uint32_t board, std::uint32_t point, std::vector<std::string>& troubles) const {
    std::vector<Run> runs;
    const auto at = cells_.find({board, point});
    if (at == cells_.end()) return runs;
    for (const std::size_t number : at->second) {
      if (runs.size() == kRunsOfABoard) break;
      const std::string folder = fleet_.nights.back().folder + "/" + CellFolder(number);
      try {
        if (IsRunFolder(folder)) runs.push_back(ReadRun(folder));
      } catch (const UserError& error) {
        troubles.push_back(std::string("cannot be read: ") + error.what());
        break;
      }
    }
    return runs;
  }

  const Fleet& fleet_;
  const FleetVerdict& verdict_;
  std::vector<std::uint32_t> typical_;
  Cells cells_;
};

}  // namespace

std::vector<FleetReasons> FindReasons(const Fleet& fleet, const FleetVerdict& verdict) {
  std::vector<FleetReasons> all;
  Reasons reasons(fleet, verdict);
  for (const std::uint32_t board : verdict.standOut) {
    const BoardVerdict& judged = verdict.boards[board];
    const bool isRead = judged.errorCells != 0 || judged.odd || judged.worse;
    if (all.size() < kMostBoards && isRead) all.push_back(reasons.Of(board));
  }
  return all;
}

}  // namespace scope
