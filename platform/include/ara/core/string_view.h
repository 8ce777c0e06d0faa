#pragma once

#include <cstddef>
#include <cstring>
#include <string>

namespace ara::core::internal {

/// A read-only view of `size()` characters; does not own them and need not be zero-terminated.
/// The viewed characters must outlive the view.
template <typename CharT>
class StringView {
 public:
  constexpr StringView() = default;
  constexpr StringView(const CharT* text, std::size_t length) : text_(text), length_(length) {}
  /// Views a zero-terminated text; a null pointer is the empty view.
  constexpr StringView(const CharT* text)
      : text_(text), length_(text == nullptr ? 0 : std::char_traits<CharT>::length(text)) {}
  StringView(const std::basic_string<CharT>& text) : text_(text.data()), length_(text.size()) {}

  constexpr const CharT* data() const { return text_; }
  constexpr std::size_t size() const { return length_; }
  constexpr bool empty() const { return length_ == 0; }

 private:
  const CharT* text_ = nullptr;
  std::size_t length_ = 0;
};

}  // namespace ara::core::internal
