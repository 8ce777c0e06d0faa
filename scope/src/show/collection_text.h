// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "plan.h"
#include "text_style.h"

namespace scope {

/// The cells by board, those that are not done, and the numbers to run again. Long lists are cut, and the
/// text says so.
std::string CollectionText(const std::string& folder, const Plan& plan, const std::vector<CellStatus>& cells,
                           const TextStyle& style);

/// The JSON of `collect` (scope/FORMAT-BOARDS.md).
std::string CollectionJson(const std::string& folder, const Plan& plan, const std::vector<CellStatus>& cells);

}  // namespace scope
