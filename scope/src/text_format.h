#pragma once

#include <string>

namespace scope {

/// printf into a text, of at most 511 bytes.
__attribute__((format(printf, 1, 2))) std::string Format(const char* format, ...);

/// A rate with significant digits enough to tell 1 % apart.
std::string RateText(double value);

}  // namespace scope
