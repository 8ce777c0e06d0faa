// SPDX-License-Identifier: Apache-2.0
#include "collection.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <system_error>

#include "cell_file.h"
#include "cell_folder.h"
#include "errors.h"
#include "run_reader.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

// Why the record is not one of this cell; empty if it is.
std::string WhyForeign(const CellRecord& record, const std::string& plan, std::size_t number) {
  if (record.plan != plan) return "cell.json is of another plan";
  if (record.number != number) return "cell.json is of cell " + std::to_string(record.number);
  return "";
}

CellStatus FinalStatus(const std::string& root, const std::string& plan, const PlanCell& cell,
                       std::size_t number) {
  const std::string folder = root + "/" + cell.folder;
  CellStatus status{CellState::kDamaged, "", cell.folder, ""};
  try {
    const std::optional<CellRecord> record = ReadCell(folder);
    std::error_code ignored;
    if (!record && !fs::exists(fs::symlink_status(folder, ignored))) return {};
    if (!record) {
      status.reason = "cell.json is missing";
      return status;
    }
    status.board = record->board;
    status.reason = WhyForeign(*record, plan, number);
    if (status.reason.empty() && record->state != CellState::kDone)
      status.reason = "cell.json says that it is " + std::string(NameOf(record->state));
    if (status.reason.empty()) status.reason = WhatIsMissing(folder, *record);
    if (status.reason.empty()) status.state = CellState::kDone;
  } catch (const UserError& error) {
    status.reason = error.what();
  }
  return status;
}

CellStatus AttemptStatus(const std::string& root, const std::string& cellFolder) {
  const int last = LastAttempt(root, cellFolder);
  CellStatus status{CellState::kUnfinished, "", AttemptFolder(cellFolder, last), ""};
  if (last == 0) return {};
  const std::string folder = root + "/" + status.folder;
  try {
    const std::optional<CellRecord> record = ReadCell(folder);
    if (!record) {
      status.reason = IsRunFolder(folder) ? ReadRunInfo(folder).incompleteReason : kRecorderEnded;
      if (status.reason == kRecorderEnded) status.reason = "it is being recorded, or its recorder was killed";
      return status;
    }
    status.board = record->board;
    status.reason = record->reason;
    if (record->state == CellState::kDone)
      status.reason = "done, but not moved into place: run the cell again";
    else
      status.state = record->state;
  } catch (const UserError& error) {
    status.reason = error.what();
  }
  return status;
}

}  // namespace

CellStatus StatusOf(const std::string& root, const std::string& plan, const PlanCell& cell,
                    std::size_t number) {
  CellStatus status = FinalStatus(root, plan, cell, number);
  return status.state == CellState::kMissing ? AttemptStatus(root, cell.folder) : status;
}

std::vector<CellStatus> Collect(const std::string& root, const Plan& plan) {
  std::vector<CellStatus> cells;
  cells.reserve(plan.cells.size());
  for (const PlanCell& cell : plan.cells) cells.push_back(StatusOf(root, plan.id, cell, cells.size() + 1));
  return cells;
}

std::size_t CountOf(const std::vector<CellStatus>& cells, CellState state) {
  return static_cast<std::size_t>(std::count_if(
      cells.begin(), cells.end(), [state](const CellStatus& cell) { return cell.state == state; }));
}

std::string NumbersToRun(const std::vector<CellStatus>& cells) {
  std::string text;
  for (std::size_t first = 0; first < cells.size(); ++first) {
    if (cells[first].state == CellState::kDone) continue;
    std::size_t last = first;
    while (last + 1 < cells.size() && cells[last + 1].state != CellState::kDone) ++last;
    text += (text.empty() ? "" : ",") + std::to_string(first + 1);
    if (last > first) text += "-" + std::to_string(last + 1);
    first = last;
  }
  return text;
}

}  // namespace scope
