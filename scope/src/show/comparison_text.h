#pragma once

#include <string>
#include <vector>

#include "compare.h"
#include "compare_conditions.h"

namespace scope {

/// The comparison as text for people. `differences`: conditions that are allowed to differ.
std::string ComparisonText(const Side& a, const Side& b, const Comparison& comparison,
                           const std::vector<ConditionDifference>& differences,
                           const CompareOptions& options);

/// The same as JSON, as scope/FORMAT.md describes it.
std::string ComparisonJson(const Side& a, const Side& b, const Comparison& comparison,
                           const std::vector<ConditionDifference>& differences,
                           const CompareOptions& options);

/// What the verdict is called.
std::string VerdictText(Verdict verdict);

}  // namespace scope
