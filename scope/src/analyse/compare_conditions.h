// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <set>
#include <string>
#include <vector>

#include "run.h"

namespace scope {

/// A condition whose value differs between runs.
struct ConditionDifference {
  std::string name;  ///< a key that must agree (run_keys.h), or "config"
  std::string a;     ///< the value in A's runs; different values are joined by " or "
  std::string b;
};
/// The keys of run.json that must agree and do not, and one entry "config" for each setting that differs.
std::vector<ConditionDifference> DifferentConditions(const std::vector<Run>& a, const std::vector<Run>& b);
/// Adds a note for each condition that differs between the runs of a series, without those that are `planned`
/// to differ.
void NoteConditions(const std::vector<Run>& runs, const std::set<std::string>& planned,
                    std::vector<std::string>& notes);
/// All names that DifferentConditions can return.
std::vector<std::string> ConditionNames();

}  // namespace scope
