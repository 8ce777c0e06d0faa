// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

namespace scope {

/// An amount of memory as options take it.
struct MemoryAmount {
  double number = 0;
  bool isPercent = false;  ///< of the memory that is available; otherwise `number` is in bytes
};

/// "65536", "512M" (K, M and G are powers of 1024) or "25%". None if `text` is something else.
std::optional<MemoryAmount> ParseMemoryAmount(const std::string& text);

/// What is expected, for messages.
constexpr const char* kMemoryAmountWords =
    "expected a size as 512M or 2G, or a share of the available memory as 25%";

}  // namespace scope
