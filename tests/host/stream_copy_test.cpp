// Every way to copy that this processor knows, compiled in: the library exports the one that it chose alone.

#include "stream_copy.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace Ormis::host {

void PrintTo(const CopyRoutine& routine, std::ostream* out) {
  *out << routine.name;
}

namespace {

class CopyTest : public testing::TestWithParam<CopyRoutine> {};

/// Bytes with no period that a line's, a page's or a vector's size has.
std::vector<std::uint8_t> Pattern(std::size_t bytes) {
  std::vector<std::uint8_t> pattern(bytes);
  std::uint32_t state = 1;
  for (std::uint8_t& byte : pattern) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<std::uint8_t>(state >> 24U);
  }
  return pattern;
}

TEST_P(CopyTest, CopiesEveryByteAndNoOther) {
  constexpr std::size_t kMargin = 128;
  constexpr std::size_t kLargest = 70'000;
  constexpr std::uint8_t kGuard = 0xa5;
  const std::vector<std::uint8_t> source = Pattern(kLargest + kMargin);
  // Around a vector, a cache line, a page, and several of them.
  for (const std::size_t bytes :
       {0UL,    1UL,    15UL,   16UL,    31UL,    63UL,    64UL,    65UL,    127UL,   128UL,   129UL,   191UL,
        4095UL, 4096UL, 4160UL, 16383UL, 16384UL, 16385UL, 16448UL, 16511UL, 32768UL, 32831UL, kLargest}) {
    for (const std::size_t to : {0UL, 1UL, 16UL, 17UL, 63UL}) {
      for (const std::size_t from : {0UL, 1UL, 32UL, 61UL}) {
        std::vector<std::uint8_t> destination(kMargin + to + bytes + kMargin, kGuard);
        GetParam().copy(destination.data() + kMargin + to, source.data() + from, bytes);

        std::vector<std::uint8_t> expected(kMargin + to, kGuard);
        const auto first = source.begin() + static_cast<std::ptrdiff_t>(from);
        expected.insert(expected.end(), first, first + static_cast<std::ptrdiff_t>(bytes));
        expected.insert(expected.end(), kMargin, kGuard);
        ASSERT_TRUE(destination == expected) << bytes << " bytes from " << from << " to " << to;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, CopyTest, testing::ValuesIn(CopyRoutines().begin(), CopyRoutines().end()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(CopyToMemoryTest, CopiesBelowAndAboveTheLimitOfStreaming) {
  for (const std::size_t bytes : {kStreamFromBytes - 1, kStreamFromBytes, kStreamFromBytes + 1}) {
    const std::vector<std::uint8_t> source = Pattern(bytes);
    std::vector<std::uint8_t> destination(bytes);
    CopyToMemory(destination.data(), source.data(), bytes);
    ASSERT_TRUE(destination == source) << bytes;
  }
}

TEST(CopyRoutinesTest, TheLibrarysComesFirstAndEveryMachineStreams) {
  EXPECT_STREQ(CopyRoutines().front().name, "memcpy");
  EXPECT_GT(CopyRoutines().size(), 1U);
}

}  // namespace
}  // namespace Ormis::host
