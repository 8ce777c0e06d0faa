// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "fleet.h"

namespace scope {

struct FleetOptions {
  double tolerancePercent = 2;  ///< a difference up to this is never a finding
  double confidence = 0.95;     ///< probability that no good board is called odd or worse
  std::set<Figure> figures;     ///< the figures to judge; empty: the rates, as comparisons do
};

/// The boards' values of a night.
struct NightSpread {
  std::size_t boards = 0;
  double median = 0;  ///< in the figure's unit, like the next two
  double low = 0;     ///< one board in twenty is below
  double high = 0;    ///< one board in twenty is above
};

/// A value of the last night that is not as expected, in the figure's unit.
struct FleetFinding {
  enum class Kind {
    kOdd,   ///< it is not like the other boards
    kWorse  ///< it is worse than the board was before
  };
  Kind kind = Kind::kOdd;
  std::uint32_t measure = 0;
  std::uint32_t board = 0;
  double value = 0;
  double expected = 0;  ///< as the other boards, or as before
  double low = 0;       ///< the value would be no finding from here ...
  double high = 0;      ///< ... to here
  double differencePercent = 0;
};

/// The fleet as a whole is worse than before: its boards have got slower together.
struct FleetChange {
  double differencePercent = 0;
  double limitPercent = 0;  ///< beyond this it is worse
  bool worse = false;
};

struct MeasureVerdict {
  bool judged = false;
  std::vector<NightSpread> nights;  ///< of each night
  std::optional<FleetChange> change;
  double runDeviation = 0;  ///< of the logarithms of a board's runs within a night
  double runFreedom = 0;    ///< degrees of freedom of `runDeviation`
};

enum class BoardState {
  kGood,
  kIncomplete,  ///< some cells of the last night are missing, interrupted or unfinished
  kAbsent,      ///< has no cells in the last night
  kVanished,    ///< has no cells in the last night, and ran in the night before
  kNoRuns,      ///< no cell of the last night is done
  kFailed,      ///< a cell of the last night has failed, or is damaged
  kWorse,
  kOdd,
  kErrors  ///< a run of the last night found errors of memory, or wrong results
};

struct BoardVerdict {
  BoardState state = BoardState::kGood;  ///< the worst that is true
  bool odd = false;
  bool worse = false;
  SourceErrors errors;                  ///< of all cells of the last night together
  std::size_t errorCells = 0;           ///< in how many of them there were any
  CellCounts cells{};                   ///< of the last night
  std::optional<std::size_t> lastSeen;  ///< the last night with a cell of this board that is done
  bool ranBefore = false;               ///< in the night before the last one of the same setup
  std::vector<std::string> lacking;     ///< judged figures that its done cells lack and those of others have
  /// One for each night: the mean of its judged values, in per cent of the fleet's median over all nights.
  /// 0: none.
  std::vector<float> index;
};

struct FleetVerdict {
  std::vector<MeasureVerdict> measures;  ///< of each of Fleet::measures
  std::vector<BoardVerdict> boards;      ///< of each of Fleet::boards
  std::vector<FleetFinding> findings;    ///< by board; of a board, the greatest difference first
  std::vector<std::uint32_t> standOut;   ///< boards that are kVanished or worse than that, the worst first
  std::size_t judgedBoards = 0;          ///< boards compared with the others
  std::size_t judgedBefore = 0;          ///< boards compared with what they were before
  std::vector<std::string> notes;
  bool isGood = true;  ///< no board stands out, and the fleet is not worse
};

/// The fewest earlier nights with which a board or a fleet is compared.
constexpr std::size_t kFewestNightsBefore = 3;

/// Judges the last night. `before` is what the boards did before. Two kinds of questions share
/// 1 - options.confidence: whether a board is like the others (FindOutliers), and whether it or the fleet is
/// worse than before. So all boards together are called odd or worse without reason in that share of nights.
FleetVerdict JudgeFleet(const Fleet& fleet, const FleetHistory& before, const FleetOptions& options);

/// What the boards did in the first `nights` nights, without those in which they found errors.
FleetHistory HistoryOf(const Fleet& fleet, std::size_t nights, const std::string& made);

/// The number of boards in a state.
std::size_t CountOf(const FleetVerdict& verdict, BoardState state);

/// "done", "odd", "no runs", ...
const char* NameOf(BoardState state);

/// The values of a measure: [first, second) in Fleet::values.
std::pair<std::size_t, std::size_t> SpanOf(const Fleet& fleet, std::uint32_t measure);

}  // namespace scope
