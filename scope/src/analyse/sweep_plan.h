// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "sweep.h"

namespace scope {

/// "CPU=1 VENC=2 refresh=7800"; "CPU=1 VENC=2 at 25 %" of the time, if that is not all of it.
std::string PointText(const SweepLevels& levels, const BoardSettings& settings = {},
                      double dutyPercent = kWholeDuty);

/// Parses --levels: "CPU=0,1,2,4", "VENC=0..4", "AIC=0,2..4". Throws UserError for a section that is unknown
/// or given twice, and for levels that are not numbers from 0 to 10 in rising order.
std::vector<SweepAxis> ParseAxes(const std::vector<std::string>& texts);

/// Parses "CPU=1,VENC=2": one level for each section. Throws UserError.
SweepLevels ParsePoint(const std::string& text);

/// All points of the grid; the last axis changes fastest. One point without levels if there is no axis.
std::vector<SweepLevels> PointsOf(const std::vector<SweepAxis>& axes);

/// All combinations of settings; the last one changes fastest. One without settings if there is no axis.
std::vector<BoardSettings> CombinationsOf(const std::vector<SettingAxis>& axes);

/// The indices of `points` points, `repeats` times: each time all of them, in random order.
std::vector<std::size_t> RandomOrder(std::size_t points, int repeats, std::uint64_t seed);

/// The folder of a run of a series by its index, from 0: "run-0001".
std::string RunFolder(std::size_t index);

/// Plans every point of the grid `repeats` times. All points are recorded once, in random order, before any
/// is repeated. So drift and interruptions affect all points equally. The order depends only on `seed`.
/// Throws UserError for more than 9999 runs.
std::vector<SweepRun> PlanRuns(const std::vector<SweepAxis>& axes, int repeats, std::uint64_t seed,
                               const std::vector<SettingAxis>& boardAxes = {});

}  // namespace scope
