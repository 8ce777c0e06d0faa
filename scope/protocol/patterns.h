// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

/// Words of patterns that strain memory and its bus, by their number from the start of the memory.
namespace scope {

constexpr std::uint64_t kAllBits = ~std::uint64_t{0};

/// 0x55... and 0xAA... in turns.
inline std::uint64_t CheckerWord(std::size_t word) {
  return word % 2 == 0 ? 0x5555555555555555U : 0xaaaaaaaaaaaaaaaaU;
}

/// One bit set that walks, then one bit clear.
inline std::uint64_t WalkingWord(std::size_t word) {
  return (std::uint64_t{1} << word % 64) ^ (word / 64 % 2 == 0 ? 0 : kAllBits);
}

/// All lines of the bus switch at once, and one goes against them. Each line of 64 bytes has another victim;
/// after 64 of them the bus switches in the next step of 8, 4 and 2 bytes.
inline std::uint64_t WorstWord(std::size_t word) {
  constexpr std::size_t kLineWords = 8;
  constexpr std::uint64_t kSteps[] = {0, 0xffffffff00000000U, 0xffff0000ffff0000U};
  const std::size_t line = word / kLineWords;
  const std::uint64_t step = kSteps[line / 64 % 3];
  const std::uint64_t all = step != 0 ? step : (word % 2 == 0 ? 0 : kAllBits);
  return all ^ (std::uint64_t{1} << line % 64);
}

}  // namespace scope
