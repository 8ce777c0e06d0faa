// SPDX-License-Identifier: Apache-2.0
#include "text_format.h"

#include <array>
#include <cstdarg>
#include <cstdio>

namespace scope {

std::string Format(const char* format, ...) {
  std::array<char, 512> text{};
  va_list arguments;
  va_start(arguments, format);
  (void)std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  return text.data();
}

}  // namespace scope
