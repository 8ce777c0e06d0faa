#pragma once

#include <string>
#include <vector>

#include "run.h"

namespace scope {

/// A condition whose value differs between runs.
struct ConditionDifference {
  std::string name;  ///< a key of run.json's conditions, "levels", "config" or "complete"
  std::string a;     ///< the value in A's runs; different values are joined by " or "
  std::string b;
};
/// Compares the conditions that affect a rate: the machine, its kernel, frequencies and libraries, the build,
/// the meter, the levels, the other settings (one entry "config" each), and whether the runs are complete.
/// The load average is left out: it is noise, not a setting.
std::vector<ConditionDifference> DifferentConditions(const std::vector<Run>& a, const std::vector<Run>& b);
/// All names that DifferentConditions can return.
std::vector<std::string> ConditionNames();

}  // namespace scope
