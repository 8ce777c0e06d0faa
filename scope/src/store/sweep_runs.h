// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "series_json.h"
#include "sweep.h"

/// What sweep.json and curve.json have in common: how runs are recorded, and the runs. Plans share the
/// checks. What throws, throws UserError, DamagedFolder or the library's exception, as functions of
/// series_json.h do.
namespace scope {

/// The keys of what AddChecks adds to commands: fill, verify, duty_percent, guard and guard_rate.
SeriesJson ChecksJson(const RunSettings& settings);
/// Those of them that are not as they are without options.
SeriesJson ChangedChecks(const RunSettings& settings);
/// Takes those that are there. Throws UserError as RequireChecks.
void GetChecks(const SeriesJson& json, RunSettings& settings);
/// Throws UserError, which begins with the key, if one of these settings is not possible on any machine.
void RequireChecks(const RunSettings& settings);

void PutSettings(SeriesJson& json, const SweepSettings& settings);
void GetSettings(const SeriesJson& json, SweepSettings& settings);

/// An entry of "runs", and back. `path` is the file.
SeriesJson RunJson(const SweepRun& run, bool withSettings);
SweepRun RunFromJson(const SeriesJson& json, const std::string& path);

/// Throws DamagedFolder if two runs have the same folder, or their order is not 1 to their number.
void RequireOrders(const std::vector<SweepRun>& runs, const std::string& path);

}  // namespace scope
