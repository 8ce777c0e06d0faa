// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "fleet.h"

namespace scope {

/// Reads the nights in `folder`: it is a folder of cells itself, or it has folders of cells, one a night, in
/// the order of their names. Of a cell, only cell.json is read; of one that is not done, that of its last
/// attempt. Nights that were recorded in another way than the last one have no values. Throws UserError if
/// there is no night, and if the plan of the last one cannot be read.
Fleet ReadFleet(const std::string& folder);

/// What has to agree for the figures of two plans to be comparable: 16 digits made of the configuration
/// without its levels, and of how cells are recorded.
std::string SetupOf(const Plan& plan);

/// "CPU=1 VENC=2, refresh=7800"; empty if the plan leaves all open.
std::string PointLabel(const FleetMeasure& measure);

/// "cpu ops/s"; with `point`, "cpu ops/s at CPU=4".
std::string MeasureTitle(const FleetMeasure& measure, bool point);

}  // namespace scope
