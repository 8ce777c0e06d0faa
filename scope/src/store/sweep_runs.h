// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "series_json.h"
#include "sweep.h"

/// What sweep.json and curve.json have in common: how runs are recorded, and the runs. What throws, throws
/// UserError, DamagedFolder or the library's exception, as functions of series_json.h do.
namespace scope {

void PutSettings(SeriesJson& json, const SweepSettings& settings);
void GetSettings(const SeriesJson& json, SweepSettings& settings);

/// An entry of "runs", and back. `path` is the file.
SeriesJson RunJson(const SweepRun& run, bool withSettings);
SweepRun RunFromJson(const SeriesJson& json, const std::string& path);

/// Throws DamagedFolder if two runs have the same folder, or their order is not 1 to their number.
void RequireOrders(const std::vector<SweepRun>& runs, const std::string& path);

}  // namespace scope
