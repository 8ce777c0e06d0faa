#pragma once

#include <string>
#include <vector>

#include "run.h"

namespace scope {

/// A condition under which not all of the runs were recorded.
struct ConditionDifference {
  std::string name;  ///< a key of run.json's conditions, "levels", "config" or "complete"
  std::string a;     ///< what it was in A's runs; different ones are joined by " or "
  std::string b;
};
/// The conditions that matter to a rate: the machine, its kernel, frequencies and libraries, the build, the
/// meter, the levels, the configuration's other values (an entry "config" each), and whether the runs are
/// complete. Not the load average: it is noise, not a setting.
std::vector<ConditionDifference> DifferentConditions(const std::vector<Run>& a, const std::vector<Run>& b);
/// The names that DifferentConditions knows.
std::vector<std::string> ConditionNames();

}  // namespace scope
