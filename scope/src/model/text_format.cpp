// SPDX-License-Identifier: Apache-2.0
#include "text_format.h"

#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace scope {

std::string Format(const char* format, ...) {
  std::array<char, 512> text{};
  va_list arguments;
  va_start(arguments, format);
  (void)std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  return text.data();
}

std::optional<double> ParseNumber(const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  return text.empty() || *end != '\0' || !std::isfinite(value) ? std::nullopt : std::optional(value);
}

}  // namespace scope
