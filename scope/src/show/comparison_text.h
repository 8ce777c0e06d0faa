// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "compare.h"
#include "compare_conditions.h"
#include "text_style.h"

namespace scope {

/// The comparison as text for people. Its last line is the AnswerSentence. `differences` lists the differing
/// conditions that the user allowed.
std::string ComparisonText(const Side& a, const Side& b, const Comparison& comparison,
                           const std::vector<ConditionDifference>& differences, const CompareOptions& options,
                           const TextStyle& style = {});

/// The same as JSON; scope/FORMAT.md describes it.
std::string ComparisonJson(const Side& a, const Side& b, const Comparison& comparison,
                           const std::vector<ConditionDifference>& differences,
                           const CompareOptions& options);

/// The answer with the figures behind it, in one line.
std::string AnswerSentence(const Side& a, const Side& b, const Comparison& comparison,
                           const CompareOptions& options);

/// The exit status of a command that ends with this answer: 0 if B is shown not to be worse by more than the
/// tolerance, 1 if it is worse, 4 if the runs cannot tell.
int ExitStatusOf(Answer answer);

/// The name of the verdict, and of the answer.
std::string VerdictText(Verdict verdict);
std::string AnswerText(Answer answer);

}  // namespace scope
