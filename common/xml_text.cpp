// SPDX-License-Identifier: Apache-2.0
#include "xml_text.h"

#include <cstddef>
#include <cstdint>

namespace stress {

namespace {

bool IsContinuation(unsigned char byte) {
  return (byte & 0xC0U) == 0x80;
}

// XML 1.0 has no other control characters, no surrogates, and neither U+FFFE nor U+FFFF. It has U+007F to
// U+009F, which control a terminal that shows the file.
bool IsCharacter(std::uint32_t code) {
  return code == '\n' || code == '\t' || (code >= 0x20 && code < 0x7F) || (code > 0x9F && code < 0xD800) ||
         (code > 0xDFFF && code < 0xFFFE) || (code > 0xFFFF && code < 0x110000);
}

// The number of bytes of the character at `at`; 0 if there is none.
std::size_t CharacterBytes(const std::string& text, std::size_t at) {
  constexpr std::uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};  // by bytes: less is an overlong form
  const auto first = static_cast<unsigned char>(text[at]);
  if (IsContinuation(first) || first >= 0xF8) return 0;
  const std::size_t bytes = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  if (text.size() - at < bytes) return 0;
  std::uint32_t code = bytes == 1 ? first : first & (0x7FU >> bytes);
  for (std::size_t i = 1; i < bytes; ++i) {
    const auto next = static_cast<unsigned char>(text[at + i]);
    if (!IsContinuation(next)) return 0;
    code = code << 6U | (next & 0x3FU);
  }
  return code >= kLeast[bytes] && IsCharacter(code) ? bytes : 0;
}

// The reference in place of a character that means something in XML, or that a parser changes in attributes.
const char* Reference(char letter) {
  switch (letter) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    case '\n':
      return "&#10;";
    case '\t':
      return "&#9;";
    default:
      return nullptr;
  }
}

}  // namespace

std::string XmlText(const std::string& text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string xml;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t bytes = CharacterBytes(text, at);
    if (bytes == 0) {
      const auto byte = static_cast<unsigned char>(text[at]);
      xml += {'\\', 'x', kDigits[byte >> 4U], kDigits[byte & 0xFU]};
    } else if (const char* const reference = Reference(text[at])) {
      xml += reference;
    } else {
      xml.append(text, at, bytes);
    }
    at += bytes == 0 ? 1 : bytes;
  }
  return xml;
}

}  // namespace stress
