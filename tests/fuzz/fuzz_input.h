// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

/// Reads a fuzzer's input from the front. Past its end it returns zeros and empty texts.
class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  bool Empty() const { return size_ == 0; }

  std::uint8_t Byte() {
    if (size_ == 0) return 0;
    --size_;
    return *data_++;
  }

  /// A little-endian number of `bytes` bytes, at most 4.
  std::uint32_t Number(int bytes = 4) {
    std::uint32_t number = 0;
    for (int i = 0; i < bytes; ++i) number |= std::uint32_t{Byte()} << (8 * i);
    return number;
  }

  /// One byte of length, then the text.
  std::string Text() {
    const std::size_t length = std::min<std::size_t>(Byte(), size_);
    std::string text(reinterpret_cast<const char*>(data_), length);
    data_ += length;
    size_ -= length;
    return text;
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
};
