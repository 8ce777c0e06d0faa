// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include "plan.h"

/// cell.json, in the folder of each cell (scope/FORMAT.md). It is small: collect reads no other file of a
/// cell that is done.
namespace scope {

constexpr const char* kCellName = "cell.json";

/// The text of cell.json.
std::string CellText(const CellRecord& record);

/// Reads the cell.json of the folder `folder`; none if there is no such file. Throws DamagedFolder.
std::optional<CellRecord> ReadCell(const std::string& folder);

/// "done", "failed", ...
const char* NameOf(CellState state);

}  // namespace scope
