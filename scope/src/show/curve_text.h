// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "curve_table.h"
#include "text_style.h"

namespace scope {

/// A table of at most `width` characters with a row per point, what the curve says, and its notes.
std::string CurveText(const CurveTable& table, std::size_t width = kTextWidth);

/// The curve as JSON; scope/FORMAT-CURVE.md describes it. Several are a list.
std::string CurveJson(const std::vector<CurveTable>& tables);

}  // namespace scope
