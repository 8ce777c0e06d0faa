// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "compare.h"
#include "compare_conditions.h"

namespace scope {

/// The comparison as text for people. `differences` lists the differing conditions that the user allowed.
std::string ComparisonText(const Side& a, const Side& b, const Comparison& comparison,
                           const std::vector<ConditionDifference>& differences,
                           const CompareOptions& options);

/// The same as JSON; scope/FORMAT.md describes it.
std::string ComparisonJson(const Side& a, const Side& b, const Comparison& comparison,
                           const std::vector<ConditionDifference>& differences,
                           const CompareOptions& options);

/// The name of the verdict.
std::string VerdictText(Verdict verdict);

}  // namespace scope
