// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "compare.h"

namespace scope {

/// One value of a run for each of its figures.
using RunValues = std::map<FigureKey, double>;

/// The run's values after its first `skipS` seconds. Figures without a second are absent.
RunValues ValuesOf(const RunSummary& summary, double skipS);

/// The comparison of the values of each run, without findings and notes. Printed rates of the engines
/// `printedTooCoarsely` are shown and not judged. Throws UserError as Compare does.
Comparison CompareValues(const std::vector<RunValues>& a, const std::vector<RunValues>& b,
                         const CompareOptions& options, const std::set<std::string>& printedTooCoarsely = {});

/// The answer that follows from figures and findings.
Answer AnswerOf(const Comparison& comparison);

}  // namespace scope
