// SPDX-License-Identifier: Apache-2.0
#include "memory_errors.h"

#include "run_error.h"
#include "text_format.h"

namespace scope {

std::vector<RunError> MemoryErrors::Found(const std::vector<CounterValue>& values) {
  std::vector<RunError> errors;
  for (const CounterValue& value : values) {
    if (value.source != kMemoryController) continue;
    const auto [at, isFirst] = last_.try_emplace(value.name, value.value);
    if (!isFirst && value.value > at->second) {
      RunError error;
      error.timeS = value.timeS;
      error.source = kMemoryController;
      error.what = value.name.find("ue_count") == std::string::npos ? "corrected" : "uncorrected";
      error.note = Format("%.0f more of ", value.value - at->second) + value.name;
      errors.push_back(std::move(error));
    }
    at->second = value.value;
  }
  return errors;
}

}  // namespace scope
