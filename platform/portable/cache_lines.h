// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

namespace Ormis::portable {

/// Calls `visit` with the address of each cache line that holds a byte of the range, in their order.
template <typename Visit>
void ForEachLine(const void* memory, std::size_t bytes, std::size_t lineBytes, Visit visit) {
  const auto* const begin = static_cast<const unsigned char*>(memory);
  const unsigned char* line = begin - reinterpret_cast<std::uintptr_t>(memory) % lineBytes;
  for (; line < begin + bytes; line += lineBytes) visit(line);
}

}  // namespace Ormis::portable
