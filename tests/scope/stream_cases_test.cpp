// SPDX-License-Identifier: Apache-2.0

// The bounds of the checks of streams, one by one. Each test has a process of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "check_tools.h"
#include "checker.h"
#include "streams.h"
#include "verify.h"

namespace {

using namespace checks;
using namespace scope;

const Worker& Channel(std::uint32_t number) {
  static const Worker channels[] = {{Engine::kVenc, 0}, {Engine::kVenc, 1}, {Engine::kVenc, 2}};
  return channels[number];
}

Checker& CheckerOfChannel(std::uint32_t number) {
  return CheckerOf(*Channel(number).counters);
}

// Two channels whose streams of the frames `from` to `to` are the same.
void Agree(const Bytes& frame, std::uint64_t from, std::uint64_t to) {
  for (std::uint64_t number = from; number < to; ++number) {
    Encode(Channel(0), frame, number);
    Encode(Channel(1), frame, number);
  }
}

// The same, with nothing in common.
void Differ(const Bytes& frame, std::uint64_t from, std::uint64_t to) {
  for (std::uint64_t number = from; number < to; ++number) {
    Encode(Channel(0), frame, number);
    EncodeAs(Channel(1), frame, number, StrayedStreamOf(number));
  }
}

CheckPacket VencCounts() {
  return CheckCounts(Engine::kVenc);
}

// As Bytes that are one packet, in three packets.
Spans InPackets(const Bytes& stream) {
  Spans packets(stream.data(), 1000);
  packets.Add(stream.data() + 1000, 500);
  packets.Add(stream.data() + 1500, stream.size() - 1500);
  return packets;
}

TEST(StreamCases, SeveralPacketsAreOneStream) {
  InOwnProcess([] {
    const Bytes frame = Random(3000, 1);
    const std::size_t wrongBytes[] = {0, 1200, 1516};
    for (std::uint64_t number = 0; number < 4; ++number) {
      Bytes stream = StreamOf(number);
      for (const std::uint32_t channel : {0U, 1U}) {
        const std::size_t wrong = number == 0 ? 0 : wrongBytes[number - 1];
        if (channel == 1 && number != 0) stream[wrong] ^= 4;
        CheckFrame(*Channel(channel).counters, {frame.data(), frame.size()}, 5);
        CheckStream(*Channel(channel).counters, {frame.data(), frame.size()}, InPackets(stream), number,
                    kOperationNs);
        const std::vector<ErrorPacket> errors = Errors();
        ASSERT_EQ(errors.size(), channel == 1 && number != 0 ? 1U : 0U) << number;
        if (errors.empty()) continue;
        EXPECT_EQ(errors[0].placed, 1U);
        EXPECT_EQ(errors[0].bits, 1U);
        EXPECT_EQ(errors[0].offset, wrong);
        EXPECT_EQ(errors[0].address, reinterpret_cast<std::uintptr_t>(stream.data() + wrong));
      }
    }
  });
}

TEST(StreamCases, AWrongBitIsAnErrorBeforeAnyStreamsAgree) {
  InOwnProcess([] {
    const Bytes frame = Random(3000, 1);
    Encode(Channel(0), frame, 0);
    Encode(Channel(1), frame, 0, 4711);
    EXPECT_EQ(Errors().size(), 1U);
    EXPECT_EQ(VencCounts().state, CheckState::kJudged);
    EXPECT_EQ(VencCounts().judgedThreads, 2U);
    EXPECT_EQ(VencCounts().checked, 2U);
    EXPECT_EQ(VencCounts().whole, 2U);
    EXPECT_EQ(VencCounts().bytes, 6000U);
  });
}

// The first channel has a wrong bit in each stream. It is known when a third one agrees with the second.
TEST(StreamCases, AnErrorOfAnEarlierStreamIsThatOfItsChannel) {
  InOwnProcess([] {
    const Bytes frame = Random(3000, 1);
    Encode(Channel(0), frame, 0);
    Encode(Channel(0), frame, 0);  // one operation more
    EXPECT_EQ(VencCounts().checked, 0U) << "of the same channel";
    for (std::uint64_t number = 1; number < 4; ++number) {
      const Bytes right = StreamOf(number);
      const std::size_t bit = 4711 + 64 * number;
      Encode(Channel(0), frame, number, bit);
      Encode(Channel(1), frame, number);
      Encode(Channel(2), frame, number);
      const std::vector<ErrorPacket> errors = Errors();
      ASSERT_EQ(errors.size(), 1U) << number;
      const std::uint64_t word = WordAt(right.data() + bit / 64 * 8, 8);
      const std::uint64_t wrong = word ^ std::uint64_t{1} << bit % 64;
      const bool isKnown = number > 1;
      EXPECT_EQ(errors[0].thread, isKnown ? 0U : 1U);
      EXPECT_EQ(errors[0].other, isKnown ? 1U : 0U);
      EXPECT_EQ(errors[0].operation, isKnown ? number + 2 : number);
      EXPECT_EQ(errors[0].expected, isKnown ? word : wrong);
      EXPECT_EQ(errors[0].found, isKnown ? wrong : word);
      EXPECT_EQ(errors[0].address == 0, isKnown) << "that stream has been released";
    }
  });
}

TEST(StreamCases, StreamsAreJudgedWhenEightAgreeAndNotMoreThanTwiceAsManyDiffer) {
  for (const std::uint64_t different : {1U, 16U, 17U}) {
    InOwnProcess([different] {
      const Bytes frame = Random(3000, 1);
      const std::uint64_t judged = different + (different == 17 ? 9 : 8);
      Differ(frame, 0, std::min<std::uint64_t>(different, 9));
      StreamsPacket packet{};
      EXPECT_FALSE(StreamsOf(0, packet)) << "no group is finished";
      Differ(frame, 9, different);
      Agree(frame, different, judged - 1);
      EXPECT_EQ(VencCounts().errors, 0U);
      EXPECT_EQ(VencCounts().state, CheckState::kNotDeterministic);
      Agree(frame, judged - 1, judged);
      EXPECT_EQ(VencCounts().errors, different);
      EXPECT_EQ(VencCounts().state, CheckState::kJudged);
      const std::vector<ErrorPacket> errors = Errors();
      ASSERT_EQ(errors.size(), std::min<std::uint64_t>(different, 8));
      for (std::size_t i = 0; i < errors.size(); ++i) EXPECT_EQ(errors[i].operation, i + 1);
    });
  }
}

TEST(StreamCases, OtherEnginesAndOtherStatesAreNotThoseOfStreamsThatDiffer) {
  InOwnProcess([] {
    const Bytes frame = Random(3000, 1);
    Differ(frame, 0, 3);
    EXPECT_EQ(VencCounts().state, CheckState::kNotDeterministic);
    Copy(Worker(Engine::kCpu, 0), frame);
    EXPECT_EQ(CheckCounts(Engine::kCpu).state, CheckState::kJudged);
    RaiseState(Engine::kVenc, CheckState::kUnreadable);
    EXPECT_EQ(VencCounts().state, CheckState::kUnreadable);
    // Then nothing is learnt or compared any more.
    const std::uint64_t checked = VencCounts().checked;
    const std::uint64_t works = CheckerOfChannel(0).works;
    Agree(Random(3000, 2), 3, 5);
    EXPECT_EQ(VencCounts().checked, checked);
    EXPECT_EQ(CheckerOfChannel(0).works, works);
  });
}

TEST(StreamCases, WhatCannotBeSeenIsNotCompared) {
  InOwnProcess([] {
    const Bytes frame = Random(3000, 1);
    for (const std::uint32_t channel : {0U, 1U}) {
      CheckFrame(*Channel(channel).counters, {}, 5);
      const Bytes stream = StreamOf(0);
      CheckStream(*Channel(channel).counters, {}, {stream.data(), stream.size()}, 0, kOperationNs);
    }
    EXPECT_EQ(VencCounts().checked, 0U);
    EncodeAs(Channel(0), frame, 1, {});
    Encode(Channel(1), frame, 1);
    EXPECT_EQ(VencCounts().checked, 0U) << "an empty stream is none";
    Encode(Channel(2), frame, 1);
    EXPECT_EQ(VencCounts().checked, 2U);
    EXPECT_EQ(VencCounts().errors, 0U);
  });
}

TEST(StreamCases, KnowsTheLastSixteenThousandFrames) {
  constexpr std::uint64_t kKnown = 16384;
  for (const std::uint64_t later : {kKnown - 1, kKnown}) {
    InOwnProcess([later] {
      const Bytes frame = Random(3000, 1);
      Encode(Channel(0), frame, 0);
      Encode(Channel(0), frame, later);
      Encode(Channel(1), frame, 0);
      EXPECT_EQ(VencCounts().checked, later < kKnown ? 2U : 0U);
    });
  }
}

TEST(StreamCases, KeepsTheBeginOfTheLastThousandStreams) {
  InOwnProcess([] {
    const Bytes frame = Random(3000, 1);
    Agree(frame, 0, 10);
    for (const std::uint64_t later : {1023U, 1024U}) {
      const std::uint64_t number = 10 + 5000 * (later - 1023);
      Encode(Channel(0), frame, number);
      Encode(Channel(0), frame, number + later);
      Encode(Channel(1), frame, number, 4711);
      const std::vector<ErrorPacket> errors = Errors();
      ASSERT_EQ(errors.size(), 1U);
      EXPECT_EQ(errors[0].placed, later < 1024 ? 1U : 0U);
      EXPECT_EQ(errors[0].bits, later < 1024 ? 1U : 0U);
    }
  });
  InOwnProcess([] {
    const Bytes frame = Random(3000, 1);
    Agree(frame, 0, 10);
    for (const std::size_t byte : {32'767U, 32'768U}) {
      Bytes stream = Random(40'000, static_cast<unsigned>(byte));
      EncodeAs(Channel(0), frame, byte, stream);
      Flip(stream, 8 * byte);
      EncodeAs(Channel(1), frame, byte, stream);
      const std::vector<ErrorPacket> errors = Errors();
      ASSERT_EQ(errors.size(), 1U);
      EXPECT_EQ(errors[0].placed, byte < 32'768 ? 1U : 0U);
    }
  });
}

TEST(StreamCases, WithoutRoomForStreamsAnErrorHasNoPlace) {
  InOwnProcess([] {
    const Bytes frame = Random(3000, 1);
    checkSystem.refusal = System::kMemory;
    Agree(frame, 0, 10);
    EXPECT_GT(checkSystem.refused, 0);
    Encode(Channel(0), frame, 10);
    Encode(Channel(1), frame, 10, 4711);
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].kind, ErrorKind::kThreads);
    EXPECT_EQ(errors[0].placed, 0U);
  });
}

TEST(StreamCases, WithEveryFourthStreamAPartOfTheFrameIsChecked) {
  InOwnProcess([] {
    Bytes frames[] = {Random(100'000, 1), Random(100'000, 1)};
    const auto encode = [&](std::uint64_t number) {
      for (const std::uint32_t channel : {0U, 1U}) Encode(Channel(channel), frames[channel], number);
    };
    for (std::uint64_t number = 0; number < 8; ++number) {
      encode(number);
      for (const std::uint32_t channel : {0U, 1U}) {
        EXPECT_EQ(CheckerOfChannel(channel).cursor, (number + 1) / 4 * 32'768) << number;
        EXPECT_GT(CheckerOfChannel(channel).spentNs, 0U);
      }
    }
    // What is wrong outside of the next part stays unknown as long as the streams agree.
    for (Bytes& frame : frames) Flip(frame, std::size_t{8} * 10'000);
    encode(8);
    encode(9);
    Encode(Channel(0), frames[0], 9);
    for (const std::uint32_t channel : {0U, 1U}) EXPECT_EQ(CheckerOfChannel(channel).held.left, 0);
    // If they do not, all of it is compared, and the stream is not called wrong.
    Encode(Channel(0), frames[0], 10);
    Encode(Channel(1), frames[1], 10, 4711);
    EXPECT_EQ(CheckerOfChannel(1).held.left, kHeld);
    EXPECT_EQ(CheckerOfChannel(1).held.error.offset, 10'000U);
    EXPECT_TRUE(Errors().empty());
  });
  InOwnProcess([] {
    const Bytes frame = Random(100'000, 1);
    Encode(Channel(0), frame, 0);
    CheckerOfChannel(0).spentNs = ~std::uint64_t{0} / 2;
    for (std::uint64_t number = 1; number < 9; ++number) Encode(Channel(0), frame, number);
    EXPECT_EQ(CheckerOfChannel(0).cursor, 0U) << "there was no time";
  });
}

// After eight streams in a row that have nothing in common, the frame is not compared again. With the ninth
// it is.
TEST(StreamCases, AFrameThatIsWrittenWhenItsChannelHasStrayedEightTimesIsNoError) {
  InOwnProcess([] {
    const Bytes frame = Random(3000, 1);
    Bytes written = frame;
    for (std::uint64_t number = 0; number < 29; ++number) {
      const bool strays = number >= 20;
      if (number == 28) {
        const Bytes next = Random(3000, 2);
        std::copy(next.begin(), next.end(), written.begin());
      }
      Encode(Channel(0), frame, number);
      EncodeAs(Channel(1), written, number, strays ? StrayedStreamOf(number) : StreamOf(number));
    }
    EXPECT_EQ(VencCounts().errors, 8U);
    EXPECT_EQ(CheckerOfChannel(1).changes, 1);
  });
}

TEST(StreamCases, AChannelThatIsRightAgainAndStraysAgainIsListedAgain) {
  InOwnProcess([] {
    const Bytes frame = Random(3000, 1);
    for (std::uint64_t number = 0; number < 50; ++number) {
      const bool strays = (number >= 10 && number < 30) || number >= 40;
      EncodeAs(Channel(0), frame, number, strays ? StrayedStreamOf(number) : StreamOf(number));
      Encode(Channel(1), frame, number);
      Encode(Channel(2), frame, number);
      if (number == 29) EXPECT_GT(Errors().size(), 1U);
    }
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_GT(errors.size(), 1U);
    EXPECT_EQ(errors.back().thread, 0U);
    EXPECT_EQ(VencCounts().errors, 30U);
  });
}

TEST(StreamCases, AGroupOfTwoFramesIsLeftOut) {
  InOwnProcess([] {
    const Bytes frame = Random(3000, 1);
    const Bytes next = Random(3000, 2);
    for (std::uint64_t number = 0; number < 20; ++number) {
      Encode(Channel(0), number < 5 ? frame : next, number);
    }
    StreamsPacket packet{};
    EXPECT_FALSE(StreamsOf(0, packet));
    EXPECT_FALSE(StreamsOf(1, packet));
  });
}

TEST(StreamCases, AGroupInWhichAStreamComesTwiceAndAnotherIsMissingIsLeftOut) {
  InOwnProcess([] {
    const Bytes frame = Random(3000, 1);
    for (std::uint64_t number = 0; number < 20; ++number) {
      if (number != 5) Encode(Channel(0), frame, number);
      if (number == 7) Encode(Channel(0), frame, number);
    }
    StreamsPacket packet{};
    EXPECT_FALSE(StreamsOf(0, packet));
  });
}

TEST(StreamCases, FramesAfterTheLastGroupAreLeftOut) {
  InOwnProcess([] {
    const Bytes frame = Random(3000, 1);
    for (std::uint64_t number = 0; number < 16; ++number) Encode(Channel(0), frame, number);
    GroupSum& group = CheckerOfChannel(0).group;
    // As if all frames before had been seen.
    StreamsPacket before{};
    group = {1, GroupBegin(kStreamGroups)};
    Encode(Channel(0), frame, GroupBegin(kStreamGroups) - 1);
    ASSERT_TRUE(StreamsOf(0, before));
    EXPECT_NE(before.hashes[0], 0U);
    EXPECT_NE(before.hashes[kStreamGroups - 1], 0U);
    group = {1, GroupBegin(kStreamGroups + 1)};
    Encode(Channel(0), frame, GroupBegin(kStreamGroups + 1) - 1);
    StreamsPacket after{};
    ASSERT_TRUE(StreamsOf(0, after));
    EXPECT_TRUE(std::equal(after.hashes, after.hashes + kStreamGroups, before.hashes));
  });
}

}  // namespace
