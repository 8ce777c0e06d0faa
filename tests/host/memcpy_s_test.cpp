// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "ormis/ormis.h"

namespace Ormis::test {
namespace {

/// One copy inside a field of 32 bytes that holds "a" to "z" and "0" to "5". kNone stands for a null pointer.
constexpr std::size_t kNone = SIZE_MAX;
struct Row {
  const char* name;
  std::size_t destination, destinationMax, source, count;
  int error;
  const char* expected;  ///< the field afterwards, '.' for a zero
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.name;
}

class MemcpySTest : public testing::TestWithParam<Row> {};

TEST_P(MemcpySTest, AnswersAndLeaves) {
  const Row& row = GetParam();
  std::string field = "abcdefghijklmnopqrstuvwxyz012345";
  const auto at = [&field](std::size_t offset) { return offset == kNone ? nullptr : field.data() + offset; };
  EXPECT_EQ(memcpy_s(at(row.destination), row.destinationMax, at(row.source), row.count), row.error);
  for (char& c : field) c = c == '\0' ? '.' : c;
  EXPECT_EQ(field, row.expected);
}

constexpr const char* kUntouched = "abcdefghijklmnopqrstuvwxyz012345";

INSTANTIATE_TEST_SUITE_P(
    All, MemcpySTest,
    testing::Values(
        Row{"Copies", 0, 8, 16, 8, 0, "qrstuvwxijklmnopqrstuvwxyz012345"},
        Row{"CopiesBackwards", 16, 8, 0, 8, 0, "abcdefghijklmnopabcdefghyz012345"},
        Row{"RoomToSpareIsLeftAlone", 0, 8, 16, 3, 0, "qrsdefghijklmnopqrstuvwxyz012345"},
        Row{"NothingToCopy", 0, 8, 16, 0, 0, kUntouched},
        Row{"NothingToCopyOntoItself", 4, 8, 4, 0, 0, kUntouched},
        Row{"NothingIntoNoRoom", 0, 0, 16, 0, 0, kUntouched},
        Row{"NullDestination", kNone, 8, 16, 8, EINVAL, kUntouched},
        Row{"NullDestinationAndSource", kNone, 8, kNone, 8, EINVAL, kUntouched},
        Row{"NullSourceZeroes", 0, 8, kNone, 4, EINVAL, "........ijklmnopqrstuvwxyz012345"},
        Row{"NullSourceIsAFaultEvenOfNothing", 0, 8, kNone, 0, EINVAL, "........ijklmnopqrstuvwxyz012345"},
        Row{"CountAboveTheRoomZeroesTheRoom", 0, 8, 16, 9, ERANGE, "........ijklmnopqrstuvwxyz012345"},
        Row{"CountIntoNoRoom", 0, 0, 16, 1, ERANGE, kUntouched},
        Row{"CountAboveTheMaximum", 0, 8, 16, kMemcpySMax + 1, ERANGE, "........ijklmnopqrstuvwxyz012345"},
        Row{"RoomOfExactlyTheMaximum", 0, kMemcpySMax, 16, 8, 0, "qrstuvwxijklmnopqrstuvwxyz012345"},
        Row{"RoomAboveTheMaximumIsNotZeroed", 0, kMemcpySMax + 1, 16, 8, ERANGE, kUntouched},
        Row{"RoomAboveTheMaximumComesBeforeTheNullSource", 0, SIZE_MAX, kNone, 8, ERANGE, kUntouched},
        Row{"TheSamePlaceOverlaps", 0, 8, 0, 8, EOVERFLOW, "........ijklmnopqrstuvwxyz012345"},
        Row{"SourceBehindDestinationByOneOverlaps", 0, 8, 1, 8, EOVERFLOW,
            "........ijklmnopqrstuvwxyz012345"},
        Row{"SourceBeforeDestinationByOneOverlaps", 8, 8, 7, 8, EOVERFLOW,
            "abcdefgh........qrstuvwxyz012345"},
        Row{"LastByteOverlaps", 0, 8, 7, 8, EOVERFLOW, "........ijklmnopqrstuvwxyz012345"},
        Row{"NeighboursDoNotOverlap", 0, 8, 8, 8, 0, "ijklmnopijklmnopqrstuvwxyz012345"},
        Row{"NeighboursBeforeDoNotOverlap", 8, 8, 0, 8, 0, "abcdefghabcdefghqrstuvwxyz012345"},
        // Only the bytes that are copied may not overlap, not the room behind them.
        Row{"SourceInTheRoomBehindTheCopyIsNoOverlap", 0, 16, 8, 8, 0, "ijklmnopijklmnopqrstuvwxyz012345"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(MemcpySLargeTest, CopiesABufferOfTheCpuStress) {
  constexpr std::size_t kBytes = 8294400;
  std::vector<unsigned char> source(kBytes, 0x5a);
  std::vector<unsigned char> destination(kBytes, 0);
  EXPECT_EQ(memcpy_s(destination.data(), kBytes, source.data(), kBytes), 0);
  EXPECT_EQ(std::memcmp(destination.data(), source.data(), kBytes), 0);
}

}  // namespace
}  // namespace Ormis::test
