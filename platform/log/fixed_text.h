#pragma once

#include <cstddef>
#include <cstdint>

#include "ara/core/string_view.h"

namespace ara::log {

/// Text put together in a buffer of the caller's, which must outlive it. What does not fit is left out;
/// nothing allocates, locks or touches errno, so it may be used in a signal handler. Not zero-terminated.
/// Copies share the buffer and have a length each.
class FixedText {
 public:
  using View = ara::core::internal::StringView<char>;

  /// `buffer` has room for `capacity` bytes, of which the first `length` are text already.
  FixedText(char* buffer, std::size_t capacity, std::size_t length = 0)
      : buffer_(buffer), capacity_(capacity), length_(length) {}

  /// Adds the text as it is. Returns false when not all of it fitted.
  bool Append(View text);

  /// Adds the text with each ASCII control character as an escape (\n, \r, \t, else \xNN in lower-case hex),
  /// so that it stays on one line and moves no terminal. A backslash stays as it is. Adds at most `maxBytes`.
  /// Returns false when not all of it fitted; an escape or a UTF-8 sequence is then not split.
  bool AppendEscaped(View text, std::size_t maxBytes = SIZE_MAX);

  /// Adds the number in decimal, with leading zeros up to `minDigits` (at most 20).
  bool AppendDecimal(std::uint64_t number, unsigned minDigits = 1);

  const char* data() const { return buffer_; }
  std::size_t size() const { return length_; }

 private:
  /// Takes back the bytes of a UTF-8 sequence that its next byte does not fit behind.
  void DropSplitCharacter();

  char* buffer_;
  std::size_t capacity_;
  std::size_t length_;
};

}  // namespace ara::log
