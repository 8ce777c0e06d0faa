// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "plan.h"

/// cell.json, in the folder of each cell (scope/FORMAT-BOARDS.md). It is small: collect reads no other file
/// of a cell that is done.
namespace scope {

constexpr const char* kCellName = "cell.json";
/// A cell has some twenty figures.
constexpr std::uint64_t kMostCellBytes = 1 << 20;

/// The text of cell.json.
std::string CellText(const CellRecord& record);

/// Reads the cell.json of the folder `folder`; none if there is no such file. Throws DamagedFolder.
std::optional<CellRecord> ReadCell(const std::string& folder);

/// The files of the folder but cell.json, sorted by name: name to bytes. Throws UserError.
std::vector<std::pair<std::string, std::uint64_t>> FilesOf(const std::string& folder);

/// Why the folder lacks something that it had when `record` was written; empty if it does not. A copy may
/// have been cut.
std::string WhatIsMissing(const std::string& folder, const CellRecord& record);

/// True if the folder holds the complete run of this cell. What cannot be read is not complete.
bool IsWholeCell(const std::string& folder, const std::string& plan, std::size_t number);

/// "done", "failed", ...
const char* NameOf(CellState state);

}  // namespace scope
