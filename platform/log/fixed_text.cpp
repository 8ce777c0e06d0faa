// SPDX-License-Identifier: Apache-2.0
#include "fixed_text.h"

#include <algorithm>
#include <cstring>

namespace ara::log {

namespace {

bool IsControl(unsigned char byte) {
  return byte < 0x20 || byte == 0x7f;
}

bool IsUtf8Continuation(unsigned char byte) {
  return (byte & 0xc0) == 0x80;
}

}  // namespace

bool FixedText::Append(View text) {
  const std::size_t count = std::min(text.size(), capacity_ - length_);
  if (count > 0) std::memcpy(buffer_ + length_, text.data(), count);
  length_ += count;
  return count == text.size();
}

bool FixedText::AppendEscaped(View text, std::size_t maxBytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  const std::size_t end = length_ + std::min(maxBytes, capacity_ - length_);
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text.data()[i]);
    char escape[4] = {'\\', 'x', kHex[byte >> 4], kHex[byte & 0xf]};
    std::size_t size = sizeof escape;
    if (byte == '\n' || byte == '\r' || byte == '\t') {
      escape[1] = byte == '\n' ? 'n' : byte == '\r' ? 'r' : 't';
      size = 2;
    } else if (!IsControl(byte)) {
      escape[0] = text.data()[i];
      size = 1;
    }
    if (size > end - length_) {
      if (IsUtf8Continuation(byte)) DropSplitCharacter();
      return false;
    }
    std::memcpy(buffer_ + length_, escape, size);
    length_ += size;
  }
  return true;
}

bool FixedText::AppendDecimal(std::uint64_t number, unsigned minDigits) {
  char digits[20];  // of 2^64 - 1
  char* const end = digits + sizeof digits;
  char* begin = end;
  while (begin > digits && (number != 0 || end - begin < static_cast<std::ptrdiff_t>(minDigits))) {
    *--begin = static_cast<char>('0' + number % 10);
    number /= 10;
  }
  return Append(View(begin, static_cast<std::size_t>(end - begin)));
}

void FixedText::DropSplitCharacter() {
  std::size_t end = length_;
  // A sequence has at most three continuation bytes. At most three bytes are removed in
  // invalid text, too.
  for (int i = 0; i < 3 && end > 0 && IsUtf8Continuation(static_cast<unsigned char>(buffer_[end - 1])); ++i) {
    --end;
  }
  if (end > 0 && static_cast<unsigned char>(buffer_[end - 1]) >= 0xc0) length_ = end - 1;
}

}  // namespace ara::log
