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

/// Sets when each board was seen last, and if it ran in the night before the last one. A plan that has cells
/// for any board promises no board a cell: with such a last night, no board counts as having run before.
void FindLastSeen(const Fleet& fleet, FleetVerdict& verdict);

/// Sets the figures that cells of the last night should have, and lack: those that all done cells of most
/// boards have at the same point.
void FindLacking(const Fleet& fleet, FleetVerdict& verdict);

/// Sets the errors that boards found in the last night. Adds a note on earlier nights with errors, which are
/// no part of what a board was before.
void FindErrors(const Fleet& fleet, FleetVerdict& verdict);

}  // namespace scope
