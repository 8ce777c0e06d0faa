// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "sweep.h"
#include "sweep_table.h"

namespace scope {

/// The figures of the sweep in `folder` as JSON; scope/FORMAT.md describes it. `comparison` is the text of
/// ComparisonJson for the two points of the sweep; empty if they are not compared.
std::string SweepJson(const std::string& folder, const Sweep& sweep, const SweepTable& table,
                      const std::string& comparison);

}  // namespace scope
