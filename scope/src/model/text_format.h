// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace scope {

constexpr double kBytesPerGigabyte = 1e9;

/// printf into a text. Cuts it after 511 bytes.
__attribute__((format(printf, 1, 2))) std::string Format(const char* format, ...);

/// The finite number that `text` is; none if it is something else.
std::optional<double> ParseNumber(const std::string& text);

/// "1 run", "2 runs".
inline std::string Counted(std::uint64_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

/// All texts, in order, with `between` between them.
template <typename Texts>
std::string Joined(const Texts& texts, const std::string& between) {
  std::string joined;
  for (const std::string& text : texts) joined += (joined.empty() ? "" : between) + text;
  return joined;
}

}  // namespace scope
