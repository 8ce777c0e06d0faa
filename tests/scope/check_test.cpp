// SPDX-License-Identifier: Apache-2.0

// The meter's checks and patterns over memory of the test. What they learn is kept for the life of a process,
// so each test has a process of its own.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "checker.h"
#include "fill.h"
#include "verify.h"

namespace {

using namespace scope;  // NOLINT(google-build-using-namespace): all of it is under test
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint64_t kOperationNs = 1'000'000'000;  // long, so that every check fits into its share

void InOwnProcess(const std::function<void()>& test) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    test();
    (void)std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status << ", see above";
}

/// The counters of a worker.
struct Worker {
  Worker(Engine engine, std::uint32_t thread) : counters(std::make_unique<ThreadCounters>()) {
    counters->engine = engine;
    counters->thread = thread;
    counters->set = static_cast<std::uint32_t>(engine) * 16 + thread;
  }

  std::unique_ptr<ThreadCounters> counters;
};

Bytes Random(std::size_t size, unsigned seed) {
  std::uint64_t random = (std::uint64_t{seed} + 1) * 0x9e3779b97f4a7c15U;
  Bytes bytes(size);
  for (std::uint8_t& byte : bytes) {
    random ^= random << 13;
    random ^= random >> 7;
    random ^= random << 17;
    byte = static_cast<std::uint8_t>(random >> 32);
  }
  return bytes;
}

std::vector<ErrorPacket> Errors() {
  std::vector<ErrorPacket> errors;
  for (ErrorPacket error{}; TakeError(error);) errors.push_back(error);
  return errors;
}

void Flip(Bytes& bytes, std::size_t bit) {
  bytes[bit / 8] ^= static_cast<std::uint8_t>(1U << bit % 8);
}

void ExpectIs(const ErrorPacket& error, ErrorKind kind, const Bytes& where, std::size_t bit) {
  EXPECT_EQ(error.kind, kind);
  EXPECT_EQ(error.placed, 1U);
  EXPECT_EQ(error.bits, 1U);
  EXPECT_EQ(error.offset, bit / 64 * 8);
  EXPECT_EQ(error.address, reinterpret_cast<std::uintptr_t>(where.data() + bit / 64 * 8));
  EXPECT_EQ(error.expected ^ error.found, std::uint64_t{1} << bit % 64);
}

TEST(Check, EveryBitThatStaysWrongInACopyIsFound) {
  InOwnProcess([] {
    const Worker worker(Engine::kCpu, 0);
    const Bytes source = Random(20'000, 1);
    Bytes destination(source.size());
    std::mt19937 random(2);
    for (int flip = 0; flip < 200; ++flip) {
      const std::size_t bit = random() % (source.size() * 8);
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
  InOwnProcess([] {
    const Worker worker(Engine::kCpu, 0);
    Bytes source = Random(20'000, 1);
    for (int copy = 0; copy < 100; ++copy) {
      const Bytes destination = source;
      CheckCopy(*worker.counters, destination.data(), source.data(), source.size(), kOperationNs);
    }
    EXPECT_TRUE(Errors().empty());
    Flip(source, 23'457);
    const Bytes destination = source;
    CheckCopy(*worker.counters, destination.data(), source.data(), source.size(), kOperationNs);
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    ExpectIs(errors[0], ErrorKind::kSource, source, 23'457);
  });
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

// A resize of the tests: each byte of the result is the sum of some of the source.
void Resize(const Bytes& source, Bytes& result) {
  for (std::size_t i = 0; i < result.size(); ++i) {
    result[i] = static_cast<std::uint8_t>(source[3 * i] + source[3 * i + 1] + source[3 * i + 2]);
  }
}

TEST(Check, EveryBitThatStaysWrongInAResultIsFound) {
  InOwnProcess([] {
    const Worker worker(Engine::kVpc, 0);
    const Bytes source = Random(30'000, 1);
    Bytes result(10'000);
    const auto check = [&] {
      CheckResults(*worker.counters, {source.data(), source.size()}, {result.data(), result.size()}, 7,
                   kOperationNs);
    };
    Resize(source, result);
    for (int i = 0; i < 10; ++i) check();
    std::mt19937 random(2);
    for (int flip = 0; flip < 200; ++flip) {
      const std::size_t bit = random() % (result.size() * 8);
      Flip(result, bit);
      for (int i = 0; i < 4; ++i) check();
      Flip(result, bit);
      const std::vector<ErrorPacket> errors = Errors();
      ASSERT_EQ(errors.size(), 1U) << "flip " << flip << ": the same again is not listed";
      ExpectIs(errors[0], ErrorKind::kResult, result, bit);
    }
    const CheckPacket counts = CheckCounts(Engine::kVpc);
    EXPECT_EQ(counts.errors - counts.unlisted, 200U);
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

TEST(Check, ResultsThatDifferByNatureAreNotJudged) {
  InOwnProcess([] {
    const Worker worker(Engine::kAic, 0);
    const Bytes source = Random(3000, 1);
    for (unsigned i = 0; i < 50; ++i) {
      const Bytes result = Random(1000, i);
      CheckResults(*worker.counters, {source.data(), source.size()}, {result.data(), result.size()}, 7,
                   kOperationNs);
    }
    EXPECT_TRUE(Errors().empty());
    EXPECT_EQ(StateOf(Engine::kAic), CheckState::kNotDeterministic);
    EXPECT_EQ(CheckCounts(Engine::kAic).errors, 0U);
  });
}

TEST(Check, AWrongSourceOfAResultIsNamedAndNotTheResult) {
  InOwnProcess([] {
    const Worker worker(Engine::kVpc, 0);
    Bytes source = Random(30'000, 1);
    Bytes result(10'000);
    for (int i = 0; i < 100; ++i) {
      if (i == 80) Flip(source, 8 * 299);
      Resize(source, result);
      CheckResults(*worker.counters, {source.data(), source.size()}, {result.data(), result.size()}, 7,
                   kOperationNs);
    }
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    ExpectIs(errors[0], ErrorKind::kSource, source, 8 * 299);
  });
}

// Streams depend on the frame's number, as those of a rate control do.
void Encode(const Worker& worker, const Bytes& frame, std::uint64_t number, std::size_t flippedBit = 0) {
  Bytes stream = Random(3000 + number % 7, static_cast<unsigned>(number));
  if (flippedBit != 0) Flip(stream, flippedBit);
  CheckFrame(*worker.counters, {frame.data(), frame.size()}, 5);
  CheckStream(*worker.counters, {frame.data(), frame.size()}, {stream.data(), stream.size()}, number,
              kOperationNs);
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
  });
}

TEST(Check, AChannelAloneIsNotJudged) {
  InOwnProcess([] {
    const Bytes frame = Random(30'000, 1);
    const Worker worker(Engine::kVenc, 0);
    for (std::uint64_t number = 0; number < 50; ++number) Encode(worker, frame, number);
    EXPECT_EQ(CheckCounts(Engine::kVenc).state, CheckState::kAlone);
    EXPECT_EQ(CheckCounts(Engine::kVenc).checked, 0U);
  });
}

TEST(Check, StreamsThatDifferByNatureAreNotJudged) {
  InOwnProcess([] {
    const Bytes frame = Random(30'000, 1);
    for (std::uint32_t thread = 0; thread < 3; ++thread) {
      const Worker worker(Engine::kVenc, thread);
      for (std::uint64_t number = 0; number < 50; ++number) {
        const Bytes stream = Random(3000, static_cast<unsigned>(number) + 1000 * thread);
        CheckFrame(*worker.counters, {frame.data(), frame.size()}, 5);
        CheckStream(*worker.counters, {frame.data(), frame.size()}, {stream.data(), stream.size()}, number,
                    kOperationNs);
      }
    }
    EXPECT_TRUE(Errors().empty());
    EXPECT_EQ(StateOf(Engine::kVenc), CheckState::kNotDeterministic);
  });
}

TEST(Check, TakesNoMoreThanItsShareOfTheTime) {
  InOwnProcess([] {
    const Worker worker(Engine::kVpc, 0);
    const Bytes source = Random(300'000, 1);
    const Bytes result = Random(100'000, 2);
    constexpr std::uint64_t kNs = 20'000;
    constexpr int kOperations = 2000;
    for (int i = 0; i < kOperations; ++i) {
      CheckResults(*worker.counters, {source.data(), source.size()}, {result.data(), result.size()}, 7, kNs);
    }
    const Checker& checker = CheckerOf(*worker.counters);
    // A check begins if it fits, as long as the last one took.
    EXPECT_LT(CheckCounts(Engine::kVpc).checked, kOperations / 2U);
    EXPECT_LE(checker.spentNs, kNs * kOperations * 15 / 1000 + 100'000'000) << "the last one may take long";
  });
}

TEST(Check, MemoryThatCannotBeReadDoesNotEndTheProgram) {
  InOwnProcess([] {
    const Worker worker(Engine::kVpc, 0);
    constexpr std::size_t kBytes = 65536;
    void* const hidden = mmap(nullptr, kBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const Bytes source = Random(kBytes, 1);
    CheckResults(*worker.counters, {source.data(), source.size()}, {hidden, kBytes}, 7, kOperationNs);
    EXPECT_EQ(StateOf(Engine::kVpc), CheckState::kUnreadable);
    CheckResults(*worker.counters, {hidden, kBytes}, {source.data(), source.size()}, 7, kOperationNs);
    const Worker copies(Engine::kCpu, 0);
    CheckCopy(*copies.counters, hidden, source.data(), kBytes, kOperationNs);
    EXPECT_EQ(StateOf(Engine::kCpu), CheckState::kUnreadable);
  });
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
  FillSource(memory.data(), memory.size());
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
    FillSource(memory.data(), memory.size());
    EXPECT_EQ(memory, Bytes(4096, 0xff));
    memory.assign(4096, 1);
    FillSource(memory.data(), memory.size());
    EXPECT_EQ(memory, Bytes(4096, 1));
    EXPECT_EQ(FillCounts().buffers, 1U);
    EXPECT_EQ(FillCounts().bytes, 4096U);
  });
}

TEST(Fill, LeavesResultsAndReadOnlyMemoryAlone) {
  InOwnProcess([] {
    ASSERT_EQ(setenv(kFillVariable, "ones", 1), 0);
    ASSERT_TRUE(PrepareFill());
    Bytes result(4096, 1);
    NoteDestination(result.data() + 4000, 96);
    FillSource(result.data(), result.size());
    EXPECT_EQ(result, Bytes(4096, 1));
    void* const constant = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    FillSource(constant, 4096);
    EXPECT_EQ(*static_cast<std::uint8_t*>(constant), 0);
    EXPECT_EQ(FillCounts().buffers, 0U);
    EXPECT_EQ(FillCounts().refused, 2U);
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
