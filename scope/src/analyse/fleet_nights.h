// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <set>

#include "fleet_verdict.h"

namespace scope {

/// The measures that are judged, as places in Fleet::measures: as comparisons judge the figures of runs, at
/// each point of the plan.
std::set<std::uint32_t> JudgedMeasures(const Fleet& fleet, const FleetOptions& options);

/// Sets the nights and the scatter of all measures of `verdict`, and the index of the boards, which is made
/// of the judged measures. Requires: a MeasureVerdict for each measure, a BoardVerdict for each board.
void DescribeNights(const Fleet& fleet, FleetVerdict& verdict);

}  // namespace scope
