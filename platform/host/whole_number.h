// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <charconv>
#include <string>
#include <system_error>

namespace Ormis::host {

/// Reads `text`, the whole of it, as a decimal number of that type. Returns false, and leaves `number` as it
/// is, where the text is something else or the type cannot hold it.
template <typename Number>
bool ReadWholeNumber(const std::string& text, Number& number) {
  Number value{};
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || rest != end) return false;
  number = value;
  return true;
}

}  // namespace Ormis::host
