// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

#include "ara/core/string_view.h"

namespace ara::log {

/// Builds a text in the caller's buffer, which must outlive it. What does not fit is left out. Nothing here
/// allocates, locks or changes errno, so it may be used in a signal handler. The text is not zero-terminated.
/// Copies share the buffer, and each has its own length.
class FixedText {
 public:
  using View = ara::core::internal::StringView<char>;

  /// `buffer` has room for `capacity` bytes; the first `length` of them are text already.
  FixedText(char* buffer, std::size_t capacity, std::size_t length = 0)
      : buffer_(buffer), capacity_(capacity), length_(length) {}

  /// Adds the text unchanged. Returns false when not all of it fitted.
  bool Append(View text);

  /// Adds the text and replaces each ASCII control character by an escape (\n, \r, \t, else \xNN in
  /// lower-case hex), so that the text stays on one line and cannot control a terminal. A backslash is not
  /// changed. Adds at most `maxBytes`. Returns false when not all of it fitted; neither an escape nor a UTF-8
  /// sequence is split.
  bool AppendEscaped(View text, std::size_t maxBytes = SIZE_MAX);

  /// Adds the number in decimal, with leading zeros up to `minDigits` (at most 20).
  bool AppendDecimal(std::uint64_t number, unsigned minDigits = 1);

  const char* data() const { return buffer_; }
  std::size_t size() const { return length_; }

 private:
  /// Removes the last bytes if they begin a UTF-8 sequence that does not fit as a whole.
  void DropSplitCharacter();

  char* buffer_;
  std::size_t capacity_;
  std::size_t length_;
};

}  // namespace ara::log
