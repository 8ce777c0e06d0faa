// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "compare_conditions.h"
#include "fleet_verdict.h"

namespace scope {

/// Other differences between a board that stands out and typical ones.
struct FleetReasons {
  std::uint32_t board = 0;
  std::vector<std::string> typical;             ///< the boards that it is compared with
  std::vector<ConditionDifference> conditions;  ///< `a`: of typical boards, `b`: of this one
  std::vector<std::string> troubles;            ///< sentences: memory errors, throttling, temperature
};

/// Reads runs of the last night of the first boards that found errors, are odd or worse, and of typical
/// boards at the same point of the plan. Runs that cannot be read are named in the troubles.
std::vector<FleetReasons> FindReasons(const Fleet& fleet, const FleetVerdict& verdict);

}  // namespace scope
