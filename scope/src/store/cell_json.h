// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "plan.h"
#include "series_json.h"

namespace scope {

/// A cell as the plan and cell.json describe it.
SeriesJson CellJson(const PlanCell& cell);

/// Throws the library's exception if a key is missing or has another type. The folder stays empty.
PlanCell CellFromJson(const SeriesJson& json);

}  // namespace scope
