// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

#include "text_format.h"

namespace scope {

/// 16 digits that tell texts apart: FNV-1a, 64 bits. It protects against mistakes, not against people who
/// mean harm.
inline std::string HashOf(const std::string& text) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char letter : text) {
    hash ^= static_cast<unsigned char>(letter);
    hash *= 0x100000001b3;
  }
  return Format("%016llx", static_cast<unsigned long long>(hash));
}

}  // namespace scope
