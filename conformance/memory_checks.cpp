// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "check.h"
#include "ormis/ormis.h"

namespace conformance {

namespace {

constexpr std::uint8_t kUntouched = 0x5A;

bool AllUntouched(const std::vector<std::uint8_t>& bytes, std::size_t from) {
  return std::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.end(),
                     [](std::uint8_t byte) { return byte == kUntouched; });
}

void Copies(Session&) {
  constexpr std::size_t kBenchmarkBytes = 8'294'400;
  constexpr std::size_t kBeyond = 64;
  std::vector<std::uint8_t> source(kBenchmarkBytes);
  for (std::size_t at = 0; at < source.size(); ++at)
    source[at] = static_cast<std::uint8_t>(at * 7 + at / 256);
  for (const std::size_t count : {kBenchmarkBytes, std::size_t{1000}, std::size_t{1}, std::size_t{0}}) {
    std::vector<std::uint8_t> destination(kBenchmarkBytes + kBeyond, kUntouched);
    RequireOk(memcpy_s(destination.data(), kBenchmarkBytes, source.data(), count),
              ("memcpy_s of " + std::to_string(count) + " bytes").c_str());
    Require(
        std::equal(source.begin(), source.begin() + static_cast<std::ptrdiff_t>(count), destination.begin()),
        "memcpy_s of " + std::to_string(count) + " bytes left other bytes than the source's");
    Require(AllUntouched(destination, count),
            "memcpy_s of " + std::to_string(count) + " bytes wrote beyond them");
  }
}

void RefusesTooMuch(Session&) {
  constexpr std::size_t kRoom = 100;
  const std::vector<std::uint8_t> source(200, 1);
  std::vector<std::uint8_t> destination(source.size(), kUntouched);
  RequireFailure(memcpy_s(destination.data(), kRoom, source.data(), kRoom + 1), "memcpy_s",
                 "for a count above the destination's size");
  Require(AllUntouched(destination, kRoom), "memcpy_s wrote beyond the destination's size");
  RequireFailure(memcpy_s(nullptr, kRoom, source.data(), kRoom), "memcpy_s", "for a null destination");
  RequireFailure(memcpy_s(destination.data(), kRoom, nullptr, kRoom), "memcpy_s", "for a null source");
}

}  // namespace

std::vector<Check> MemoryChecks() {
  return {
      {"memory.memcpy_s-copies",
       "memcpy_s returns 0, copies exactly the bytes asked for and touches no other", Copies},
      {"memory.memcpy_s-refuses",
       "memcpy_s returns a code for more bytes than the destination holds and for null pointers, and writes "
       "none "
       "beyond",
       RefusesTooMuch},
  };
}

}  // namespace conformance
