// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "run.h"

namespace scope {

/// Finds the memory errors that the machine's controllers count during a run.
class MemoryErrors {
 public:
  /// An error of the source "edac" for each counter that has grown since it was read before. The first values
  /// are those of the machine before the run.
  std::vector<RunError> Found(const std::vector<CounterValue>& values);

 private:
  std::map<std::string, double> last_;  ///< by the counter's name
};

}  // namespace scope
