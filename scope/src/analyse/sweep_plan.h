#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sweep.h"

namespace scope {

/// "CPU=1 VENC=2".
std::string PointText(const SweepLevels& levels);

/// The user's --levels: "CPU=0,1,2,4", "VENC=0..4", "AIC=0,2..4". Throws UserError for a section that
/// there is not, one given twice, and levels that are no numbers from 0 to 10, fall, or come twice.
std::vector<SweepAxis> ParseAxes(const std::vector<std::string>& texts);

/// "CPU=1,VENC=2": one level for each section. Throws UserError.
SweepLevels ParsePoint(const std::string& text);

/// Every point of the grid `repeats` times. All points are recorded once, in random order, before any is
/// recorded again, so that a machine that drifts, and an interruption, touch all points alike. The order
/// depends on `seed` alone. Throws UserError for more than 9999 runs.
std::vector<SweepRun> PlanRuns(const std::vector<SweepAxis>& axes, int repeats, std::uint64_t seed);

}  // namespace scope
