// SPDX-License-Identifier: Apache-2.0

// The meter's checks and patterns over memory of the test. What they learn is kept for the life of a process,
// so each test has a process of its own.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <new>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "check_tools.h"
#include "checker.h"
#include "fill.h"
#include "streams.h"
#include "verify.h"

namespace {

using namespace checks;
using namespace scope;

TEST(Check, ThreadsThatWaitForProcessorsHaveLessTimeForChecks) {
  InOwnProcess([] {
    const auto processors = static_cast<std::uint32_t>(sysconf(_SC_NPROCESSORS_ONLN));
    const Worker first(Engine::kCpu, 0);
    Checker& checker = BeginCheck(*first.counters, kOperationNs, 1);
    EXPECT_TRUE(MaySpend(checker, kOperationNs / 100));
    EXPECT_FALSE(MaySpend(checker, kOperationNs / 100 + 1));
    std::uint32_t set = 1;
    for (; set < std::min(kCounterSets, 2 * processors); ++set) {
      ThreadCounters counters{};
      counters.engine = Engine::kCpu;
      counters.set = set;
      (void)BeginCheck(counters, kOperationNs, 1);
      // A second operation is not a second thread.
      (void)BeginCheck(counters, kOperationNs, 1);
    }
    ASSERT_GT(set, processors) << "more threads than processors";
    const std::uint64_t allowed = kOperationNs / 100 * processors / set;
    EXPECT_TRUE(MaySpend(checker, allowed));
    EXPECT_FALSE(MaySpend(checker, allowed + 1));
  });
}

TEST(Check, EveryBitThatStaysWrongInACopyIsFound) {
  InOwnProcess([] {
    const Worker worker(Engine::kCpu, 0);
    const Bytes source = Random(20'000, 1);
    Bytes destination(source.size());
    std::mt19937 random(2);
    std::set<std::size_t> bits;
    for (int flip = 0; flip < 200; ++flip) {
      std::size_t bit = random() % (source.size() * 8);
      while (!bits.insert(bit).second) bit = random() % (source.size() * 8);  // the same again is not listed
      bool found = false;
      for (int copy = 0; copy < 5 && !found; ++copy) {
        destination = source;
        Flip(destination, bit);
        CheckCopy(*worker.counters, destination.data(), source.data(), source.size(), kOperationNs);
        const std::vector<ErrorPacket> errors = Errors();
        if (errors.empty()) continue;
        found = true;
        ASSERT_EQ(errors.size(), 1U);
        ExpectIs(errors[0], ErrorKind::kCopy, destination, bit);
      }
      ASSERT_TRUE(found) << "flip " << flip << " of bit " << bit;
    }
    EXPECT_EQ(StateOf(Engine::kCpu), CheckState::kJudged);
  });
}

TEST(Check, ASourceThatLosesABitIsFoundAndNamed) {
  for (const int before : {1, 2, 50, 100}) {
    InOwnProcess([before] {
      const Worker worker(Engine::kCpu, 0);
      Bytes source = Random(20'000, 1);
      for (int copy = 0; copy < before; ++copy) Copy(worker, source);
      Flip(source, 23'457);
      for (int copy = 0; copy < kHeld; ++copy) Copy(worker, source);
      EXPECT_TRUE(Errors().empty()) << "the program may write it again";
      for (int copy = 0; copy < 5; ++copy) Copy(worker, source);
      const std::vector<ErrorPacket> errors = Errors();
      ASSERT_EQ(errors.size(), 1U) << before << " copies before";
      ExpectIs(errors[0], ErrorKind::kSource, source, 23'457);
      EXPECT_EQ(errors[0].operation, static_cast<std::uint64_t>(before) + 1) << "where it was seen first";
      EXPECT_EQ(StateOf(Engine::kCpu), CheckState::kJudged);
      EXPECT_EQ(CheckCounts(Engine::kCpu).errors, 6U) << "and once with each whole check";
    });
  }
}

TEST(Check, ASourceThatIsRightAgainHasAPassingError) {
  InOwnProcess([] {
    const Worker worker(Engine::kCpu, 0);
    Bytes source = Random(20'000, 1);
    Copy(worker, source);
    Flip(source, 777);
    Copy(worker, source);
    Flip(source, 777);
    for (int copy = 0; copy < kHeld; ++copy) Copy(worker, source);
    const std::vector<ErrorPacket> passing = Errors();
    ASSERT_EQ(passing.size(), 1U);
    ExpectIs(passing[0], ErrorKind::kPassing, source, 777);
    // A later one that lasts is an error.
    Flip(source, 12'345);
    for (int copy = 0; copy <= kHeld; ++copy) Copy(worker, source);
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    ExpectIs(errors[0], ErrorKind::kSource, source, 12'345);
    EXPECT_EQ(StateOf(Engine::kCpu), CheckState::kJudged);
  });
}

TEST(Check, ASourceThatIsWrongAtTheEndIsReportedIfItWasSeenTwice) {
  for (const int after : {1, 2, 10}) {
    InOwnProcess([after] {
      const Worker worker(Engine::kCpu, 0);
      Bytes source = Random(20'000, 1);
      Copy(worker, source);
      Flip(source, 777);
      for (int copy = 0; copy < after; ++copy) Copy(worker, source);
      ReportHeld();
      EXPECT_EQ(Errors().size(), after == 1 ? 0U : 1U);
      ReportHeld();
      EXPECT_EQ(CheckCounts(Engine::kCpu).errors, after == 1 ? 0U : 1U) << "once";
    });
  }
}

TEST(Check, AThreadThatLeavesAWrongSourceReportsIt) {
  InOwnProcess([] {
    const Worker worker(Engine::kCpu, 0);
    Bytes source = Random(20'000, 1);
    const Bytes next = Random(20'000, 2);
    Copy(worker, source);
    Flip(source, 777);
    for (int copy = 0; copy < 3; ++copy) Copy(worker, source);
    for (int copy = 0; copy < 64; ++copy) Copy(worker, next);
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    ExpectIs(errors[0], ErrorKind::kSource, source, 777);
  });
}

// Changes a few words of a frame: what a program does that draws a number into it.
void Write(Bytes& frame, std::uint64_t number) {
  std::memcpy(frame.data() + 4000, &number, sizeof(number));
}

struct Numbers {
  int every;  ///< operations
  std::uint64_t different;
  int from;  ///< which operation on
};

// The engine's operations with a frame into which the program writes.
void WriteNumbers(Engine engine, const Numbers& numbers) {
  const Worker worker(engine, 0);
  Bytes frame = Random(6000, 1);
  Write(frame, 0);
  Bytes result(1500);
  for (int i = 0; i < 150; ++i) {
    const int since = std::max(0, i - numbers.from) / numbers.every;
    Write(frame, static_cast<std::uint64_t>(since) % numbers.different);
    if (engine == Engine::kCpu) Copy(worker, frame);
    if (engine == Engine::kVenc) Encode(worker, frame, static_cast<std::uint64_t>(i));
    if (engine != Engine::kVpc) continue;
    Resize(frame, result);
    CheckResults(*worker.counters, {frame.data(), frame.size()}, {result.data(), result.size()}, 7,
                 kOperationNs);
  }
}

TEST(Check, AProgramThatWritesANumberIntoItsSourcesGetsNoErrors) {
  for (const Numbers& numbers : {Numbers{1, 1000, 0}, {7, 1000, 0}, {1, 1000, 100}, {1, 2, 0}, {3, 2, 50}}) {
    for (const Engine engine : {Engine::kCpu, Engine::kVpc, Engine::kVenc}) {
      InOwnProcess([&numbers, engine] {
        WriteNumbers(engine, numbers);
        EXPECT_EQ(CheckCounts(engine).errors, 0U) << numbers.every << " " << numbers.different;
        EXPECT_EQ(CheckCounts(engine).state, CheckState::kSourcesChange)
            << numbers.every << " " << numbers.different << " " << numbers.from;
      });
    }
  }
}

// A line, some lines, and a row of 64 lines.
TEST(Check, ABurstOfWrongWordsIsAnError) {
  constexpr std::size_t kSize = 40'000;
  for (const std::size_t words : {std::size_t{8}, std::size_t{9}, std::size_t{64}, std::size_t{512}}) {
    for (const int before : {1, 2, 100}) {
      InOwnProcess([words, before] {
        const auto spoil = [words](Bytes& bytes) {
          for (std::size_t i = 0; i < words * 8; ++i) bytes[6400 + i] ^= 0xff;
        };
        const Worker worker(Engine::kCpu, 0);
        Bytes source = Random(kSize, 1);
        for (int copy = 0; copy < before; ++copy) Copy(worker, source);
        Bytes destination = source;
        spoil(destination);
        CheckCopy(*worker.counters, destination.data(), source.data(), kSize, kOperationNs);
        spoil(source);
        for (int copy = 0; copy <= kHeld; ++copy) Copy(worker, source);
        const std::vector<ErrorPacket> errors = Errors();
        ASSERT_EQ(errors.size(), 2U) << words << " words after " << before;
        EXPECT_EQ(errors[0].kind, ErrorKind::kCopy);
        EXPECT_EQ(errors[1].kind, ErrorKind::kSource);
        for (const ErrorPacket& error : errors) {
          EXPECT_EQ(error.offset, 6400U);
          EXPECT_EQ(error.bits, words * 64);
        }
        EXPECT_EQ(StateOf(Engine::kCpu), CheckState::kJudged);
      });
    }
  }
}

// Only a drawn block of the second copy is compared: most of it is wrong, but not most of the copy.
TEST(Check, ABurstInADrawnBlockOfTheSecondCopyIsAnError) {
  InOwnProcess([] {
    const Bytes source = Random(8192, 1);
    constexpr std::uint32_t kThreads = 16;
    for (std::uint32_t thread = 0; thread < kThreads; ++thread) {
      const Worker worker(Engine::kCpu, thread);
      Bytes destination = source;
      CheckCopy(*worker.counters, destination.data(), source.data(), source.size(), 1000);
      for (std::size_t i = 0; i < std::size_t{255} * 8; ++i) destination[4096 + i] ^= 1;
      CheckCopy(*worker.counters, destination.data(), source.data(), source.size(), 1000);
    }
    ASSERT_EQ(CheckCounts(Engine::kCpu).whole, kThreads) << "of the first copies";
    const std::vector<ErrorPacket> errors = Errors();
    EXPECT_GE(errors.size(), 3U) << "of those who drew it";
    EXPECT_TRUE(
        std::any_of(errors.begin(), errors.end(), [](const auto& error) { return error.bits > 500; }));
    for (const ErrorPacket& error : errors) EXPECT_EQ(error.kind, ErrorKind::kCopy);
    EXPECT_EQ(StateOf(Engine::kCpu), CheckState::kJudged);
  });
}

// Copies for which there is no time to compare them whole: each block, the short last one too, is drawn once
// in so many copies as there are blocks.
void ExpectThatEachBlockIsDrawn(std::size_t blocks, std::size_t bytes) {
  const Bytes source = Random(bytes, 1);
  Bytes destination = source;
  std::set<std::vector<std::size_t>> orders;
  std::set<std::size_t> steps;
  for (const std::uint32_t thread : {0U, 1U}) {
    const Worker worker(Engine::kCpu, thread);
    const auto check = [&] {
      CheckCopy(*worker.counters, destination.data(), source.data(), source.size(), 1);
      return Errors();
    };
    ASSERT_TRUE(check().empty()) << "the first one is compared whole";
    std::uint16_t number = 0;
    for (int round = 0; round < 3; ++round) {
      std::vector<std::size_t> order;
      for (std::size_t copy = 0; copy < blocks; ++copy) {
        ++number;  // the same again would not be listed
        for (std::size_t i = 0; i < 2 * blocks; ++i) {
          const std::size_t at = 1024 * (i / 2) + i % 2;
          if (at >= bytes) break;
          destination[at] = static_cast<std::uint8_t>(source[at] ^ (number >> 8 * (i % 2) & 0xff));
        }
        for (const ErrorPacket& error : check()) {
          order.push_back(error.offset / 1024);
          EXPECT_EQ(error.bits, static_cast<std::uint32_t>(__builtin_popcount(number))) << "of this block";
        }
      }
      orders.insert(order);
      if (blocks > 1) steps.insert((order[1] + blocks - order[0]) % blocks);
      std::sort(order.begin(), order.end());
      ASSERT_EQ(order.size(), blocks) << "round " << round;
      for (std::size_t block = 0; block < blocks; ++block) EXPECT_EQ(order[block], block);
    }
    destination = source;
  }
  EXPECT_EQ(CheckCounts(Engine::kCpu).whole, 2U);
  EXPECT_EQ(CheckCounts(Engine::kCpu).bytes, 2 * (1 + 3) * bytes) << "whole, and in three rounds of blocks";
  if (blocks != 97) return;
  EXPECT_GT(orders.size(), 3U) << "not always in the same order";
  EXPECT_GT(steps.size(), 1U) << "and not from one to the next";
}

TEST(Check, EachBlockOfACopyIsDrawnOnceBeforeAnyIsDrawnAgain) {
  for (const std::size_t blocks : {1U, 2U, 12U, 97U}) {
    for (const std::size_t missing : {100U, 0U, 1023U}) {
      // The last block of one byte has too few values for so many copies.
      if (blocks == 97 && missing == 1023) continue;
      InOwnProcess([blocks, missing] { ExpectThatEachBlockIsDrawn(blocks, blocks * 1024 - missing); });
    }
  }
}

TEST(Check, AProgramThatWritesItsSourcesGetsNoErrors) {
  InOwnProcess([] {
    const Worker worker(Engine::kCpu, 0);
    for (unsigned copy = 0; copy < 100; ++copy) {
      static Bytes source(20'000);
      const Bytes next = Random(source.size(), copy / 10);
      std::copy(next.begin(), next.end(), source.begin());
      const Bytes destination = source;
      CheckCopy(*worker.counters, destination.data(), source.data(), source.size(), kOperationNs);
    }
    EXPECT_TRUE(Errors().empty());
    EXPECT_EQ(CheckCounts(Engine::kCpu).errors, 0U);
    EXPECT_EQ(StateOf(Engine::kCpu), CheckState::kSourcesChange);
  });
}

TEST(Check, AProgramThatWritesItsSourcesLaterGetsNoErrors) {
  InOwnProcess([] {
    const Worker worker(Engine::kCpu, 0);
    Bytes source(20'000);
    for (unsigned copy = 0; copy < 200; ++copy) {
      const Bytes next = Random(source.size(), copy < 100 ? 0 : copy / 10);
      std::copy(next.begin(), next.end(), source.begin());
      const Bytes destination = source;
      CheckCopy(*worker.counters, destination.data(), source.data(), source.size(), kOperationNs);
    }
    EXPECT_TRUE(Errors().empty());
    EXPECT_EQ(StateOf(Engine::kCpu), CheckState::kSourcesChange);
  });
}

TEST(Check, EveryBitThatStaysWrongInAResultIsFound) {
  InOwnProcess([] {
    Resized resized;
    std::mt19937 random(2);
    std::set<std::size_t> bits;
    for (int flip = 0; flip < 200; ++flip) {
      std::size_t bit = random() % (resized.result.size() * 8);
      while (!bits.insert(bit).second) bit = random() % (resized.result.size() * 8);
      Flip(resized.result, bit);
      for (int i = 0; i < 4; ++i) resized.Check();
      Flip(resized.result, bit);
      const std::vector<ErrorPacket> errors = Errors();
      ASSERT_EQ(errors.size(), 1U) << "flip " << flip << ": the same again is not listed";
      ExpectIs(errors[0], ErrorKind::kResult, resized.result, bit);
    }
    const CheckPacket counts = CheckCounts(Engine::kVpc);
    EXPECT_EQ(counts.errors - counts.unlisted, 200U);
  });
}

TEST(Check, BitsThatAreWrongInTurnsAreListedOnceEachAndCounted) {
  InOwnProcess([] {
    Resized resized;
    const std::size_t bits[] = {777, 4242, 60'001};
    for (int turn = 0; turn < 20; ++turn) {
      for (const std::size_t bit : bits) {
        Flip(resized.result, bit);
        for (int i = 0; i < 4; ++i) resized.Check();
        Flip(resized.result, bit);
      }
    }
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 3U);
    for (std::size_t i = 0; i < 3; ++i) ExpectIs(errors[i], ErrorKind::kResult, resized.result, bits[i]);
    const CheckPacket counts = CheckCounts(Engine::kVpc);
    EXPECT_GE(counts.errors, 60U) << "each is found in each turn";
    EXPECT_EQ(counts.unlisted, counts.errors - 3);
  });
}

TEST(Check, ThreadsThatDisagreeAboutTheSameSourceAreAnError) {
  InOwnProcess([] {
    const Bytes source = Random(30'000, 1);
    Bytes results[3] = {Bytes(10'000), Bytes(10'000), Bytes(10'000)};
    for (std::uint32_t thread = 0; thread < 3; ++thread) {
      const Bytes own = source;  // each has its own memory
      const Worker worker(Engine::kVpc, thread);
      Resize(own, results[thread]);
      if (thread == 2) Flip(results[thread], 4242);
      for (int i = 0; i < 12; ++i) {
        CheckResults(*worker.counters, {own.data(), own.size()},
                     {results[thread].data(), results[thread].size()}, 7, kOperationNs);
      }
    }
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].thread, 2U);
    EXPECT_EQ(errors[0].other, 0U);
    ExpectIs(errors[0], ErrorKind::kThreads, results[2], 4242);
  });
}

using Spoil = std::function<void(Bytes& result, unsigned number)>;

/// A worker whose results are not what they should be.
struct Spoiled {
  Spoiled(Engine engine, std::uint32_t thread) : worker(engine, thread) {}
  void Give(unsigned count, const Spoil& spoil) {
    for (const unsigned end = given + count; given < end; ++given) {
      Resize(source, result);
      spoil(result, given);
      CheckResults(*worker.counters, {source.data(), source.size()}, {result.data(), result.size()}, 7,
                   kOperationNs);
    }
  }

  const Worker worker;
  Bytes source = Random(3000, 1);
  Bytes result = Bytes(1000);
  unsigned given = 0;
};

// Another word of each result has a wrong bit.
void SpoilBit(Bytes& result, unsigned number) {
  Flip(result, std::size_t{64} * number + 3);
}

void ExpectSpoiledBit(const ErrorPacket& error) {
  EXPECT_EQ(error.kind, ErrorKind::kResult);
  EXPECT_EQ(error.bits, 1U);
  EXPECT_EQ(error.offset, 8 * (error.operation - 1));
  EXPECT_EQ(error.expected ^ error.found, 8U);
}

TEST(Check, ResultsThatDifferByNatureAreNotJudged) {
  const Spoil other = [](Bytes& result, unsigned number) { result = Random(1000, number); };
  // The lowest bits of sums whose order changes.
  const Spoil lowBits = [](Bytes& result, unsigned number) {
    const Bytes noise = Random(1000, number);
    for (std::size_t at = 0; at < result.size(); at += 4) result[at] ^= noise[at] & 1;
  };
  const Spoil word = [](Bytes& result, unsigned number) {
    const Bytes noise = Random(8, number);
    std::copy(noise.begin(), noise.end(), result.begin() + 64);
  };
  const Spoil fewBitsAtFirst = [&](Bytes& result, unsigned number) {
    return number < 12 ? SpoilBit(result, number) : lowBits(result, number);
  };
  const std::pair<Engine, Spoil> cases[] = {
      {Engine::kAic, other}, {Engine::kAic, lowBits}, {Engine::kAic, word}, {Engine::kAic, SpoilBit},
      {Engine::kVpc, other}, {Engine::kVpc, lowBits}, {Engine::kVpc, word}, {Engine::kVpc, fewBitsAtFirst}};
  for (const auto& one : cases) {
    InOwnProcess([engine = one.first, &spoil = one.second] {
      Spoiled first(engine, 0);
      Spoiled second(engine, 1);
      first.Give(50, spoil);
      second.Give(50, spoil);
      // As if they were right: what a thread gives later does not show that the first ones were wrong.
      first.Give(50, [](Bytes& /*result*/, unsigned /*number*/) {});
      EXPECT_TRUE(Errors().empty());
      const CheckPacket counts = CheckCounts(engine);
      EXPECT_EQ(counts.state, CheckState::kNotDeterministic);
      EXPECT_EQ(counts.judgedThreads, 0U);
      EXPECT_EQ(counts.errors, 0U);
      RaiseState(engine, CheckState::kSourcesChange);
      EXPECT_EQ(CheckCounts(engine).state, CheckState::kSourcesChange);
    });
  }
}

TEST(Check, AThreadThatIsOftenWrongIsJudgedByWhatAnotherOneHasLearnt) {
  for (const bool isLast : {true, false}) {
    InOwnProcess([isLast] {
      Spoiled right(Engine::kAic, 0);
      Spoiled wrong(Engine::kAic, 1);
      const auto learn = [&right] { right.Give(12, [](Bytes& /*result*/, unsigned /*number*/) {}); };
      if (isLast) learn();
      wrong.Give(20, SpoilBit);
      if (!isLast) {
        EXPECT_EQ(CheckCounts(Engine::kAic).state, CheckState::kNotDeterministic);
        EXPECT_EQ(CheckCounts(Engine::kAic).errors, 0U);
        learn();
      }
      wrong.Give(40, SpoilBit);
      const CheckPacket counts = CheckCounts(Engine::kAic);
      EXPECT_EQ(counts.state, CheckState::kJudged);
      EXPECT_EQ(counts.judgedThreads, 2U);
      std::vector<ErrorPacket> errors = Errors();
      ASSERT_GE(errors.size(), 25U);
      EXPECT_EQ(errors[0].placed, 0U) << "one of those from which it learns";
      EXPECT_EQ(counts.errors, errors.size() + 7) << "each of them counts";
      errors.erase(errors.begin());
      for (const ErrorPacket& error : errors) {
        EXPECT_EQ(error.thread, 1U);
        ExpectSpoiledBit(error);
      }
    });
  }
}

// Results of an engine that gives different ones by nature: six of the first eight may be alike by chance.
TEST(Check, AThreadIsNotJudgedByOneWhoseOwnResultsDiffer) {
  for (const Engine engine : {Engine::kAic, Engine::kVpc}) {
    for (const unsigned firstOther : {0U, 8U}) {
      InOwnProcess([engine, firstOther] {
        const Spoil other = [](Bytes& result, unsigned number) { result = Random(1000, number); };
        Spoiled chance(engine, 0);
        Spoiled often(engine, 1);
        if (firstOther == 0) chance.Give(1, other);
        chance.Give(12 - chance.given, [](Bytes& /*result*/, unsigned /*number*/) {});
        chance.Give(20, other);
        ASSERT_GT(CheckCounts(engine).errors, 10U) << "it is judged";
        EXPECT_EQ(CheckCounts(engine).state, CheckState::kJudged);
        for (unsigned i = 0; i < 60; ++i) {
          often.Give(1, [&](Bytes& result, unsigned number) {
            if (number >= 4) other(result, 1000 + number);
          });
          chance.Give(1, other);
        }
        for (const ErrorPacket& error : Errors()) EXPECT_EQ(error.thread, 0U);
        const CheckPacket counts = CheckCounts(engine);
        EXPECT_EQ(counts.judgedThreads, 1U);
        EXPECT_EQ(counts.errors, CheckerOf(*chance.worker.counters).errors);
        EXPECT_EQ(counts.state, CheckState::kPartlyJudged) << "the errors of the other thread count";
      });
    }
  }
}

TEST(Check, PixelsThatDifferInFewBitsAreWrongOnOneThread) {
  InOwnProcess([] {
    Spoiled worker(Engine::kVpc, 0);
    worker.Give(15, SpoilBit);
    EXPECT_EQ(CheckCounts(Engine::kVpc).state, CheckState::kNotDeterministic);
    worker.Give(45, SpoilBit);
    EXPECT_EQ(CheckCounts(Engine::kVpc).state, CheckState::kJudged);
    EXPECT_GE(CheckCounts(Engine::kVpc).errors, 8U + 30);
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 2U) << "the first ones have no place";
    EXPECT_EQ(errors[1].offset, 7 * 8U) << "the eighth one is taken as right, and is wrong, too";
    EXPECT_EQ(errors[1].bits, 2U);
  });
  // The most common result is right.
  InOwnProcess([] {
    Spoiled worker(Engine::kVpc, 0);
    worker.Give(60, [](Bytes& result, unsigned number) {
      if (number % 5 < 3) SpoilBit(result, number);
    });
    EXPECT_EQ(CheckCounts(Engine::kVpc).state, CheckState::kJudged);
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_GE(errors.size(), 15U);
    for (const ErrorPacket& error : errors) {
      if (error.placed != 0) ExpectSpoiledBit(error);
    }
    EXPECT_NE(errors.back().placed, 0U);
  });
}

TEST(Check, AThreadWhoseResultsDifferLearnsFromItsNextSource) {
  InOwnProcess([] {
    Spoiled before(Engine::kAic, 0);
    before.Give(50, SpoilBit);
    EXPECT_EQ(CheckCounts(Engine::kAic).state, CheckState::kNotDeterministic);
    Spoiled after(Engine::kAic, 0);
    after.Give(100, [](Bytes& /*result*/, unsigned /*number*/) {});
    EXPECT_EQ(CheckCounts(Engine::kAic).state, CheckState::kJudged);
    EXPECT_EQ(CheckCounts(Engine::kAic).errors, 0U);
  });
}

TEST(Check, NothingIsLearntOfUnlikeResultsWhoseSourceHasChanged) {
  InOwnProcess([] {
    Spoiled worker(Engine::kVpc, 0);
    worker.Give(10, SpoilBit);
    constexpr std::size_t kBit = 8 * 299 + 7;  // which changes one bit of a result
    Flip(worker.source, kBit);
    worker.Give(60, SpoilBit);
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    ExpectIs(errors[0], ErrorKind::kSource, worker.source, kBit);
    EXPECT_EQ(CheckCounts(Engine::kVpc).state, CheckState::kLearning);
    // That does not come on top again and again.
    const Spoil right = [](Bytes& /*result*/, unsigned /*number*/) {};
    Checker& checker = CheckerOf(*worker.worker.counters);
    const std::uint64_t spent = checker.spentNs;
    checker.spentNs = ~std::uint64_t{0} / 2;
    worker.Give(16, right);
    EXPECT_EQ(CheckCounts(Engine::kVpc).state, CheckState::kLearning) << "there was no time";
    checker.spentNs = spent;
    worker.Give(16, right);
    EXPECT_EQ(CheckCounts(Engine::kVpc).state, CheckState::kJudged) << "it has learnt from what it has now";
    EXPECT_TRUE(Errors().empty());
  });
}

TEST(Check, AWrongSourceOfAResultIsNamedAndNotTheResult) {
  // The fourth result is one of those from which the thread learns.
  for (const int before : {4, 8, 20, 80}) {
    InOwnProcess([before] {
      Bytes source = Random(60'000, 1);
      Bytes result(20'000);
      for (const std::uint32_t thread : {0U, 1U}) {
        const Worker worker(Engine::kVpc, thread);
        const Bytes own = source;
        for (int i = 0; i < before + 40; ++i) {
          if (thread == 1 && i == before) Flip(source, std::size_t{8} * 50'001);
          const Bytes& from = thread == 0 ? own : source;
          Resize(from, result);
          CheckResults(*worker.counters, {from.data(), from.size()}, {result.data(), result.size()}, 7,
                       kOperationNs);
        }
      }
      const std::vector<ErrorPacket> errors = Errors();
      ASSERT_EQ(errors.size(), 1U) << before;
      EXPECT_EQ(errors[0].thread, 1U);
      ExpectIs(errors[0], ErrorKind::kSource, source, std::size_t{8} * 50'001);
      EXPECT_EQ(CheckCounts(Engine::kVpc).state, CheckState::kJudged) << "both threads are";
    });
  }
}

TEST(Check, AnEngineIsJudgedIfEachOfItsThreadsIs) {
  InOwnProcess([] {
    const Bytes source = Random(30'000, 1);
    Bytes result(10'000);
    Resize(source, result);
    const auto resize = [&](const Worker& worker, int count) {
      for (int i = 0; i < count; ++i) {
        CheckResults(*worker.counters, {source.data(), source.size()}, {result.data(), result.size()}, 7,
                     kOperationNs);
      }
    };
    const auto expect = [](Engine engine, CheckState state, std::uint32_t judged, std::uint32_t threads) {
      const CheckPacket counts = CheckCounts(engine);
      EXPECT_EQ(counts.state, state);
      EXPECT_EQ(counts.judgedThreads, judged);
      EXPECT_EQ(counts.threads, threads);
    };
    const Worker first(Engine::kVpc, 0);
    const Worker second(Engine::kVpc, 1);
    resize(first, 7);
    expect(Engine::kVpc, CheckState::kLearning, 0, 1);
    resize(first, 10);
    expect(Engine::kVpc, CheckState::kJudged, 1, 1);
    resize(second, 7);
    expect(Engine::kVpc, CheckState::kPartlyJudged, 1, 2);
    resize(second, 1);
    expect(Engine::kVpc, CheckState::kJudged, 2, 2);

    Copy(Worker(Engine::kCpu, 0), source);
    expect(Engine::kCpu, CheckState::kJudged, 1, 1);
    const Bytes empty;
    Copy(Worker(Engine::kCpu, 1), empty);
    expect(Engine::kCpu, CheckState::kPartlyJudged, 1, 2);

    // The third channel has other settings.
    for (std::uint64_t number = 0; number < 10; ++number) {
      Encode(Worker(Engine::kVenc, 0), source, number);
      Encode(Worker(Engine::kVenc, 1), source, number);
      if (number == 0) expect(Engine::kVenc, CheckState::kJudged, 2, 2);
      EncodeAs(Worker(Engine::kVenc, 2), source, number, StreamOf(number), 6);
    }
    expect(Engine::kVenc, CheckState::kPartlyJudged, 2, 3);
  });
}

// What cannot be told apart is not compared: it would be wrong for each thread but one.
TEST(Check, SourcesBeyondThoseThatAreToldApartAreLeftOut) {
  InOwnProcess([] {
    const Bytes known = Random(30'000, 0);
    for (std::uint64_t i = 1; i < kMostContents; ++i) ASSERT_NE(KeepContent({&i, sizeof(i)}), nullptr);
    const auto work = [](std::uint32_t thread, const Bytes& source) {
      Bytes result(10'000);
      Resize(source, result);
      for (int i = 0; i < 20; ++i) {
        CheckResults(*Worker(Engine::kVpc, thread).counters, {source.data(), source.size()},
                     {result.data(), result.size()}, 7, kOperationNs);
        Copy(Worker(Engine::kCpu, thread), source);
        const auto number = static_cast<unsigned>(i);
        EncodeAs(Worker(Engine::kVenc, thread), source, number, Random(3000, source[0] + 256 * number));
      }
    };
    constexpr Engine kEngines[] = {Engine::kVpc, Engine::kCpu, Engine::kVenc};
    work(0, known);
    work(1, known);
    for (const Engine engine : kEngines) {
      EXPECT_EQ(CheckCounts(engine).state, CheckState::kJudged);
      EXPECT_EQ(CheckCounts(engine).leftOut, 0U);
    }
    ASSERT_EQ(KeepContent({"another", 7}), nullptr) << "the list is full";
    std::uint64_t checked[3];
    for (int i = 0; i < 3; ++i) checked[i] = CheckCounts(kEngines[i]).checked;
    work(2, Random(30'000, 1));
    work(3, Random(30'000, 2));
    for (int i = 0; i < 3; ++i) {
      const CheckPacket counts = CheckCounts(kEngines[i]);
      EXPECT_EQ(counts.errors, 0U) << "they have other sources";
      EXPECT_EQ(counts.state, CheckState::kPartlyJudged);
      EXPECT_EQ(counts.leftOut, 1U);
      EXPECT_EQ(counts.judgedThreads, 2U);
      EXPECT_EQ(counts.threads, 4U);
      EXPECT_EQ(counts.checked, checked[i]) << "nothing of them counts as right";
    }
    // Threads with the known source are judged as before.
    work(4, known);
    for (const Engine engine : kEngines) EXPECT_EQ(CheckCounts(engine).judgedThreads, 3U);
  });
}

TEST(Check, ASourceWithoutACopyThatDiffersIsNoErrorOfItsResults) {
  for (const Engine engine : {Engine::kVpc, Engine::kVenc}) {
    InOwnProcess([engine] {
      const Worker first(engine, 0);
      const Worker second(engine, 1);
      Bytes source = Random(30'000, 1);
      const Bytes own = source;
      Bytes result(10'000);
      std::uint64_t number = 0;
      const auto work = [&](const Worker& worker, const Bytes& from) {
        Resize(from, result);
        if (engine == Engine::kVenc)
          return EncodeAs(worker, from, number,
                          Random(3000, static_cast<unsigned>(from[8 * 299] + 256 * number)));
        CheckResults(*worker.counters, {from.data(), from.size()}, {result.data(), result.size()}, 7,
                     kOperationNs);
      };
      work(first, own);
      ASSERT_NE(CheckerOf(*first.counters).content, nullptr);
      // As if there had been no room for it.
      const_cast<Content*>(CheckerOf(*first.counters).content)->copy = nullptr;
      work(second, source);
      ASSERT_EQ(CheckerOf(*second.counters).content, CheckerOf(*first.counters).content);
      for (number = 1; number < 40; ++number) {
        if (number == 20) Flip(source, 8 * 8 * 299);
        work(first, own);
        work(second, source);
      }
      EXPECT_EQ(CheckCounts(engine).errors, 0U) << "nothing says that the engine was wrong";
      EXPECT_EQ(CheckCounts(engine).state, CheckState::kJudged);
      EXPECT_EQ(CheckerOf(*second.counters).works, 2U) << "what it has now was learnt";
    });
  }
}

TEST(Check, EveryWrongBitInAStreamIsFoundByAnotherChannel) {
  InOwnProcess([] {
    const Bytes frame = Random(30'000, 1);
    const Worker first(Engine::kVenc, 0);
    const Worker second(Engine::kVenc, 1);
    std::mt19937 random(2);
    for (std::uint64_t number = 0; number < 400; ++number) {
      const std::size_t bit = number >= 200 ? 1 + random() % (2999 * 8) : 0;
      Encode(first, frame, number);
      Encode(second, frame, number, bit);
      const std::vector<ErrorPacket> errors = Errors();
      ASSERT_EQ(errors.size(), bit != 0 ? 1U : 0U) << number;
      if (bit == 0) continue;
      EXPECT_EQ(errors[0].thread, 1U);
      EXPECT_EQ(errors[0].other, 0U);
      EXPECT_EQ(errors[0].operation, number + 1);
      EXPECT_EQ(errors[0].offset, bit / 64 * 8);
      EXPECT_EQ(errors[0].bits, 1U);
    }
    EXPECT_EQ(CheckCounts(Engine::kVenc).checked, 800U) << "both streams of each frame";
    EXPECT_EQ(CheckCounts(Engine::kVenc).whole, 800U);
  });
}

TEST(Check, AChannelAloneIsNotJudged) {
  InOwnProcess([] {
    const Bytes frame = Random(30'000, 1);
    const Worker worker(Engine::kVenc, 0);
    for (std::uint64_t number = 0; number < 50; ++number) Encode(worker, frame, number);
    EXPECT_EQ(CheckCounts(Engine::kVenc).state, CheckState::kAlone);
    // Another channel has other settings.
    const Worker other(Engine::kVenc, 1);
    for (std::uint64_t number = 0; number < 50; ++number) EncodeAs(other, frame, number, StreamOf(number), 6);
    EXPECT_EQ(CheckCounts(Engine::kVenc).state, CheckState::kLearning);
    EXPECT_EQ(CheckCounts(Engine::kVenc).checked, 0U);
  });
}

TEST(Check, StreamsThatDifferByNatureAreNotJudged) {
  InOwnProcess([] {
    const Bytes frame = Random(30'000, 1);
    for (std::uint32_t thread = 0; thread < 3; ++thread) {
      const Worker worker(Engine::kVenc, thread);
      for (std::uint64_t number = 0; number < 50; ++number) {
        // Some are the same by chance.
        EncodeAs(worker, frame, number,
                 Random(3000, static_cast<unsigned>(number) + (number % 5 == 0 ? 0 : 1000 * thread)));
      }
    }
    EXPECT_TRUE(Errors().empty());
    EXPECT_EQ(CheckCounts(Engine::kVenc).state, CheckState::kNotDeterministic);
  });
}

TEST(Check, OneChannelThatDiffersFromAllOthersIsWrong) {
  // It may be the first one of each frame, the last one, or run ahead of all others.
  for (const std::uint32_t bad : {0U, 1U, 2U}) {
    for (const bool runsAhead : {false, true}) {
      InOwnProcess([bad, runsAhead] {
        const Bytes frame = Random(30'000, 1);
        constexpr std::uint64_t kFrames = 60;
        const Worker workers[] = {{Engine::kVenc, 0}, {Engine::kVenc, 1}, {Engine::kVenc, 2}};
        for (std::uint64_t number = 0; runsAhead && number < kFrames; ++number) {
          EncodeAs(workers[bad], frame, number, StrayedStreamOf(number, 500));
        }
        for (std::uint64_t number = 0; number < kFrames; ++number) {
          for (std::uint32_t thread = 0; thread < 3; ++thread) {
            if (thread != bad) Encode(workers[thread], frame, number);
            if (thread == bad && !runsAhead)
              EncodeAs(workers[thread], frame, number, StrayedStreamOf(number));
          }
        }
        const CheckPacket counts = CheckCounts(Engine::kVenc);
        EXPECT_EQ(counts.state, CheckState::kJudged) << bad;
        EXPECT_EQ(counts.errors, kFrames) << "each of its frames is one " << bad;
        const std::vector<ErrorPacket> errors = Errors();
        EXPECT_EQ(errors.size(), counts.errors - counts.unlisted);
        // Those before the streams were judged, of which eight are held, and eight in a row. A channel that
        // is the first one of each frame has strayed longer by then. Errors without a place are listed once.
        const std::size_t listed[] = {8, 16, 15};
        EXPECT_EQ(errors.size(), runsAhead ? 2 : listed[bad]) << bad;
        for (const ErrorPacket& error : errors) {
          EXPECT_EQ(error.kind, ErrorKind::kThreads);
          EXPECT_TRUE(error.thread == bad || error.other == bad) << error.thread << " " << error.other;
          EXPECT_NE(error.thread, error.other);
          if (&error != errors.data()) EXPECT_EQ(error.thread, bad) << "it is known by then";
        }
        // The others are still judged.
        const std::uint32_t good = bad == 2 ? 1 : 2;
        Encode(workers[bad == 0 ? 1 : 0], frame, kFrames);
        Encode(workers[good], frame, kFrames, 4711);
        const std::vector<ErrorPacket> flipped = Errors();
        ASSERT_EQ(flipped.size(), 1U);
        EXPECT_EQ(flipped[0].thread, good);
        EXPECT_EQ(flipped[0].offset, 4711U / 64 * 8);
      });
    }
  }
}

struct Channels {
  int count = 1;
  std::uint64_t flipped = ~std::uint64_t{0};  ///< a frame of the last channel whose stream has a wrong bit
  std::uint64_t missing = ~std::uint64_t{0};  ///< a frame of all channels whose stream does not come
  unsigned content = 1;
};

// What a run of 48 frames, which are two groups, says of its streams.
StreamsPacket RunOf(const Channels& channels) {
  void* const shared =
      mmap(nullptr, 2 * sizeof(StreamsPacket), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  auto* const packet = new (shared) StreamsPacket[2];
  std::memset(shared, 0xff, 2 * sizeof(StreamsPacket));
  InOwnProcess([&] {
    const Bytes frame = Random(30'000, channels.content);
    for (std::uint64_t number = 0; number < 48; ++number) {
      for (int i = 0; i < channels.count && number != channels.missing; ++i) {
        const bool flips = number == channels.flipped && i + 1 == channels.count;
        Encode({Engine::kVenc, static_cast<std::uint32_t>(i)}, frame, number, flips ? 4711 : 0);
      }
    }
    EXPECT_TRUE(StreamsOf(0, *packet));
    StreamsPacket none{};
    EXPECT_FALSE(StreamsOf(1, none));
  });
  const StreamsPacket told = *packet;
  EXPECT_EQ(packet[1].header.magic, ~std::uint32_t{0}) << "behind the packet";
  (void)munmap(shared, 2 * sizeof(StreamsPacket));
  return told;
}

TEST(Check, RunsWithEqualFramesHaveTheSameHashesOfStreams) {
  const StreamsPacket one = RunOf({});
  EXPECT_NE(one.hashes[0], 0U);
  EXPECT_NE(one.hashes[1], 0U);
  EXPECT_EQ(one.hashes[2], 0U) << "it has not begun";
  // Runs of other versions are compared with these.
  EXPECT_EQ(one.key, 984121012700002252U);
  EXPECT_EQ(one.hashes[0], 15054662766915852532U);
  for (const int count : {1, 3}) {
    const StreamsPacket same = RunOf({count});
    EXPECT_EQ(same.key, one.key);
    EXPECT_TRUE(std::equal(same.hashes, same.hashes + kStreamGroups, one.hashes)) << count;
  }
  for (const std::uint64_t flipped : {0U, 15U, 16U, 47U}) {
    const std::size_t group = flipped < 16 ? 0 : 1;
    const StreamsPacket wrong = RunOf({1, flipped});
    EXPECT_NE(wrong.hashes[group], 0U);
    EXPECT_NE(wrong.hashes[group], one.hashes[group]) << flipped;
    EXPECT_EQ(wrong.hashes[1 - group], one.hashes[1 - group]) << flipped;
    const StreamsPacket channelsDiffer = RunOf({2, flipped});
    EXPECT_EQ(channelsDiffer.hashes[group], 0U) << flipped;
    EXPECT_EQ(channelsDiffer.hashes[1 - group], one.hashes[1 - group]) << flipped;
  }
  const StreamsPacket gap = RunOf({1, ~std::uint64_t{0}, 5});
  EXPECT_EQ(gap.hashes[0], 0U) << "not all of the group was seen";
  EXPECT_EQ(gap.hashes[1], one.hashes[1]);
  EXPECT_NE(RunOf({1, ~std::uint64_t{0}, ~std::uint64_t{0}, 2}).key, one.key);
}

TEST(Check, AStrayedChannelIsComparedAgain) {
  InOwnProcess([] {
    const Bytes frame = Random(30'000, 1);
    const Worker first(Engine::kVenc, 0);
    const Worker second(Engine::kVenc, 1);
    for (std::uint64_t number = 0; number < 200; ++number) {
      Encode(first, frame, number);
      const bool strays = (number >= 20 && number < 60) || number >= 190;
      if (strays) EncodeAs(second, frame, number, StrayedStreamOf(number));
      if (!strays) Encode(second, frame, number, number == 150 ? 4711 : 0);
    }
    EXPECT_EQ(CheckCounts(Engine::kVenc).errors, 51U) << "40 frames, a bit, and 10 frames";
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 17U) << "eight of the frames, the bit, and eight of the later frames";
    EXPECT_EQ(errors[8].operation, 151U);
    EXPECT_EQ(errors[8].bits, 1U);
    for (const ErrorPacket& error : errors) EXPECT_EQ(error.thread, 1U);
    EXPECT_EQ(CheckCounts(Engine::kVenc).state, CheckState::kJudged);
  });
}

// Parts of frames are looked at now and then: in one of these cases it is a part that shows the change, in
// the others the stream.
TEST(Check, AFrameThatTheProgramWritesChangesWhatItsStreamsAreComparedWith) {
  for (const std::uint64_t change : {19U, 20U, 21U, 22U}) {
    InOwnProcess([change] {
      const Bytes frame = Random(30'000, 1);
      const Bytes other = Random(30'000, 2);
      Bytes written = frame;
      const Worker first(Engine::kVenc, 0);
      const Worker second(Engine::kVenc, 1);
      for (std::uint64_t number = 0; number < 40; ++number) {
        Encode(first, frame, number);
        if (number == change) std::copy(other.begin(), other.end(), written.begin());
        EncodeAs(second, written, number, number < change ? StreamOf(number) : StrayedStreamOf(number));
      }
      EXPECT_EQ(CheckCounts(Engine::kVenc).errors, 0U) << change;
      EXPECT_EQ(CheckCounts(Engine::kVenc).state, CheckState::kJudged);
    });
  }
}

// After the tenth frame the second channel does something else than the first one, so its streams are others.
void EncodeAfterAChange(const std::function<void(const Worker& worker, std::uint64_t number)>& encode) {
  InOwnProcess([&encode] {
    const Worker first(Engine::kVenc, 0);
    const Worker second(Engine::kVenc, 1);
    for (std::uint64_t number = 0; number < 60; ++number) {
      encode(first, number);
      encode(second, number);
    }
    EXPECT_GE(CheckCounts(Engine::kVenc).checked, 20U);
    EXPECT_EQ(CheckCounts(Engine::kVenc).errors, 0U);
    EXPECT_EQ(CheckCounts(Engine::kVenc).state, CheckState::kJudged);
  });
}

TEST(Check, OnlyStreamsOfTheSameFramesAndSettingsAreCompared) {
  const Bytes frame = Random(30'000, 1);
  const Bytes next = Random(30'000, 2);
  const auto streamOf = [](const Worker& worker, std::uint64_t number) {
    return worker.counters->thread == 1 && number >= 10 ? StrayedStreamOf(number) : StreamOf(number);
  };
  // Another frame, and the same one as the first channel has, but later.
  EncodeAfterAChange([&](const Worker& worker, std::uint64_t number) {
    const bool isNext = number >= 10 + 5 * worker.counters->thread;
    EncodeAs(worker, isNext ? next : frame, number, isNext ? streamOf(worker, number) : StreamOf(number));
  });
  // Other settings.
  EncodeAfterAChange([&](const Worker& worker, std::uint64_t number) {
    const bool isOther = worker.counters->thread == 1 && number >= 10;
    EncodeAs(worker, frame, number, streamOf(worker, number), isOther ? 6 : 5);
  });
  // Other frames in between, for which there was no time.
  const Bytes between[] = {Random(30'000, 3), Random(30'000, 4)};
  EncodeAfterAChange([&](const Worker& worker, std::uint64_t number) {
    Checker& checker = CheckerOf(*worker.counters);
    if (number == 10) checker.spentNs = ~std::uint64_t{0} / 2;
    EncodeAs(worker, number == 10 ? between[worker.counters->thread] : frame, number,
             streamOf(worker, number));
    if (number == 10) checker.spentNs = 0;
  });
  // The same on one channel, where the stream of the other frame happens to be that of the first channel.
  EncodeAfterAChange([&](const Worker& worker, std::uint64_t number) {
    Checker& checker = CheckerOf(*worker.counters);
    const bool isOther = worker.counters->thread == 1 && number == 10;
    if (isOther) checker.spentNs = ~std::uint64_t{0} / 2;
    EncodeAs(worker, isOther ? between[0] : frame, number,
             isOther ? StreamOf(number) : streamOf(worker, number));
    if (isOther) checker.spentNs = 0;
  });
}

TEST(Check, TakesNoMoreThanItsShareOfTheTime) {
  InOwnProcess([] {
    const Worker worker(Engine::kVpc, 0);
    const Bytes source = Random(300'000, 1);
    const Bytes result = Random(100'000, 2);
    constexpr std::uint64_t kNs = 20'000;
    constexpr std::uint64_t kOperations = 2000;
    checkSystem.threadStepNs = 1000;
    for (std::uint64_t i = 0; i < kOperations; ++i) {
      CheckResults(*worker.counters, {source.data(), source.size()}, {result.data(), result.size()}, 7, kNs);
    }
    const Checker& checker = CheckerOf(*worker.counters);
    // A check begins if it fits, as long as the last one took. It may take a reading of the clock longer.
    constexpr std::uint64_t kAllowed = kNs * kOperations * kCheckShare / kCheckShareOf;
    EXPECT_LE(checker.spentNs, kAllowed + 1000);
    EXPECT_GE(checker.spentNs, kAllowed - 3000) << "and what it has is used";
    // A check reads the clock at its beginning, too. The first ones come on top.
    EXPECT_LE(checkSystem.threadReadings, 2 * kAllowed / 1000 + 40) << "all of it counts";
  });
}

TEST(Check, ATimeWithoutItsCpuIsNoneOfACheck) {
  for (const bool isTold : {true, false}) {
    InOwnProcess([isTold] {
      const Worker copies(Engine::kCpu, 0);
      const Worker resizes(Engine::kVpc, 0);
      const Bytes source = Random(30'000, 1);
      Bytes result(10'000);
      Resize(source, result);
      checkSystem.secondsAway = 1;
      checkSystem.threadTimeStands = !isTold;
      for (int i = 0; i < 40; ++i) {
        Copy(copies, source);
        CheckResults(*resizes.counters, {source.data(), source.size()}, {result.data(), result.size()}, 7,
                     kOperationNs);
      }
      // Where the system does not tell processor time, the clock counts, and checks are as rare as it says.
      EXPECT_EQ(CheckCounts(Engine::kCpu).whole, isTold ? 40U : 1U);
      EXPECT_EQ(CheckCounts(Engine::kVpc).whole, isTold ? 8U + 24 : 8U) << "and parts of the source";
      // Drawn blocks are timed by the clock.
      const Worker drawing(Engine::kCpu, 1);
      for (int i = 0; i < 11; ++i) Copy(drawing, source, 1);
      EXPECT_EQ(CheckerOf(*drawing.counters).whole, 1U);
      EXPECT_EQ(CheckerOf(*drawing.counters).spentNs, 10 * 20'000U);
    });
  }
}

TEST(Check, LearningNewSourcesIsPartOfTheShare) {
  InOwnProcess([] {
    const Worker worker(Engine::kVpc, 0);
    const Bytes sources[] = {Random(30'000, 1), Random(30'000, 2), Random(30'000, 3)};
    Bytes results[] = {Bytes(10'000), Bytes(10'000), Bytes(10'000)};
    for (int i = 0; i < 3; ++i) Resize(sources[i], results[i]);
    const auto check = [&](std::size_t i, std::uint64_t ns) {
      CheckResults(*worker.counters, {sources[i].data(), sources[i].size()},
                   {results[i].data(), results[i].size()}, 7, ns);
    };
    for (std::size_t i = 0; i < 1000; ++i) check(i % 3, 1'000'000);
    const Checker& checker = CheckerOf(*worker.counters);
    EXPECT_EQ(checker.works, 1U) << "the first one comes back";
    EXPECT_EQ(StateOf(Engine::kVpc), CheckState::kJudged);
    // Others are learnt when it does not come back, and when there is time.
    CheckerOf(*worker.counters).spentNs = checker.busyNs / 1000 * 15;
    for (std::size_t i = 0; i < 1000; ++i) check(1 + i % 2, 1);
    EXPECT_EQ(checker.works, 1U);
    for (int i = 0; i < 20; ++i) check(1, kOperationNs);
    EXPECT_EQ(checker.works, 2U);
    EXPECT_TRUE(Errors().empty());
    Flip(results[1], 4242);
    for (int i = 0; i < 4; ++i) check(1, kOperationNs);
    EXPECT_EQ(Errors().size(), 1U);
  });
}

// What ends the program without the check.
TEST(Check, MemoryThatCannotBeReadDoesNotEndTheProgram) {
  constexpr std::size_t kBytes = 65536;
  const auto hidden = [] { return mmap(nullptr, kBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0); };
  for (const bool isSource : {false, true}) {
    for (const int before : {0, 20}) {
      InOwnProcess([&hidden, isSource, before] {
        const Worker resizes(Engine::kVpc, 0);
        const Worker copies(Engine::kCpu, 0);
        const Bytes seen = Random(kBytes, 1);
        const auto operation = [&](const void* from, const void* to) {
          CheckResults(*resizes.counters, {from, kBytes}, {to, kBytes}, 7, kOperationNs);
          CheckCopy(*copies.counters, to, from, kBytes, kOperationNs);
        };
        for (int i = 0; i < before; ++i) operation(seen.data(), seen.data());
        const void* const unseen = hidden();
        // A source that comes after others is looked at when these have not come for a while.
        for (int i = 0; i < 100; ++i) {
          operation(isSource ? unseen : seen.data(), isSource ? seen.data() : unseen);
        }
        EXPECT_EQ(StateOf(Engine::kVpc), CheckState::kUnreadable);
        EXPECT_EQ(StateOf(Engine::kCpu), CheckState::kUnreadable);
      });
    }
  }
}

TEST(Check, MoreErrorsThanTheListHoldsAreCounted) {
  InOwnProcess([] {
    const Worker worker(Engine::kVpc, 0);
    Checker& checker = CheckerOf(*worker.counters);
    BeginCheck(*worker.counters, kOperationNs, 1);
    for (std::size_t i = 0; i < 300; ++i) {
      Difference difference;
      difference.words = 1;
      difference.offset = 8 * i;
      ReportError(*worker.counters, checker, ErrorKind::kResult, &difference);
    }
    EXPECT_EQ(Errors().size(), 256U);
    EXPECT_EQ(CheckCounts(Engine::kVpc).errors, 300U);
    EXPECT_EQ(CheckCounts(Engine::kVpc).unlisted, 44U);
  });
}

TEST(Check, ManyThreadsAtOnceMakeNoFalseAlarm) {
  InOwnProcess([] {
    std::vector<std::thread> threads;
    for (std::uint32_t number = 0; number < 4; ++number) {
      threads.emplace_back([number] {
        const Bytes source = Random(30'000, 1);
        Bytes result(10'000);
        const Worker copies(Engine::kCpu, number);
        const Worker resizes(Engine::kVpc, number);
        const Worker encodes(Engine::kVenc, number);
        for (std::uint64_t i = 0; i < 100; ++i) {
          const Bytes destination = source;
          CheckCopy(*copies.counters, destination.data(), source.data(), source.size(), kOperationNs);
          Resize(source, result);
          CheckResults(*resizes.counters, {source.data(), source.size()}, {result.data(), result.size()}, 7,
                       kOperationNs);
          Encode(encodes, source, i);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(Errors().empty());
    for (const Engine engine : {Engine::kCpu, Engine::kVpc, Engine::kVenc}) {
      EXPECT_EQ(CheckCounts(engine).state, CheckState::kJudged);
      EXPECT_EQ(CheckCounts(engine).errors, 0U);
    }
  });
}

// --- patterns ---

std::uint64_t Word(const Bytes& bytes, std::size_t number) {
  return WordAt(bytes.data() + 8 * number, 8);
}

// Kept: a buffer that is freed leaves its address to the next one, and an address is filled once.
const Bytes& Filled(const char* pattern, std::size_t bytes) {
  static std::deque<Bytes> kept;
  Bytes& memory = kept.emplace_back(bytes, 0x33);
  EXPECT_EQ(setenv(kFillVariable, pattern, 1), 0);
  EXPECT_TRUE(PrepareFill());
  FillSource(Engine::kCpu, memory.data(), memory.size());
  return memory;
}

TEST(Fill, HasSixPatterns) {
  InOwnProcess([] {
    constexpr std::size_t kBytes = 3 << 19;  // longer than the pattern, which begins again
    EXPECT_EQ(Filled("zeros", kBytes), Bytes(kBytes, 0));
    EXPECT_EQ(Filled("ones", kBytes), Bytes(kBytes, 0xff));
    const Bytes& checker = Filled("checker", kBytes);
    EXPECT_EQ(Word(checker, 0), 0x5555555555555555U);
    EXPECT_EQ(Word(checker, 1), 0xaaaaaaaaaaaaaaaaU);
    const Bytes& walking = Filled("walking", kBytes);
    EXPECT_EQ(Word(walking, 5), std::uint64_t{1} << 5);
    EXPECT_EQ(Word(walking, 64 + 5), ~(std::uint64_t{1} << 5));
    const Bytes& random = Filled("random", kBytes);
    EXPECT_EQ(random, Filled("random", kBytes)) << "the same in every run";
    std::set<std::uint64_t> words;
    for (std::size_t i = 0; i < 1000; ++i) words.insert(Word(random, i));
    EXPECT_EQ(words.size(), 1000U);
    const Bytes& worst = Filled("worst", kBytes);
    for (const std::size_t line : {std::size_t{0}, std::size_t{1}, std::size_t{63}}) {
      const std::uint64_t victim = std::uint64_t{1} << line;
      EXPECT_EQ(Word(worst, 8 * line) ^ Word(worst, 8 * line + 1), ~std::uint64_t{0}) << "all lines switch";
      EXPECT_EQ(Word(worst, 8 * line), victim);
    }
    EXPECT_EQ(Word(worst, 8 * 64), 0xffffffff00000000U ^ 1U);
    EXPECT_EQ(Word(worst, 8 * 128), 0xffff0000ffff0000U ^ 1U);
  });
}

TEST(Fill, FillsABufferOnce) {
  InOwnProcess([] {
    ASSERT_EQ(setenv(kFillVariable, "ones", 1), 0);
    ASSERT_TRUE(PrepareFill());
    Bytes memory(4096, 1);
    FillSource(Engine::kVpcCopy, memory.data(), memory.size());
    EXPECT_EQ(memory, Bytes(4096, 0xff));
    memory.assign(4096, 1);
    Bytes other(64);
    for (int i = 0; i < 3; ++i) {
      FillSource(Engine::kVpcCopy, memory.data(), memory.size());
      FillSource(Engine::kVpc, memory.data(), memory.size());
      FillSource(Engine::kVpc, other.data(), other.size());
    }
    EXPECT_EQ(memory, Bytes(4096, 1));
    EXPECT_EQ(FillCounts(Engine::kVpcCopy).buffers, 1U);
    EXPECT_EQ(FillCounts(Engine::kVpcCopy).bytes, 4096U);
    EXPECT_EQ(FillCounts(Engine::kVpc).buffers, 2U) << "it counts for both engines that read it";
    EXPECT_EQ(FillCounts(Engine::kVpc).bytes, 4096U + 64);
    EXPECT_EQ(FillCounts(Engine::kVpc).refused, 0U);
    EXPECT_EQ(FillCounts(Engine::kCpu).hasSources, 0U);
  });
}

TEST(Fill, MemoryThatDoesNotHoldThePatternIsAnErrorOfTheSource) {
  InOwnProcess([] {
    ASSERT_EQ(setenv(kFillVariable, "random", 1), 0);
    ASSERT_TRUE(PrepareFill());
    const Worker worker(Engine::kVpc, 3);
    Bytes memory(4 << 20);  // longer than the pattern
    const Spans source(memory.data(), memory.size());
    EXPECT_TRUE(FillSource(Engine::kVpc, memory.data(), memory.size()));
    EXPECT_FALSE(FillSource(Engine::kVpcCopy, memory.data(), memory.size())) << "it is filled";
    CheckFilled(*worker.counters, source);
    EXPECT_TRUE(Errors().empty());
    constexpr std::size_t kBit = 8 * ((5 << 19) + 1234) + 3;  // where the pattern has begun again
    Flip(memory, kBit);
    CheckFilled(*worker.counters, source);
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    ExpectIs(errors[0], ErrorKind::kSource, memory, kBit);
    EXPECT_EQ(errors[0].thread, 3U);
    EXPECT_EQ(errors[0].operation, 1U);
    EXPECT_EQ(errors[0].expected, Word(memory, 1234 / 8 + (1 << 16))) << "as a pattern before";
    // It is not an error that the program writes, or that an operation does.
    Flip(memory, 77);
    NoteDestination(memory.data() + 100, 8);
    CheckFilled(*worker.counters, source);
    Bytes written(4096);
    EXPECT_TRUE(FillSource(Engine::kVpc, written.data(), written.size()));
    std::fill(written.begin(), written.end(), 5);
    CheckFilled(*worker.counters, {written.data(), written.size()});
    EXPECT_TRUE(Errors().empty());
  });
}

TEST(Fill, LeavesResultsAndReadOnlyMemoryAlone) {
  InOwnProcess([] {
    ASSERT_EQ(setenv(kFillVariable, "ones", 1), 0);
    ASSERT_TRUE(PrepareFill());
    Bytes result(4096, 1);
    NoteDestination(result.data() + 4000, 96);
    Bytes good(64);
    for (int i = 0; i < 3; ++i) {
      FillSource(Engine::kVpc, result.data(), result.size());
      FillSource(Engine::kVpc, good.data(), good.size());
    }
    EXPECT_EQ(result, Bytes(4096, 1));
    void* const constant = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    FillSource(Engine::kVenc, constant, 4096);
    EXPECT_EQ(*static_cast<std::uint8_t*>(constant), 0);
    FillSource(Engine::kCpu, nullptr, 4096);
    EXPECT_EQ(FillCounts(Engine::kVpc).buffers, 1U);
    EXPECT_EQ(FillCounts(Engine::kVpc).refused, 1U) << "each buffer counts once";
    EXPECT_EQ(FillCounts(Engine::kVenc).buffers, 0U);
    EXPECT_EQ(FillCounts(Engine::kVenc).refused, 1U);
    EXPECT_EQ(FillCounts(Engine::kCpu).hasSources, 1U) << "what the program cannot see is not filled";
    EXPECT_EQ(FillCounts(Engine::kCpu).buffers, 0U);
  });
}

TEST(Fill, IsOffWithoutAName) {
  InOwnProcess([] {
    ASSERT_EQ(unsetenv(kFillVariable), 0);
    EXPECT_FALSE(PrepareFill());
    ASSERT_EQ(setenv(kFillVariable, "noise", 1), 0);
    EXPECT_FALSE(PrepareFill());
  });
}

}  // namespace
