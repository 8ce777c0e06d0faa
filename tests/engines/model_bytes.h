// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

/// A field of a model file whose value is text or a message. Behind the bytes of a whole model it adds to
/// what the model has.
inline std::string Field(std::uint32_t number, const std::string& value) {
  std::string bytes;
  const auto varint = [&](std::size_t rest) {
    for (; rest >= 0x80; rest >>= 7U) bytes.push_back(static_cast<char>(rest | 0x80U));
    bytes.push_back(static_cast<char>(rest));
  };
  varint(number << 3U | 2U);
  varint(value.size());
  return bytes + value;
}

/// A tensor of one float, the first of the file `location`.
inline std::string ExternalTensor(const std::string& location) {
  return std::string("\x08\x01\x10\x01", 4) +                    // dims: 1, data_type: FLOAT
         Field(8, "external") +                                  // name
         Field(13, Field(1, "location") + Field(2, location)) +  // external_data
         Field(13, Field(1, "length") + Field(2, "4")) + std::string("\x70\x01", 2);  // data_location
}
