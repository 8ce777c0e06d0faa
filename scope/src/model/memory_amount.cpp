// SPDX-License-Identifier: Apache-2.0
#include "memory_amount.h"

#include <algorithm>
#include <cmath>

#include "text_format.h"

namespace scope {

std::optional<MemoryAmount> ParseMemoryAmount(const std::string& text) {
  const std::size_t digits = std::min(text.find_first_not_of("0123456789."), text.size());
  const std::optional<double> number = ParseNumber(text.substr(0, digits));
  if (!number) return std::nullopt;
  const std::string unit = text.substr(digits);
  if (unit == "%") return MemoryAmount{*number, true};
  const std::string units = "KMG";
  const std::size_t power = unit.empty() ? 0 : units.find(unit) + 1;
  if (unit.size() > 1 || (!unit.empty() && power == 0)) return std::nullopt;
  return MemoryAmount{std::ldexp(*number, static_cast<int>(10 * power)), false};
}

}  // namespace scope
