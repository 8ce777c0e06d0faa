// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "json.h"
#include "report.h"

namespace scope {

/// The data of a report's page: the runs with their conditions, figures, series and warnings. FORMAT.md lists
/// the keys. A figure that a run lacks is null. Needs at least one run.
Json ReportData(const std::vector<ReportedRun>& runs);

}  // namespace scope
