// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "comparison_text.h"
#include "curve_table.h"
#include "json.h"
#include "margin_map.h"
#include "matrix.h"
#include "matrix_table.h"
#include "report.h"
#include "sweep.h"
#include "sweep_table.h"

/// The JSON of the program and of its pages; scope/FORMAT.md describes it.
namespace scope {

/// The first `warmupS` of each run are left out of its values.
Json ReportData(const std::vector<ReportedRun>& runs, double warmupS);

Json ComparisonData(const Side& a, const Side& b, const Comparison& comparison,
                    const std::vector<ConditionDifference>& differences, const CompareOptions& options);

/// `comparison` is the text of ComparisonJson, or empty.
Json SweepData(const std::string& folder, const Sweep& sweep, const SweepTable& table,
               const std::string& comparison);

Json CurveData(const CurveTable& table);

Json MatrixData(const std::string& folder, const Matrix& matrix, const MatrixTable& table, bool isComplete);

/// The levels of a point: section to level.
Json LevelsJson(const SweepLevels& levels);

/// The margin map of a sweep over settings.
Json MarginData(const MarginMap& map);

/// The value with six digits: more than a chart shows, in a third of the space. Null if it is not finite.
Json Rounded(double value);

/// Names, titles and colours of these engines.
Json EngineList(const std::vector<std::string>& engines);

/// The text of `json` for people and programs, with a line feed at its end.
std::string JsonText(const Json& json);

/// The HTML page that contains `data` and the script that draws it.
std::string PageOf(const Json& data);

}  // namespace scope
