// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "figures.h"
#include "plan.h"

/// The runs of many boards over nights, as plain data.
namespace scope {

/// What boards are compared by: a figure of an engine at a point of the plan.
struct FleetMeasure {
  SweepLevels levels;
  BoardSettings settings;
  std::string engine;  ///< its id, or "total"
  Figure figure = Figure::kOperations;
  std::uint32_t point = 0;  ///< the same for all measures of these levels and settings
};

/// A board's runs of a night for a measure.
struct FleetValue {
  double middle = 0;          ///< natural logarithm of the runs' mean: figures differ by factors
  float squares = 0;          ///< sum of the runs' squared differences from their mean, relative to it
  std::uint32_t measure = 0;  ///< its place in Fleet::measures; likewise the next two
  std::uint32_t board = 0;
  std::uint16_t night = 0;
  std::uint16_t runs = 0;
};

/// The number of a board's cells in each state, in the order of CellState.
using CellCounts = std::array<std::uint32_t, 6>;

/// A folder of cells.
struct FleetNight {
  std::string name;
  std::string folder;
  std::string plan;   ///< Plan::id
  std::string setup;  ///< tells apart what is recorded: configuration without levels, and times
  std::string made;   ///< Plan::made
  double warmupS = 0;
  bool hasOpenCells = false;          ///< cells of its plan that any board may run
  std::vector<CellCounts> cells;      ///< of each board; may be shorter than Fleet::boards
  std::vector<std::uint64_t> errors;  ///< of memory and results: of each board; may be shorter, too
};

/// A cell of the last night.
struct FleetCell {
  std::uint32_t board = 0;
  std::size_t number = 0;  ///< in the plan, from 1
  CellState state = CellState::kMissing;
  std::string label;
  std::string reason;
  std::string folder;  ///< within that of the night
};

/// A cell of the last night with errors of memory, or wrong results.
struct ErrorCell {
  std::uint32_t board = 0;
  std::size_t number = 0;  ///< in the plan, from 1
  SourceErrors errors;     ///< of its run and of all attempts before it
  std::string text;        ///< "cell 3 (b1: CPU=4, repeat 1) done, with 2 errors (edac 2); see cell-0003"
};

/// A cell of the last night that is done.
struct DoneCell {
  std::uint32_t board = 0;
  std::uint32_t point = 0;  ///< FleetMeasure::point
  std::size_t number = 0;   ///< in the plan, from 1
  bool hasErrors = false;   ///< it is one of Fleet::errors
};

/// True if the board found errors in this night.
inline bool HadErrors(const FleetNight& night, std::uint32_t board) {
  return board < night.errors.size() && night.errors[board] != 0;
}

/// The board of cells that any board may run, and none has.
constexpr const char* kAnyBoard = "(any)";

struct Fleet {
  std::string folder;
  std::vector<FleetNight> nights;  ///< in the order of their names
  std::vector<std::string> boards;
  std::vector<FleetMeasure> measures;
  std::vector<FleetValue> values;  ///< sorted by measure, board and night; of nights of the last one's setup
  std::vector<FleetCell> notDone;  ///< of the last night
  std::vector<ErrorCell> errors;   ///< of the last night
  std::vector<DoneCell> done;      ///< of the last night
  std::vector<std::string> notes;  ///< what was left out
};

/// What a board did before, for a measure.
struct BoardHistory {
  std::string board;
  double middle = 0;     ///< median over its nights, a natural logarithm
  double deviation = 0;  ///< from night to night, apart from changes that all boards share
  int nights = 0;
};

struct MeasureHistory {
  FleetMeasure measure;
  double deviation = 0;  ///< of the fleet's median from night to night
  int nights = 0;        ///< with a median of the fleet
  double runs = 0;       ///< the usual number of runs of a board in a night
  std::vector<BoardHistory> boards;
};

/// What a fleet did before.
struct FleetHistory {
  std::string setup;  ///< FleetNight::setup
  std::string made;   ///< UTC, ISO 8601
  std::vector<std::string> nights;
  std::vector<MeasureHistory> measures;
};

}  // namespace scope
