#pragma once

#include <vector>

#include "json.h"
#include "report.h"

namespace scope {

/// What the page of a report draws: the runs with their conditions, figures, series and warnings. FORMAT.md
/// has the keys. A figure that a run does not have is null. At least one run.
Json ReportData(const std::vector<ReportedRun>& runs);

}  // namespace scope
