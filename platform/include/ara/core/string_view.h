// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// The view of a text that the logging interface takes.

#include <cstddef>
#include <cstring>
#include <string>

/// What the logging interface takes texts by.
namespace ara::core::internal {

/// A read-only view of `size()` characters; does not own them and need not be zero-terminated.
/// The viewed characters must outlive the view.
template <typename CharT>
class StringView {
 public:
  /// The empty view.
  constexpr StringView() = default;
  /// Views `length` characters at `text`.
  constexpr StringView(const CharT* text, std::size_t length) : text_(text), length_(length) {}
  /// Views a zero-terminated text; a null pointer is the empty view.
  constexpr StringView(const CharT* text)
      : text_(text), length_(text == nullptr ? 0 : std::char_traits<CharT>::length(text)) {}
  /// Views the characters of `text`, which must not change while the view is used.
  StringView(const std::basic_string<CharT>& text) : text_(text.data()), length_(text.size()) {}

  /// The first character; null for an empty view that was made of nothing. No zero follows the last one.
  constexpr const CharT* data() const { return text_; }
  /// Number of characters.
  constexpr std::size_t size() const { return length_; }
  /// True when there is no character.
  constexpr bool empty() const { return length_ == 0; }

 private:
  const CharT* text_ = nullptr;
  std::size_t length_ = 0;
};

}  // namespace ara::core::internal
