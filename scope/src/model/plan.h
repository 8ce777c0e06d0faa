// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sweep.h"

/// Runs that are planned in one place and recorded in others, as plain data.
namespace scope {

/// One run of a plan.
struct PlanCell {
  std::string folder;  ///< of the finished run, within the folder of the cells
  std::string board;   ///< on which it has to run; empty: on any
  SweepLevels levels;
  BoardSettings settings;
  int repeat = 1;                   ///< from 1
  double dutyPercent = kWholeDuty;  ///< as SweepRun::dutyPercent; always whole in a plan's file
};

struct Plan {
  /// A hash of the plan's file, which tells plans apart. Empty for the plan of a sweep, which is part of
  /// sweep.json.
  std::string id;
  std::string made;        ///< UTC, ISO 8601
  std::string configPath;  ///< the user's file
  std::string configText;  ///< what the benchmark reads of it, with absolute paths to models
  /// How each cell is recorded. In a plan's file, it names no program and no folder of a machine.
  SweepSettings settings;
  std::vector<PlanCell> cells;  ///< in the order of recording; the first one is cell 1
};

enum class CellState {
  kMissing,      ///< nobody has begun it
  kUnfinished,   ///< begun: it is being recorded, or its recorder was killed
  kInterrupted,  ///< a signal to the recorder ended it
  kFailed,       ///< recorded, but not complete
  kDamaged,      ///< its folder is there, but cannot be used
  kDone
};

/// The value of a run for a figure after the warm-up.
struct CellFigure {
  std::string engine;  ///< its id, or "total"
  std::string figure;  ///< FigureKind::name
  double value = 0;    ///< in FigureKind::unit
};

/// cell.json: how one attempt to record a cell ended.
struct CellRecord {
  std::string plan;        ///< Plan::id
  std::size_t number = 0;  ///< of the cell, from 1
  PlanCell cell;           ///< as planned
  std::string board;       ///< on which it ran; empty if nobody said
  std::string machine;     ///< Conditions::hostnameHash
  std::string started;     ///< UTC, ISO 8601; so is the next one
  std::string ended;
  CellState state = CellState::kFailed;  ///< kDone, kFailed or kInterrupted
  std::string reason;                    ///< why it is not done; empty otherwise
  bool isHung = false;                   ///< it failed because something did not end
  /// It failed because the recorder did: that says nothing about the board.
  bool isRecorderFault = false;
  /// What the run has found, done or not. Not known (no value) if an earlier version wrote the record, or a
  /// file of the run cannot be read. Of an attempt that has no run and only says how it ended: what the run
  /// before it has found.
  std::optional<SourceErrors> errors = SourceErrors();
  std::optional<bool> looksForErrors = false;  ///< as LooksForErrors says; no value: not known
  std::vector<CellFigure> figures;             ///< of a run that is done
  /// The other files of the folder: name to bytes.
  std::vector<std::pair<std::string, std::uint64_t>> files;
};

/// What is in the folder of the cells for one cell.
struct CellStatus {
  CellState state = CellState::kMissing;
  std::string reason;   ///< why it is not done; may be empty
  std::string folder;   ///< of the run or of the last attempt, within that of the cells; empty if missing
  std::string board;    ///< on which it ran, or empty
  bool isHung = false;  ///< this and the next one: as in CellRecord, of the last attempt
  bool isRecorderFault = false;
  std::optional<SourceErrors> errors = SourceErrors();  ///< of its run, or of the last attempt; as CellRecord
  SourceErrors earlierErrors = {};                      ///< of all attempts before that
};

}  // namespace scope
