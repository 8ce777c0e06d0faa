// SPDX-License-Identifier: Apache-2.0
#include "collection.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <system_error>
#include <utility>

#include "cell_file.h"
#include "cell_folder.h"
#include "errors.h"
#include "folder_file.h"
#include "run_error.h"
#include "run_reader.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

// What is read of a log. A message of the scope is shorter.
constexpr std::size_t kMostReasonBytes = 4096;

// Why the record is not one of this cell; empty if it is.
std::string WhyForeign(const CellRecord& record, const std::string& plan, std::size_t number) {
  if (record.plan != plan) return "cell.json is of another plan";
  if (record.number != number) return "cell.json is of cell " + std::to_string(record.number);
  return "";
}

CellStatus FinalStatus(const std::string& root, const std::string& plan, const PlanCell& cell,
                       std::size_t number, CellCheck check, CellRecord* taken) {
  const std::string folder = root + "/" + cell.folder;
  CellStatus status{CellState::kDamaged, "", cell.folder, ""};
  try {
    std::optional<CellRecord> record = ReadCell(folder);
    std::error_code ignored;
    if (!record && !fs::exists(fs::symlink_status(folder, ignored))) return {};
    if (!record) {
      status.reason = "cell.json is missing";
      status.errors = KnownErrors(folder);
      return status;
    }
    status.board = record->board;
    status.reason = WhyForeign(*record, plan, number);
    if (status.reason.empty()) status.errors = record->errors;
    if (status.reason.empty() && record->state != CellState::kDone)
      status.reason = "cell.json says that it is " + std::string(NameOf(record->state));
    if (status.reason.empty() && check == CellCheck::kFiles) status.reason = WhatIsMissing(folder, *record);
    if (!status.reason.empty()) return status;
    status.state = CellState::kDone;
    if (taken != nullptr) *taken = std::move(*record);
  } catch (const UserError& error) {
    status.reason = error.what();
    status.errors = KnownErrors(folder);
  }
  return status;
}

// The status of a cell whose folders are empty. Its job may have said why.
CellStatus StatusFromLog(const std::string& root, const std::string& cellFolder) {
  CellStatus status;
  const std::string name = std::string(kLogsName) + "/" + cellFolder + ".log";
  status.reason = LastLine(root + "/" + name, kMostReasonBytes);
  if (!status.reason.empty()) status.folder = name;
  return status;
}

// True if the attempt has no run, and only says how it ended.
bool IsMessage(const CellRecord& record) {
  return record.files.empty();
}

// What the attempts with these numbers have found.
SourceErrors FoundBefore(const std::string& root, const std::string& cellFolder,
                         const std::vector<int>& attempts) {
  SourceErrors errors;
  for (const int number : attempts) {
    const std::string folder = root + "/" + AttemptFolder(cellFolder, number);
    std::optional<CellRecord> record;
    try {
      record = ReadCell(folder);
    } catch (const UserError&) {
      record.reset();  // the files of the run may say more
    }
    if (record && IsMessage(*record)) continue;
    AddErrors(record && record->errors ? *record->errors : ReadFoundErrors(folder).counts, errors);
  }
  return errors;
}

CellStatus AttemptStatus(const std::string& root, const std::string& cellFolder, int last) {
  CellStatus status{CellState::kUnfinished, "", AttemptFolder(cellFolder, last), ""};
  if (last == 0) return StatusFromLog(root, cellFolder);
  const std::string folder = root + "/" + status.folder;
  try {
    const std::optional<CellRecord> record = ReadCell(folder);
    if (!record) {
      status.reason = IsRunFolder(folder) ? ReadRunInfo(folder).incompleteReason : kRecorderEnded;
      if (status.reason == kRecorderEnded) status.reason = "it is being recorded, or its recorder was killed";
      status.errors = KnownErrors(folder);
      return status;
    }
    status.board = record->board;
    status.reason = record->reason;
    status.isHung = record->isHung;
    status.isRecorderFault = record->isRecorderFault;
    // A message repeats what an earlier attempt has found.
    if (!IsMessage(*record)) status.errors = record->errors;
    if (record->state == CellState::kDone)
      status.reason = "done, but not moved into place: run the cell again";
    else if (record->isRecorderFault)
      status.state = CellState::kInterrupted;  // it says nothing about the board
    else
      status.state = record->state;
  } catch (const UserError& error) {
    status.reason = error.what();
    status.errors = KnownErrors(folder);
  }
  return status;
}

// "2,5-9" of numbers that rise.
std::string Ranges(const std::vector<std::size_t>& numbers) {
  std::string text;
  for (std::size_t first = 0; first < numbers.size(); ++first) {
    std::size_t last = first;
    while (last + 1 < numbers.size() && numbers[last + 1] == numbers[last] + 1) ++last;
    text += (text.empty() ? "" : ",") + std::to_string(numbers[first]);
    if (last > first) text += "-" + std::to_string(numbers[last]);
    first = last;
  }
  return text;
}

}  // namespace

CellStatus StatusOf(const std::string& root, const std::string& plan, const PlanCell& cell,
                    std::size_t number, CellCheck check, CellRecord* record) {
  CellStatus status = FinalStatus(root, plan, cell, number, check, record);
  std::vector<int> attempts = AttemptsOf(root, cell.folder);
  if (status.state == CellState::kMissing) {
    status = AttemptStatus(root, cell.folder, attempts.empty() ? 0 : attempts.back());
    if (!attempts.empty()) attempts.pop_back();
  }
  status.earlierErrors = FoundBefore(root, cell.folder, attempts);
  return status;
}

bool HasFoundErrors(const CellStatus& cell) {
  return (cell.errors && AllErrors(*cell.errors) != 0) || AllErrors(cell.earlierErrors) != 0;
}

std::size_t CountWithErrors(const std::vector<CellStatus>& cells) {
  return static_cast<std::size_t>(std::count_if(cells.begin(), cells.end(), HasFoundErrors));
}

std::string StateText(const CellStatus& cell) {
  const std::string errors = cell.errors ? CountsText(*cell.errors) : "";
  return NameOf(cell.state) + (errors.empty() ? "" : ", with " + errors);
}

std::string EarlierText(const CellStatus& cell) {
  const std::string errors = CountsText(cell.earlierErrors);
  return errors.empty() ? "" : "; an earlier attempt found " + errors;
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
  std::vector<std::size_t> numbers;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (cells[i].state != CellState::kDone) numbers.push_back(i + 1);
  }
  return Ranges(numbers);
}

std::string NumbersToRunByBoard(const Plan& plan, const std::vector<CellStatus>& cells, bool onlyLost) {
  std::map<std::string, std::vector<std::size_t>> boards;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const CellState state = cells[i].state;
    const bool hasFailed = state == CellState::kFailed || state == CellState::kDamaged;
    if (state == CellState::kDone || (onlyLost && hasFailed)) continue;
    boards[plan.cells[i].board].push_back(i + 1);
  }
  std::string text;
  for (const auto& [board, numbers] : boards)
    text += (board.empty() ? "-" : board) + " " + Ranges(numbers) + "\n";
  return text;
}

}  // namespace scope
