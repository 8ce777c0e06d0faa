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
  const auto value = static_cast<double>(ns);
  if (ns == 0) return "-";
  if (ns < 1000) return Format("%.0f ns", value);
  if (ns < 1'000'000) return Format("%.2f us", value / 1e3);
  if (ns < 1'000'000'000) return Format("%.2f ms", value / 1e6);
  return Format("%.2f s", value / 1e9);
}

}  // namespace scope
