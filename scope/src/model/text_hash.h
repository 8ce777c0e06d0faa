// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "text_format.h"

namespace scope {

/// 16 digits that tell texts apart: FNV-1a, 64 bits. It protects against mistakes, not against people who
/// mean harm.
class TextHash {
 public:
  void Add(const char* bytes, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
      hash_ ^= static_cast<unsigned char>(bytes[i]);
      hash_ *= 0x100000001b3;
    }
  }
  std::string Text() const { return Format("%016llx", static_cast<unsigned long long>(hash_)); }

 private:
  std::uint64_t hash_ = 0xcbf29ce484222325;
};

inline std::string HashOf(const std::string& text) {
  TextHash hash;
  hash.Add(text.data(), text.size());
  return hash.Text();
}

}  // namespace scope
