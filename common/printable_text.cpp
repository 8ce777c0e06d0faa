// SPDX-License-Identifier: Apache-2.0
#include "printable_text.h"

#include <algorithm>
#include <cstddef>

namespace stress {
namespace {

unsigned int Byte(const std::string& text, std::size_t at) {
  return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

// The bytes of the UTF-8 character at `at`; 0 if there is none. Surrogates and overlong forms are no matter
// here: no terminal takes them for a control character.
std::size_t CharacterBytes(const std::string& text, std::size_t at) {
  const unsigned int first = Byte(text, at);
  const std::size_t size = first < 0x80   ? 1
                           : first < 0xC2 ? 0
                           : first < 0xE0 ? 2
                           : first < 0xF0 ? 3
                           : first < 0xF5 ? 4
                                          : 0;
  for (std::size_t i = 1; i < size; ++i) {
    if ((Byte(text, at + i) & 0xC0U) != 0x80) return 0;
  }
  return size;
}

bool IsControl(const std::string& text, std::size_t at, std::size_t size) {
  const unsigned int first = Byte(text, at);
  if (size == 1) return (first < 0x20 && first != '\n' && first != '\t') || first == 0x7F;
  return size == 2 && first == 0xC2 && Byte(text, at + 1) < 0xA0;  // U+0080 to U+009F
}

}  // namespace

std::string PrintableText(const std::string& text) {
  // Nearly every text. Tables have millions of lines.
  if (std::all_of(text.begin(), text.end(), [](char letter) { return letter >= ' ' && letter < '\x7f'; }))
    return text;
  constexpr char kDigits[] = "0123456789abcdef";
  std::string printable;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t size = CharacterBytes(text, at);
    if (size != 0 && !IsControl(text, at, size)) {
      printable.append(text, at, size);
      at += size;
      continue;
    }
    printable += {'\\', 'x', kDigits[Byte(text, at) >> 4U], kDigits[Byte(text, at) & 0xFU]};
    ++at;
  }
  return printable;
}

}  // namespace stress
