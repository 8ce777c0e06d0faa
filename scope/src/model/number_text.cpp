// SPDX-License-Identifier: Apache-2.0
#include "number_text.h"

#include <cmath>

#include "text_format.h"

namespace scope {

std::string RateText(double value) {
  return Format(value < 10 ? "%.2f" : value < 10000 ? "%.1f" : "%.0f", value);
}

std::string ShortNumber(double value) {
  const double size = std::abs(value);
  if (size != 0 && size < 0.1) return Format("%.2g", value);
  return Format(size < 10 ? "%.3f" : size < 100 ? "%.2f" : size < 10'000 ? "%.1f" : "%.0f", value);
}

std::string Latency(std::uint64_t ns) {
  if (ns == 0) return "-";
  if (ns < 1000) return std::to_string(ns) + " ns";
  const char* const units[] = {" us", " ms", " s"};
  double value = static_cast<double>(ns) / 1e3;
  std::size_t unit = 0;
  // Three digits show 1 %. A value that would be rounded to 1000 gets the next unit.
  for (; value >= 999.5 && unit < 2; ++unit) value /= 1000;
  return Format(value < 10 ? "%.2f" : value < 100 ? "%.1f" : "%.0f", value) + units[unit];
}

}  // namespace scope
