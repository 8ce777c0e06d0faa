#pragma once

#include <cstddef>
#include <string>

namespace scope {

constexpr double kBytesPerGigabyte = 1e9;

/// Characters of a bar that stands for a share.
constexpr std::size_t kBarWidth = 40;

/// printf into a text, of at most 511 bytes.
__attribute__((format(printf, 1, 2))) std::string Format(const char* format, ...);

/// A rate with significant digits enough to tell 1 % apart.
std::string RateText(double value);

}  // namespace scope
