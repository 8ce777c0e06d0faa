// SPDX-License-Identifier: Apache-2.0

// The bounds of the meter's checks, patterns, deadlines and sleeps, one by one. Each test has a process of
// its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "check_tools.h"
#include "checker.h"
#include "deadlines.h"
#include "duty.h"
#include "fill.h"
#include "sanitizers.h"
#include "verify.h"

namespace {

using namespace checks;
using namespace scope;

constexpr std::uint64_t kAllowedNs = kOperationNs / 100;  // of one operation
constexpr std::uint64_t kNever = ~std::uint64_t{0} / 2;   // so much is spent that no check fits

Spans SpanOf(const Bytes& bytes) {
  return {bytes.data(), bytes.size()};
}

// --- the share of the time ---

TEST(CheckCases, TheShareIsThatOfTheProcessorsThatTheProgramMayUse) {
  for (const bool isKnown : {true, false}) {
    InOwnProcess([isKnown] {
      cpu_set_t allowed;
      ASSERT_EQ(sched_getaffinity(0, sizeof(allowed), &allowed), 0);
      cpu_set_t one;
      CPU_ZERO(&one);
      for (std::size_t cpu = 0; cpu < CPU_SETSIZE && CPU_COUNT(&one) == 0; ++cpu) {
        if (CPU_ISSET(cpu, &allowed)) CPU_SET(cpu, &one);
      }
      if (isKnown) {
        ASSERT_EQ(sched_setaffinity(0, sizeof(one), &one), 0);
      } else {
        checkSystem.refusal = System::kAffinity;
      }
      const Worker workers[] = {{Engine::kCpu, 0}, {Engine::kCpu, 1}, {Engine::kCpu, 2}};
      for (const Worker& worker : workers) (void)BeginCheck(*worker.counters, kOperationNs, 1);
      const Checker& checker = CheckerOf(*workers[0].counters);
      EXPECT_TRUE(MaySpend(checker, kAllowedNs / 3)) << "three threads on one processor";
      EXPECT_FALSE(MaySpend(checker, kAllowedNs / 3 + 1));
      EXPECT_EQ(checkSystem.refused, isKnown ? 0 : 1);
    });
  }
}

TEST(CheckCases, CountsAreThoseOfAllThreads) {
  InOwnProcess([] {
    const Bytes source = Random(20'000, 1);
    const Worker first(Engine::kCpu, 0);
    const Worker second(Engine::kCpu, 1);
    for (int i = 0; i < 3; ++i) Copy(first, source);
    for (int i = 0; i < 2; ++i) Copy(second, source);
    const CheckPacket counts = CheckCounts(Engine::kCpu);
    EXPECT_EQ(counts.engine, Engine::kCpu);
    EXPECT_EQ(counts.operations, 5U);
    EXPECT_EQ(counts.checked, 5U);
    EXPECT_EQ(counts.whole, 5U);
    EXPECT_EQ(counts.bytes, 100'000U);
    EXPECT_EQ(counts.allBytes, 100'000U);
    EXPECT_EQ(counts.checkNs, CheckerOf(*first.counters).spentNs + CheckerOf(*second.counters).spentNs);
    EXPECT_GT(counts.checkNs, 0U);
    EXPECT_EQ(CheckCounts(Engine::kVpc).engine, Engine::kVpc);
    EXPECT_EQ(CheckCounts(Engine::kVpc).operations, 0U);
    const Worker unknown(Engine::kAic, 0);
    for (int i = 0; i < 3; ++i) LeaveUnchecked(*unknown.counters, 5);
    EXPECT_EQ(CheckCounts(Engine::kAic).operations, 3U);
    EXPECT_EQ(CheckCounts(Engine::kAic).allBytes, 0U);
    EXPECT_EQ(CheckCounts(Engine::kAic).state, CheckState::kUnknown);
  });
}

// --- the work of a thread ---

TEST(CheckCases, AThreadKeepsItsWorkUntilItDoesNotComeBack) {
  InOwnProcess([] {
    const Worker worker(Engine::kVpc, 0);
    Checker& checker = BeginCheck(*worker.counters, 1000 * kOperationNs, 1);
    const Bytes own = Random(1000, 1);
    const Bytes other = Random(1000, 2);
    const auto know = [&](const Bytes& source) { return KnowWork(checker, Engine::kVpc, SpanOf(source), 7); };
    EXPECT_TRUE(know(own));
    for (int i = 0; i < 63; ++i) EXPECT_FALSE(know(other)) << i;
    EXPECT_TRUE(know(own)) << "it comes back";
    for (int i = 0; i < 63; ++i) EXPECT_FALSE(know(other)) << i;
    EXPECT_TRUE(know(other));
    for (int i = 0; i < 63; ++i) EXPECT_FALSE(know(own)) << i;
    EXPECT_TRUE(know(own));
    EXPECT_EQ(checker.works, 3U);
  });
}

TEST(CheckCases, TheTimeOfLearningIsSpentExceptThatOfTheFirstWork) {
  InOwnProcess([] {
    checkSystem.threadStepNs = 1000;
    const Worker worker(Engine::kVpc, 0);
    Checker& checker = BeginCheck(*worker.counters, kOperationNs, 1);
    const Bytes own = Random(70'000, 1);
    const Bytes other = Random(70'000, 2);
    EXPECT_TRUE(LearnWork(checker, Engine::kVpc, SpanOf(own), 7));
    EXPECT_EQ(checker.learnNs, 1000U);
    EXPECT_EQ(checker.spentNs, 0U);
    checker.cursor = 5;
    checker.spentNs = kAllowedNs - checker.learnNs + 1;
    EXPECT_FALSE(LearnWork(checker, Engine::kVpc, SpanOf(other), 7));
    EXPECT_EQ(checker.source, own.data());
    --checker.spentNs;
    const std::uint64_t before = checker.spentNs;
    EXPECT_TRUE(LearnWork(checker, Engine::kVpc, SpanOf(other), 7));
    EXPECT_EQ(checker.source, other.data());
    EXPECT_EQ(checker.spentNs, before + checker.learnNs);
    EXPECT_EQ(CheckCounts(Engine::kVpc).checkNs, checker.learnNs);
    EXPECT_EQ(checker.cursor, 0U);
  });
}

TEST(CheckCases, APlaceOfResultsIsLookedAtOnce) {
  InOwnProcess([] {
    checkSystem.threadStepNs = 1000;
    const Worker worker(Engine::kVpc, 0);
    Checker& checker = BeginCheck(*worker.counters, kOperationNs, 1);
    const Bytes memory(1000);
    const auto know = [&](std::size_t at, std::size_t bytes) {
      return KnowPlace(checker, Engine::kVpc, {memory.data() + at, bytes});
    };
    EXPECT_TRUE(know(0, 100));
    EXPECT_TRUE(know(0, 100));
    EXPECT_EQ(checker.placesSeen, 1U);
    EXPECT_EQ(checker.readNs, 1000U);
    EXPECT_EQ(checker.spentNs, 0U);
    checker.spentNs = kAllowedNs - checker.readNs + 1;
    EXPECT_FALSE(know(0, 200));
    const std::uint64_t before = --checker.spentNs;
    EXPECT_TRUE(know(0, 200));
    EXPECT_EQ(checker.spentNs, before + checker.readNs);
    EXPECT_EQ(checker.placesSeen, 2U);
    checker.spentNs = 0;
    EXPECT_TRUE(know(100, 100));
    EXPECT_TRUE(know(100, 200));
    EXPECT_TRUE(know(0, 100));
    EXPECT_EQ(checker.placesSeen, 4U);
    EXPECT_TRUE(know(300, 100));
    EXPECT_TRUE(know(0, 200));
    EXPECT_TRUE(know(300, 100));
    EXPECT_EQ(checker.placesSeen, 5U);
    EXPECT_TRUE(know(0, 100));
    EXPECT_EQ(checker.placesSeen, 6U) << "it was given up for the fifth";
  });
}

TEST(CheckCases, MemoryIsReadableIfAllOfItIs) {
  InOwnProcess([] {
    constexpr std::size_t kProbe = 65536;  // at a time
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* const hidden = mmap(nullptr, 3 * kProbe + page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(hidden, MAP_FAILED);
    auto* const readable = static_cast<std::uint8_t*>(hidden) + kProbe;
    ASSERT_EQ(mprotect(readable, kProbe + page, PROT_READ), 0);
    const int next = dup(STDERR_FILENO);
    ASSERT_EQ(close(next), 0);
    EXPECT_TRUE(CanRead({readable, kProbe + page}));
    errno = 77;
    EXPECT_FALSE(CanRead({readable, kProbe + page + 1}));
    EXPECT_EQ(errno, 77);
    EXPECT_FALSE(CanRead({readable - 1, 10}));
    Spans both(readable, 10);
    both.Add(hidden, 10);
    EXPECT_FALSE(CanRead(both));
    EXPECT_EQ(dup(STDERR_FILENO), next) << "no file is left open";
    checkSystem.refusal = System::kFile;
    EXPECT_FALSE(CanRead({readable, 10}));
    EXPECT_EQ(checkSystem.refused, 1);
    checkSystem.refusal = System::kNone;
    ASSERT_EQ(close(STDIN_FILENO), 0);
    EXPECT_TRUE(CanRead({readable, 10})) << "through the descriptor 0";
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
  });
}

TEST(CheckCases, SeveralStretchesAreOneContent) {
  for (const std::size_t wrong : {std::size_t{0}, std::size_t{1}, std::size_t{2}}) {
    InOwnProcess([wrong] {
      Bytes parts[] = {Random(100, 1), Random(200, 2), Random(56, 3)};
      constexpr std::size_t kBegins[] = {0, 100, 300};
      Spans source;
      Bytes all;
      for (const Bytes& part : parts) {
        source.Add(part.data(), part.size());
        all.insert(all.end(), part.begin(), part.end());
      }
      const Worker worker(Engine::kVpc, 0);
      Checker& checker = BeginCheck(*worker.counters, kOperationNs, 1);
      ASSERT_TRUE(LearnWork(checker, Engine::kVpc, source, 7));
      const Content* const content = KeepContent(source);
      EXPECT_EQ(content, checker.content);
      ASSERT_EQ(content->bytes, all.size());
      EXPECT_TRUE(std::equal(all.begin(), all.end(), content->copy));
      EXPECT_TRUE(CheckSource(*worker.counters, checker, source, true));
      Flip(parts[wrong], 5);
      EXPECT_FALSE(CheckSource(*worker.counters, checker, source, true));
      EXPECT_EQ(checker.held.error.offset, kBegins[wrong]);
      EXPECT_EQ(checker.held.error.address, reinterpret_cast<std::uintptr_t>(parts[wrong].data()));
      EXPECT_NE(KeepContent(source), content);
    });
  }
}

// Nothing of this size is copied here: the system refuses the memory, if it is asked at all.
TEST(CheckCases, CopiesTakeNoMoreThanTwoHundredAndFiftySixMebibytes) {
  if (kSanitized) GTEST_SKIP() << "reading that much takes long";
  InOwnProcess([] {
    constexpr std::size_t kMebibyte = std::size_t{1} << 20;
    constexpr std::size_t kPart = 16 * kMebibyte;
    void* const zeros = mmap(nullptr, kPart, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(zeros, MAP_FAILED);
    ASSERT_NE(KeepContent({zeros, kMebibyte})->copy, nullptr);
    checkSystem.refusal = System::kMemory;
    for (const std::size_t more : {0U, 1U}) {
      Spans left;
      for (std::size_t part = 0; part < 15; ++part) left.Add(zeros, kPart);
      left.Add(zeros, 15 * kMebibyte + more);
      ASSERT_EQ(left.total, 255 * kMebibyte + more);
      EXPECT_EQ(KeepContent(left)->copy, nullptr);
      EXPECT_EQ(checkSystem.refused, 1) << "asked for what is left, and not for a byte more";
    }
  });
}

// --- sources ---

TEST(CheckCases, TheNextPartOfASourceFollowsTheLastOne) {
  InOwnProcess([] {
    const Worker worker(Engine::kVpc, 0);
    Bytes source = Random(70'000, 1);
    Checker& checker = BeginCheck(*worker.counters, 100 * kOperationNs, 1);
    EXPECT_TRUE(CheckSource(*worker.counters, checker, SpanOf(source), true)) << "nothing is known of it";
    EXPECT_TRUE(CheckSourceAt(*worker.counters, checker, SpanOf(source), 0, 8));
    ASSERT_TRUE(LearnWork(checker, Engine::kVpc, SpanOf(source), 7));
    for (const std::size_t end : {32'768U, 65'536U, 70'000U, 32'768U}) {
      const std::uint64_t before = checker.spentNs;
      CheckSourcePart(*worker.counters, checker, SpanOf(source));
      EXPECT_EQ(checker.cursor, end);
      EXPECT_GT(checker.partNs, 0U);
      EXPECT_EQ(checker.spentNs, before + checker.partNs);
    }
    Flip(source, std::size_t{8} * 66'000);
    CheckSourcePart(*worker.counters, checker, SpanOf(source));
    EXPECT_EQ(checker.held.left, 0);
    CheckSourcePart(*worker.counters, checker, SpanOf(source));
    EXPECT_EQ(checker.held.left, kHeld);
    EXPECT_EQ(checker.held.error.offset, 66'000U);
  });
  for (const std::size_t byte : {0U, 69'999U}) {
    InOwnProcess([byte] {
      const Worker worker(Engine::kVpc, 0);
      Bytes source = Random(70'000, 1);
      Checker& checker = BeginCheck(*worker.counters, kOperationNs, 1);
      ASSERT_TRUE(LearnWork(checker, Engine::kVpc, SpanOf(source), 7));
      Flip(source, 8 * byte);
      EXPECT_FALSE(CheckSource(*worker.counters, checker, SpanOf(source), true));
      EXPECT_EQ(checker.held.error.offset, byte / 8 * 8);
    });
  }
  InOwnProcess([] {
    const Worker worker(Engine::kVpc, 0);
    Bytes source(1);
    Checker& checker = BeginCheck(*worker.counters, kOperationNs, 1);
    ASSERT_TRUE(LearnWork(checker, Engine::kVpc, SpanOf(source), 7));
    Flip(source, 0);
    EXPECT_FALSE(CheckSource(*worker.counters, checker, SpanOf(source), true)) << "one byte";
  });
}

TEST(CheckCases, ASourceThatIsWrittenThreeTimesIsNotJudged) {
  InOwnProcess([] {
    const Worker worker(Engine::kCpu, 0);
    Bytes source(20'000);
    for (unsigned written = 0; written < 4; ++written) {
      const Bytes next = Random(source.size(), written);
      std::copy(next.begin(), next.end(), source.begin());
      for (int copy = 0; copy < 3; ++copy) Copy(worker, source);
      EXPECT_EQ(StateOf(Engine::kCpu), written < 3 ? CheckState::kJudged : CheckState::kSourcesChange)
          << written;
    }
  });
}

TEST(CheckCases, ASourceIsAnotherOneIfMoreThanAQuarterOfItDiffers) {
  for (const std::size_t words : {10U, 11U}) {
    InOwnProcess([words] {
      const Worker worker(Engine::kCpu, 0);
      Bytes source = Random(320, 1);
      for (int copy = 0; copy < 3; ++copy) Copy(worker, source);
      for (std::size_t word = 0; word < words; ++word) Flip(source, 64 * word);
      Copy(worker, source);
      EXPECT_EQ(CheckerOf(*worker.counters).changes, words == 11 ? 1 : 0);
      EXPECT_EQ(CheckerOf(*worker.counters).held.left, words == 11 ? 0 : kHeld);
    });
  }
}

TEST(CheckCases, ASourceThatIsWrittenAgainIsNotComparedAnyMore) {
  InOwnProcess([] {
    const Worker worker(Engine::kCpu, 0);
    Bytes source = Random(6000, 1);
    Copy(worker, source);
    for (int number = 0; number < 3; ++number) {
      ++source[4000];
      Copy(worker, source);
    }
    EXPECT_EQ(StateOf(Engine::kCpu), CheckState::kSourcesChange);
    EXPECT_EQ(CheckCounts(Engine::kCpu).checked, 2U);
  });
}

TEST(CheckCases, AThreadThatLeavesItsSourceReportsItAtTheSixtyFourthOfOthers) {
  InOwnProcess([] {
    const Worker worker(Engine::kCpu, 0);
    Bytes source = Random(20'000, 1);
    const Bytes next = Random(20'000, 2);
    Copy(worker, source);
    Flip(source, 777);
    for (int copy = 0; copy < 3; ++copy) Copy(worker, source);
    for (int copy = 0; copy < 63; ++copy) Copy(worker, next);
    EXPECT_TRUE(Errors().empty());
    Copy(worker, next);
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].engine, Engine::kCpu);
    EXPECT_EQ(errors[0].thread, 0U);
  });
}

TEST(CheckCases, AnErrorHasTheTimeOfItsCheck) {
  InOwnProcess([] {
    const Worker worker(Engine::kVenc, 3);
    Checker& checker = BeginCheck(*worker.counters, kOperationNs, 1);
    const std::uint64_t before = NowNs();
    // The second one has no place and is of the first kind.
    ReportError(*worker.counters, checker, ErrorKind::kResult, nullptr, 9);
    ReportError(*worker.counters, checker, ErrorKind::kCopy, nullptr);
    const std::uint64_t after = NowNs();
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 2U);
    EXPECT_GE(errors[0].header.timeNs, before);
    EXPECT_LE(errors[0].header.timeNs, after);
    EXPECT_EQ(errors[0].engine, Engine::kVenc);
    EXPECT_EQ(errors[0].thread, 3U);
    EXPECT_EQ(errors[0].other, 9U);
    EXPECT_EQ(errors[0].operation, 1U);
    EXPECT_EQ(errors[0].placed, 0U);
  });
  InOwnProcess([] {
    const Worker worker(Engine::kCpu, 0);
    Checker& checker = BeginCheck(*worker.counters, kOperationNs, 1);
    ReportError(*worker.counters, checker, ErrorKind::kResult, nullptr);
    ReportError(*worker.counters, checker, ErrorKind::kCopy, nullptr);
    EXPECT_EQ(Errors().size(), 2U) << "nothing but these two was listed";
  });
}

// --- differences that are gone when they are read again ---

std::uint8_t* touchedPage = nullptr;
std::uint8_t* repaired = nullptr;
std::uint8_t rightValue = 0;

void Repair(int /*signal*/) {
  if (repaired == nullptr) _exit(9);
  (void)mprotect(touchedPage, 4096, PROT_READ | PROT_WRITE);
  *repaired = rightValue;
  repaired = nullptr;
}

// Memory that repairs a byte elsewhere when it is read first.
std::uint8_t* RepairingPage() {
  struct sigaction action{};
  action.sa_handler = Repair;
  EXPECT_EQ(sigaction(SIGSEGV, &action, nullptr), 0);
  void* const page = mmap(nullptr, 65536, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  EXPECT_NE(page, MAP_FAILED);
  touchedPage = static_cast<std::uint8_t*>(page);
  const Bytes content = Random(4096, 1);
  std::copy(content.begin(), content.end(), touchedPage);
  return touchedPage;
}

void SpoilUntilTouched(Bytes& bytes, std::size_t bit) {
  repaired = &bytes[bit / 8];
  rightValue = *repaired;
  Flip(bytes, bit);
  ASSERT_EQ(mprotect(touchedPage, 4096, PROT_NONE), 0);
}

TEST(CheckCases, WhatIsRightWhenItIsReadAgainIsAPassingError) {
  InOwnProcess([] {
    const Worker worker(Engine::kCpu, 0);
    const std::uint8_t* const source = RepairingPage();
    Bytes destination(source, source + 4096);
    CheckCopy(*worker.counters, destination.data(), source, 4096, kOperationNs);
    SpoilUntilTouched(destination, 777);
    CheckCopy(*worker.counters, destination.data(), source, 4096, kOperationNs);
    EXPECT_EQ(repaired, nullptr) << "the source was read";
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    ExpectIs(errors[0], ErrorKind::kPassing, destination, 777);
  });
  InOwnProcess([] {
    const Worker worker(Engine::kVpc, 0);
    Checker& checker = BeginCheck(*worker.counters, kOperationNs, 1);
    Bytes first = Random(100, 2);
    Spans source = SpanOf(first);
    source.Add(RepairingPage(), 4096);
    ASSERT_TRUE(LearnWork(checker, Engine::kVpc, source, 7));
    SpoilUntilTouched(first, 77);
    EXPECT_FALSE(CheckSource(*worker.counters, checker, source, true));
    EXPECT_EQ(repaired, nullptr);
    EXPECT_EQ(checker.held.left, 0);
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    ExpectIs(errors[0], ErrorKind::kPassing, first, 77);
  });
  InOwnProcess([] {
    const Worker worker(Engine::kVpc, 0);
    const std::uint8_t* const source = RepairingPage();
    Bytes result = Random(500, 2);
    const auto check = [&] {
      CheckResults(*worker.counters, {source, 4096}, SpanOf(result), 7, kOperationNs);
    };
    for (int i = 0; i < 9; ++i) check();
    SpoilUntilTouched(result, 77);
    check();
    EXPECT_EQ(repaired, nullptr);
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].kind, ErrorKind::kPassing);
    EXPECT_EQ(errors[0].placed, 0U);
  });
}

// The page of the pattern is read behind the wrong word: the word is right when it is read again.
TEST(CheckCases, WhatWasFilledMayDifferOnceOnly) {
  for (const bool isBack : {true, false}) {
    InOwnProcess([isBack] {
      ASSERT_EQ(setenv(kFillVariable, "random", 1), 0);
      ASSERT_TRUE(PrepareFill());
      std::ifstream maps("/proc/self/maps");
      for (std::string line; std::getline(maps, line);) {
        if (line.find("scope_fill") == std::string::npos) continue;
        touchedPage = reinterpret_cast<std::uint8_t*>(std::stoull(line, nullptr, 16) + 4096);
      }
      ASSERT_NE(touchedPage, nullptr);
      struct sigaction action{};
      action.sa_handler = Repair;
      ASSERT_EQ(sigaction(SIGSEGV, &action, nullptr), 0);
      const Worker worker(Engine::kVpc, 0);
      Bytes memory(8192);
      ASSERT_TRUE(FillSource(Engine::kVpc, memory.data(), memory.size()));
      SpoilUntilTouched(memory, 777);
      if (!isBack) rightValue ^= 8;
      CheckFilled(*worker.counters, SpanOf(memory));
      EXPECT_EQ(repaired, nullptr) << "the pattern was read";
      const std::vector<ErrorPacket> errors = Errors();
      ASSERT_EQ(errors.size(), 1U);
      EXPECT_EQ(errors[0].kind, isBack ? ErrorKind::kPassing : ErrorKind::kSource);
      EXPECT_EQ(errors[0].offset, 96U);
      EXPECT_EQ(errors[0].expected ^ errors[0].found, std::uint64_t{1} << (isBack ? 9 : 11))
          << "as seen last";
    });
  }
}

// --- copies ---

TEST(CheckCases, OnlyTheFirstTwoCopiesMayShowThatAnotherThreadWritesTheSource) {
  for (const int operation : {1, 2, 3}) {
    for (const std::size_t words : {10U, 11U}) {
      InOwnProcess([operation, words] {
        const Worker worker(Engine::kCpu, 0);
        const Bytes source = Random(320, 1);
        Bytes destination = source;
        const auto copy = [&] {
          CheckCopy(*worker.counters, destination.data(), source.data(), source.size(), kOperationNs);
        };
        for (int i = 1; i < operation; ++i) copy();
        for (std::size_t word = 0; word < words; ++word) Flip(destination, 64 * word);
        copy();
        const bool isWritten = operation <= 2 && words == 11;
        EXPECT_EQ(StateOf(Engine::kCpu), isWritten ? CheckState::kSourcesChange : CheckState::kJudged);
        EXPECT_EQ(Errors().size(), isWritten ? 0U : 1U) << operation << " " << words;
      });
    }
  }
}

TEST(CheckCases, AWholeCheckForetellsTheNextOneUnlessItFoundAnError) {
  InOwnProcess([] {
    const Worker worker(Engine::kCpu, 0);
    const Bytes source = Random(20'000, 1);
    Bytes destination = source;
    const auto copy = [&] {
      CheckCopy(*worker.counters, destination.data(), source.data(), source.size(), kOperationNs);
    };
    copy();
    Checker& checker = CheckerOf(*worker.counters);
    EXPECT_GT(checker.wholeNs, 1U);
    EXPECT_EQ(checker.spentNs, 0U) << "the first one comes on top";
    checker.wholeNs = 1;
    copy();
    EXPECT_GT(checker.wholeNs, 1U);
    EXPECT_EQ(checker.spentNs, checker.wholeNs);
    checker.wholeNs = 1;
    Flip(destination, 777);
    copy();
    EXPECT_EQ(Errors().size(), 1U);
    EXPECT_EQ(checker.wholeNs, 1U);
    checker.spentNs = kNever;
    copy();
    EXPECT_EQ(checker.whole, 3U) << "there was no time for a whole one";
  });
}

TEST(CheckCases, ADrawnBlockTakesWhatTheClockSays) {
  InOwnProcess([] {
    const Worker worker(Engine::kCpu, 0);
    const Bytes source = Random(20'000, 1);
    checkSystem.stepNs = 1000;
    for (int i = 0; i < 11; ++i) Copy(worker, source, 1);
    EXPECT_EQ(CheckerOf(*worker.counters).whole, 1U);
    EXPECT_EQ(CheckerOf(*worker.counters).spentNs, 10 * 1000U);
  });
}

TEST(CheckCases, WithoutRoomForACopyASourceIsComparedWithItself) {
  InOwnProcess([] {
    checkSystem.refusal = System::kMemory;
    const Worker copies(Engine::kCpu, 0);
    const Worker resizes(Engine::kVpc, 0);
    const Bytes source = Random(30'000, 1);
    Bytes destination = source;
    Bytes result(10'000);
    Resize(source, result);
    const auto work = [&] {
      CheckCopy(*copies.counters, destination.data(), source.data(), source.size(), kOperationNs);
      CheckResult(resizes, source, result);
    };
    for (int i = 0; i < 10; ++i) work();
    EXPECT_GT(checkSystem.refused, 0);
    ASSERT_NE(CheckerOf(*copies.counters).content, nullptr);
    EXPECT_EQ(CheckerOf(*copies.counters).content->copy, nullptr);
    EXPECT_TRUE(Errors().empty());
    Flip(destination, 12'345);
    Flip(result, 4242);
    for (int i = 0; i < 3; ++i) work();
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 2U);
    ExpectIs(errors[0], ErrorKind::kCopy, destination, 12'345);
    EXPECT_EQ(errors[1].kind, ErrorKind::kResult);
    EXPECT_EQ(errors[1].placed, 0U);
  });
}

// --- results ---

TEST(CheckCases, OfEightResultsSixHaveToBeAlike) {
  for (const int wrong : {1, 2, 3}) {
    for (const bool areLast : {false, true}) {
      InOwnProcess([wrong, areLast] {
        const Worker worker(Engine::kAic, 0);
        const Bytes source = Random(300, 1);
        const Bytes right = Random(100, 2);
        Bytes result;
        for (int i = 0; i < 8; ++i) {
          const bool isWrong = areLast ? i >= 8 - wrong : i < wrong;
          const Bytes next = isWrong ? Random(100, 3 + static_cast<unsigned>(i)) : right;
          result.resize(100);
          std::copy(next.begin(), next.end(), result.begin());
          CheckResult(worker, source, result);
        }
        std::copy(right.begin(), right.end(), result.begin());
        for (int i = 0; i < 4; ++i) CheckResult(worker, source, result);
        const CheckPacket counts = CheckCounts(Engine::kAic);
        if (wrong > 2) {
          EXPECT_EQ(counts.state, CheckState::kNotDeterministic);
          EXPECT_EQ(counts.errors, 0U);
          EXPECT_EQ(counts.checked, 8U) << "then it is left alone";
          return;
        }
        EXPECT_EQ(counts.state, CheckState::kJudged);
        EXPECT_EQ(counts.errors, static_cast<std::uint64_t>(wrong));
        const std::vector<ErrorPacket> errors = Errors();
        ASSERT_EQ(errors.size(), 1U) << "the same again";
        EXPECT_EQ(errors[0].kind, ErrorKind::kResult);
        EXPECT_EQ(errors[0].placed, 0U);
      });
    }
  }
}

struct FewBits {
  std::size_t words;
  std::size_t bits;  ///< of each
  bool isFew;
};

// Eight results of a resize, none as another. In the last of them, and in those that follow, `wrong` is
// different.
void ExpectFew(const FewBits& wrong, std::size_t missing, bool hasRoom, std::size_t bytes = 512) {
  const Worker worker(Engine::kVpc, 0);
  const Bytes source = Random(300, 1);
  Bytes result = Random(bytes, 2);
  checkSystem.stepNs = 1;
  if (!hasRoom) checkSystem.refusal = System::kMemory;
  for (std::size_t i = 0; i < 8; ++i) {
    Flip(result, 64 * i);
    CheckResult(worker, source, result);
  }
  EXPECT_EQ(CheckCounts(Engine::kVpc).state, CheckState::kNotDeterministic);
  for (std::size_t i = 0; i < wrong.words * wrong.bits; ++i) {
    Flip(result, 64 * (i / wrong.bits) + i % wrong.bits);
  }
  result.resize(result.size() - missing);
  for (int i = 0; i < 7; ++i) CheckResult(worker, source, result);
  EXPECT_EQ(CheckCounts(Engine::kVpc).state, CheckState::kNotDeterministic);
  CheckResult(worker, source, result);
  const bool isFew = wrong.isFew && missing == 0 && hasRoom;
  const CheckPacket counts = CheckCounts(Engine::kVpc);
  EXPECT_EQ(counts.state, isFew ? CheckState::kJudged : CheckState::kNotDeterministic) << wrong.words;
  EXPECT_EQ(counts.checked, isFew ? 16U : 9U) << "with a result that is quite another one, it is over";
  EXPECT_EQ(counts.whole, counts.checked);
  EXPECT_EQ(counts.errors, 0U);
  if (missing == 0)
    EXPECT_EQ(counts.checkNs, 2U) << "two looks for what others have learnt; these come on top";
  if (!isFew) return;
  // What was kept is not what is right, so the place of an error is not known.
  Flip(result, 77);
  for (int i = 0; i < 2; ++i) CheckResult(worker, source, result);
  const std::vector<ErrorPacket> errors = Errors();
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_EQ(errors[0].placed, 0U);
}

TEST(CheckCases, ResultsThatDifferInTwoBitsOfSixteenWordsAtMostAreLearntFrom) {
  for (const FewBits& wrong :
       {FewBits{16, 1, true}, {17, 1, false}, {16, 2, true}, {1, 2, true}, {1, 3, false}}) {
    InOwnProcess([&wrong] { ExpectFew(wrong, 0, true); });
  }
  InOwnProcess([] { ExpectFew({16, 1, false}, 0, true, 511); });
  InOwnProcess([] { ExpectFew({4, 1, true}, 0, true, 128); });
  InOwnProcess([] { ExpectFew({5, 1, false}, 0, true, 128); });
  InOwnProcess([] { ExpectFew({1, 1, true}, 8, true); });
  InOwnProcess([] { ExpectFew({1, 1, true}, 0, false); });
}

TEST(CheckCases, LearningFromFewBitsOfTheNextWorkIsPartOfTheShare) {
  InOwnProcess([] {
    const Worker worker(Engine::kVpc, 0);
    const Bytes sources[] = {Random(300, 1), Random(300, 2)};
    Bytes result = Random(400, 3);
    for (int i = 0; i < 8; ++i) CheckResult(worker, sources[0], result);
    for (std::size_t i = 0; i < 63 + 8; ++i) {
      if (i >= 63) Flip(result, 64 * (i - 63));
      CheckResult(worker, sources[1], result);
    }
    Checker& checker = CheckerOf(*worker.counters);
    ASSERT_TRUE(checker.unlike);
    const std::uint64_t checked = checker.checked;
    const std::uint64_t spent = checker.spentNs;
    checker.spentNs = kNever;
    CheckResult(worker, sources[1], result);
    EXPECT_EQ(checker.checked, checked) << "there was no time";
    EXPECT_EQ(checker.spentNs, kNever);
    checker.spentNs = spent;
    CheckResult(worker, sources[1], result);
    EXPECT_EQ(checker.checked, checked + 1);
    EXPECT_GT(checker.spentNs, spent);
  });
}

TEST(CheckCases, WhatOthersHaveLearntIsLookedForWithinTheShare) {
  InOwnProcess([] {
    const Worker worker(Engine::kAic, 0);
    const Bytes source = Random(300, 1);
    Bytes result = Random(100, 2);
    for (std::size_t i = 0; i < 8; ++i) {
      Flip(result, i);
      CheckResult(worker, source, result);
    }
    Checker& checker = CheckerOf(*worker.counters);
    ASSERT_TRUE(checker.unlike);
    checkSystem.stepNs = 1000;
    for (int i = 0; i < 40; ++i) CheckResult(worker, source, result);
    EXPECT_EQ(checker.spentNs, 10'000U) << "at each fourth operation";
    checkSystem.stepNs = 1'000'000;
    for (int i = 0; i < 4; ++i) CheckResult(worker, source, result);
    EXPECT_EQ(checker.spentNs, 30'000U) << "by the clock, so that of a wait for the CPU only a part counts";
    checker.spentNs = kNever;
    for (int i = 0; i < 40; ++i) CheckResult(worker, source, result);
    EXPECT_EQ(checker.spentNs, kNever) << "there was no time";
  });
}

TEST(CheckCases, ResultsOfTwoSourcesAreNotLearntTogether) {
  InOwnProcess([] {
    const Worker worker(Engine::kAic, 0);
    const Bytes sources[] = {Random(300, 1), Random(300, 2)};
    const Bytes results[] = {Random(100, 3), Random(100, 4)};
    for (int i = 0; i < 4; ++i) CheckResult(worker, sources[0], results[0]);
    for (int i = 0; i < 80; ++i) CheckResult(worker, sources[1], results[1]);
    EXPECT_EQ(StateOf(Engine::kAic), CheckState::kJudged);
    EXPECT_EQ(CheckCounts(Engine::kAic).errors, 0U);
  });
}

TEST(CheckCases, ResultsOfThirtyTwoKindsAreComparedAmongThreads) {
  InOwnProcess([] {
    const Bytes source = Random(300, 1);
    const auto work = [&](std::uint32_t set, std::uint32_t kind, const Bytes& result) {
      const Worker worker(Engine::kVpc, set, set);
      for (int i = 0; i < 10; ++i)
        CheckResults(*worker.counters, SpanOf(source), SpanOf(result), kind, kOperationNs);
    };
    for (std::uint32_t kind = 0; kind < 40; ++kind) work(kind, kind, Random(100, kind));
    EXPECT_TRUE(Errors().empty());
    for (const std::uint32_t kind : {0U, 1U, 31U, 32U, 36U, 39U}) {
      Bytes wrong = Random(100, kind);
      Flip(wrong, 99);
      work(64 + kind, kind, wrong);
      const std::vector<ErrorPacket> errors = Errors();
      ASSERT_EQ(errors.size(), kind < 32 ? 1U : 0U) << kind;
      if (!errors.empty()) EXPECT_EQ(errors[0].other, kind);
    }
  });
}

TEST(CheckCases, AResultThatDiffersFromThatOfOthersIsCountedOnceAndNotKept) {
  InOwnProcess([] {
    const Bytes source = Random(300, 1);
    Bytes result = Random(100, 2);
    for (std::uint32_t thread = 0; thread < 4; ++thread) {
      if (thread == 2) Flip(result, 99);
      if (thread == 3) result.resize(90);
      const Worker worker(Engine::kVpc, thread);
      for (int i = 0; i < 12; ++i) CheckResult(worker, source, result);
    }
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 2U);
    EXPECT_EQ(errors[0].placed, 1U);
    EXPECT_EQ(errors[1].thread, 3U);
    EXPECT_EQ(errors[1].placed, 0U) << "another length";
    EXPECT_EQ(CheckCounts(Engine::kVpc).errors, 2U);
    // The source and the first result are kept.
    for (std::uint64_t i = 2; i < kMostContents; ++i) ASSERT_NE(KeepContent({&i, sizeof(i)}), nullptr) << i;
    EXPECT_EQ(KeepContent({"another", 7}), nullptr);
  });
}

TEST(CheckCases, ThreadsWithOtherSourcesHaveOtherResults) {
  InOwnProcess([] {
    for (const std::uint32_t thread : {0U, 1U}) {
      const Worker worker(Engine::kVpc, thread);
      const Bytes source = Random(300, thread);
      const Bytes result = Random(100, thread);
      for (int i = 0; i < 12; ++i) CheckResult(worker, source, result);
    }
    EXPECT_TRUE(Errors().empty());
    EXPECT_EQ(CheckCounts(Engine::kVpc).judgedThreads, 2U);
  });
}

TEST(CheckCases, NewWorkIsComparedWithThatOfOtherThreads) {
  InOwnProcess([] {
    const Worker first(Engine::kVpc, 0);
    const Worker second(Engine::kVpc, 1);
    Bytes own = Random(300, 1);
    const Bytes shared = Random(300, 2);
    const Bytes ownResult = Random(100, 3);
    Bytes result = Random(100, 4);
    for (int i = 0; i < 12; ++i) CheckResult(first, shared, result);
    for (int i = 0; i < 12; ++i) CheckResult(second, own, ownResult);
    Flip(own, 77);
    for (int i = 0; i < 30; ++i) CheckResult(second, own, ownResult);
    std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    ExpectIs(errors[0], ErrorKind::kSource, own, 77);
    Flip(result, 99);
    for (int i = 0; i < 80; ++i) CheckResult(second, shared, result);
    errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    ExpectIs(errors[0], ErrorKind::kThreads, result, 99);
    Flip(result, 200);
    for (int i = 0; i < 4; ++i) CheckResult(second, shared, result);
    errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].kind, ErrorKind::kResult);
    EXPECT_EQ(errors[0].placed, 0U) << "what is right is not known";
  });
}

TEST(CheckCases, WorkWithoutSourcesIsJudged) {
  InOwnProcess([] {
    const Worker first(Engine::kAic, 0);
    const Worker second(Engine::kAic, 1);
    Bytes result = Random(100, 1);
    for (int i = 0; i < 12; ++i) CheckResult(first, {}, result);
    const Bytes source = Random(300, 2);
    for (int i = 0; i < 10; ++i) CheckResult(second, source, result);
    Flip(result, 99);
    for (int i = 0; i < 80; ++i) CheckResult(second, {}, result);
    std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    ExpectIs(errors[0], ErrorKind::kThreads, result, 99);
    EXPECT_EQ(errors[0].other, 0U);
    for (int i = 0; i < 4; ++i) CheckResult(first, {}, result);
    errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    ExpectIs(errors[0], ErrorKind::kResult, result, 99);
  });
}

TEST(CheckCases, NoResultIsNotJudgedAndAShortOneIs) {
  InOwnProcess([] {
    const Bytes source = Random(300, 1);
    const Worker worker(Engine::kVpc, 0);
    for (int i = 0; i < 12; ++i) CheckResult(worker, source, {});
    EXPECT_EQ(CheckCounts(Engine::kVpc).checked, 0U);
    EXPECT_EQ(CheckCounts(Engine::kVpc).operations, 12U);
    const Bytes result(1);
    for (int i = 0; i < 12; ++i) CheckResult(worker, source, result);
    EXPECT_EQ(StateOf(Engine::kVpc), CheckState::kJudged);
  });
}

TEST(CheckCases, ChecksOfResultsAreSpentExceptTheFirstEight) {
  InOwnProcess([] {
    const Worker worker(Engine::kVpc, 0);
    const Bytes sources[] = {Random(300, 1), Random(300, 2)};
    const Bytes result = Random(100, 3);
    for (int i = 0; i < 8; ++i) CheckResult(worker, sources[0], result);
    const Checker& checker = CheckerOf(*worker.counters);
    EXPECT_EQ(checker.spentNs, 0U);
    EXPECT_GT(checker.wholeNs, 0U);
    CheckResult(worker, sources[0], result);
    EXPECT_GT(checker.spentNs, 0U);
    for (int i = 0; i < 63; ++i) CheckResult(worker, sources[1], result);
    const std::uint64_t before = checker.spentNs;
    checkSystem.threadStepNs = 1000;
    CheckResult(worker, sources[1], result);
    EXPECT_EQ(checker.learnNs, 1000U);
    EXPECT_EQ(checker.wholeNs, 1000U);
    EXPECT_EQ(checker.spentNs, before + 3000) << "and what follows, which may be a copy of the result";
    // Only the results from which it learns come on top, and so many as that takes.
    CheckerOf(*worker.counters).spentNs = kNever;
    const std::uint64_t checked = checker.checked;
    CheckResult(worker, sources[1], result);
    EXPECT_EQ(checker.checked, checked) << "there was no time";
  });
}

TEST(CheckCases, EveryFourthCheckOfAResultIsOneOfTheSource) {
  InOwnProcess([] {
    const Worker worker(Engine::kVpc, 0);
    Bytes source = Random(100'000, 1);
    const Bytes result = Random(100, 2);
    for (int i = 0; i < 8; ++i) CheckResult(worker, source, result);
    Checker& checker = CheckerOf(*worker.counters);
    for (std::size_t turn = 1; turn <= 8; ++turn) {
      CheckResult(worker, source, result);
      EXPECT_EQ(checker.cursor, turn / 4 * 32'768) << turn;
    }
    const std::uint64_t spent = checker.spentNs;
    checker.spentNs = kNever;
    for (int i = 0; i < 8; ++i) CheckResult(worker, source, result);
    EXPECT_EQ(checker.cursor, 65'536U) << "there was no time";
    checker.spentNs = spent;
    // No result shows it.
    Flip(source, std::size_t{8} * 99'000);
    for (int i = 0; i < 8 + kHeld; ++i) CheckResult(worker, source, result);
    const std::vector<ErrorPacket> errors = Errors();
    ASSERT_EQ(errors.size(), 1U);
    ExpectIs(errors[0], ErrorKind::kSource, source, std::size_t{8} * 99'000);
  });
}

// --- patterns ---

void Prepare(const char* pattern) {
  ASSERT_EQ(setenv(kFillVariable, pattern, 1), 0);
  ASSERT_TRUE(PrepareFill());
}

TEST(FillCases, RandomWordsAreTheSameInEveryVersionAndBeginAgainAfterAMebibyte) {
  InOwnProcess([] {
    Prepare("random");
    std::ifstream maps("/proc/self/maps");
    int mapped = 0;
    for (std::string line; std::getline(maps, line);) {
      if (line.find("scope_fill") == std::string::npos) continue;
      ++mapped;
      EXPECT_NE(line.find(" r--s "), std::string::npos) << "the program could write into it: " << line;
    }
    EXPECT_EQ(mapped, 1) << "to compare with what was filled";
    constexpr std::size_t kBytes = 3 << 19;
    constexpr std::size_t kWords = (std::size_t{1} << 20) / 8;
    Bytes memory(kBytes + 64, 0x33);
    FillSource(Engine::kCpu, memory.data(), kBytes);
    std::uint64_t random = 0;
    for (std::size_t word = 0; word < kBytes / 8; ++word) {
      if (word % kWords == 0) random = 0x9e3779b97f4a7c15U;
      random ^= random << 13;
      random ^= random >> 7;
      random ^= random << 17;
      ASSERT_EQ(WordAt(memory.data() + 8 * word, 8), random) << word;
    }
    EXPECT_EQ(std::count(memory.begin() + kBytes, memory.end(), 0x33), 64) << "what follows is left alone";
  });
}

TEST(FillCases, EachPartOfWhatWasFilledHasToHoldThePattern) {
  constexpr std::size_t kBlock = std::size_t{1} << 20;
  for (const std::size_t at : {std::size_t{0}, kBlock - 8, kBlock, 2 * kBlock + 56}) {
    InOwnProcess([at] {
      Prepare("random");
      Bytes memory(2 * kBlock + 64 + 64);
      const Span filled{memory.data(), 2 * kBlock + 64};
      ASSERT_TRUE(FillSource(Engine::kVpc, filled.data, filled.bytes));
      EXPECT_FALSE(FillSource(Engine::kVpc, nullptr, 64));
      EXPECT_FALSE(FillSource(Engine::kVpc, filled.data, filled.bytes)) << "it was filled before";
      Difference difference;
      EXPECT_TRUE(HoldsPattern(filled, difference));
      memory[at] ^= 4;
      EXPECT_FALSE(HoldsPattern(filled, difference));
      EXPECT_EQ(difference.words, 1U);
      EXPECT_EQ(difference.offset, at);
      // Beside it an operation may write.
      NoteDestination(memory.data() + filled.bytes, 64);
      EXPECT_FALSE(HoldsPattern(filled, difference));
      NoteDestination(memory.data() + filled.bytes - 1, 1);
      EXPECT_TRUE(HoldsPattern(filled, difference));
    });
  }
}

TEST(FillCases, MemoryOfWhichMoreThanAQuarterDiffersWasWrittenByTheProgram) {
  for (const std::size_t words : {10U, 11U}) {
    InOwnProcess([words] {
      Prepare("random");
      const Worker worker(Engine::kVpc, 2);
      Bytes memory(320);
      ASSERT_TRUE(FillSource(Engine::kVpc, memory.data(), memory.size()));
      (void)BeginCheck(*worker.counters, kOperationNs, 1);
      for (std::size_t word = 0; word < words; ++word) Flip(memory, 64 * word);
      CheckFilled(*worker.counters, SpanOf(memory));
      const std::vector<ErrorPacket> errors = Errors();
      ASSERT_EQ(errors.size(), words == 10 ? 1U : 0U);
      EXPECT_EQ(CheckCounts(Engine::kVpc).errors, errors.size());
      if (!errors.empty()) EXPECT_EQ(errors[0].operation, 2U) << "the one that begins";
      // What cannot be read is not compared.
      void* const hidden = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      CheckFilled(*worker.counters, {hidden, 4096});
    });
  }
}

TEST(FillCases, CountsBelongToTheEngine) {
  InOwnProcess([] {
    Prepare("checker");
    Bytes memory(256);
    FillSource(Engine::kCpu, memory.data(), 64);
    FillSource(Engine::kCpu, memory.data(), 0);
    FillSource(Engine::kCpu, nullptr, 64);
    FillSource(Engine::kCpu, memory.data() + 255, 1);
    const FillPacket counts = FillCounts(Engine::kCpu);
    EXPECT_EQ(counts.engine, Engine::kCpu);
    EXPECT_EQ(counts.pattern, static_cast<std::uint32_t>(Fill::kChecker));
    EXPECT_EQ(counts.hasSources, 1U);
    EXPECT_EQ(counts.buffers, 2U);
    EXPECT_EQ(counts.bytes, 65U);
    EXPECT_EQ(counts.refused, 0U);
    EXPECT_EQ(memory[255], 0x55);
    EXPECT_EQ(FillCounts(Engine::kVenc).engine, Engine::kVenc);
  });
}

TEST(FillCases, BuffersAreTheSameIfTheyBeginAndEndAlike) {
  InOwnProcess([] {
    Prepare("ones");
    Bytes memory(256);
    FillSource(Engine::kVpc, memory.data(), 64);
    FillSource(Engine::kVpc, memory.data(), 128);
    FillSource(Engine::kVpc, memory.data() + 64, 64);
    EXPECT_EQ(FillCounts(Engine::kVpc).buffers, 3U);
    EXPECT_EQ(FillCounts(Engine::kVpc).bytes, 256U);
    EXPECT_EQ(std::count(memory.begin(), memory.end(), 0xff), 128);
  });
}

TEST(FillCases, WhatIsBesideAResultIsFilled) {
  InOwnProcess([] {
    Prepare("ones");
    Bytes memory(512);
    NoteDestination(memory.data() + 64, 64);
    NoteDestination(memory.data() + 256, 64);
    NoteDestination(memory.data() + 256, 128);  // longer than the one before
    NoteDestination(memory.data() + 448, 64);
    NoteDestination(memory.data() + 384, 128);  // ends where the one before does
    const auto refused = [&](std::size_t at, std::size_t bytes) {
      const std::uint32_t before = FillCounts(Engine::kVpc).refused;
      FillSource(Engine::kVpc, memory.data() + at, bytes);
      return FillCounts(Engine::kVpc).refused != before;
    };
    EXPECT_FALSE(refused(0, 64));
    EXPECT_FALSE(refused(128, 128));
    EXPECT_TRUE(refused(0, 65));
    EXPECT_TRUE(refused(127, 10));
    EXPECT_TRUE(refused(255, 2));
    EXPECT_TRUE(refused(330, 10));
    EXPECT_TRUE(refused(390, 10));
    EXPECT_EQ(std::count(memory.begin(), memory.end(), 0xff), 64 + 128);
  });
}

TEST(FillCases, KnowsFiveHundredAndTwelveSourcesAndAsManyResults) {
  static constexpr std::size_t kMost = 512;
  InOwnProcess([] {
    Prepare("ones");
    Bytes memory(16 * (kMost + 1));
    for (std::size_t i = 0; i <= kMost; ++i) FillSource(Engine::kVpc, memory.data() + 16 * i, 16);
    EXPECT_EQ(FillCounts(Engine::kVpc).buffers, kMost);
    EXPECT_EQ(FillCounts(Engine::kVpc).refused, 1U);
    EXPECT_EQ(static_cast<std::size_t>(std::count(memory.begin(), memory.end(), 0xff)), 16 * kMost);
  });
  InOwnProcess([] {
    Prepare("ones");
    Bytes memory(16 * (kMost + 1));
    // The same two again and again take two places.
    for (std::size_t i = 0; i < 2 * kMost; ++i) NoteDestination(memory.data() + 16 * (i % 2), 16);
    for (std::size_t i = 2; i <= kMost; ++i) NoteDestination(memory.data() + 16 * i, 16);
    FillSource(Engine::kVpc, memory.data() + 16 * (kMost - 1), 16);
    EXPECT_EQ(FillCounts(Engine::kVpc).refused, 1U);
    FillSource(Engine::kVpc, memory.data() + 16 * kMost, 16);
    EXPECT_EQ(FillCounts(Engine::kVpc).buffers, 1U) << "there was no place left for it";
  });
}

TEST(FillCases, AnInterruptedOrShortReadingGoesOn) {
  InOwnProcess([] {
    Prepare("walking");
    Bytes memory(1 << 20);
    checkSystem.interruptions = 4;
    FillSource(Engine::kVpc, memory.data(), memory.size());
    EXPECT_EQ(checkSystem.interruptions, 0);
    EXPECT_EQ(FillCounts(Engine::kVpc).buffers, 1U);
    for (std::size_t word = 0; word < memory.size() / 8; ++word) {
      ASSERT_EQ(WordAt(memory.data() + 8 * word, 8),
                (std::uint64_t{1} << word % 64) ^ (word / 64 % 2 == 0 ? 0 : ~std::uint64_t{0}));
    }
    // An old error means nothing, and stays.
    errno = EINTR;
    Bytes more(64);
    FillSource(Engine::kVpc, more.data(), more.size());
    EXPECT_EQ(FillCounts(Engine::kVpc).buffers, 2U);
    void* const constant = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    errno = 77;
    FillSource(Engine::kVpc, constant, 4096);
    EXPECT_EQ(FillCounts(Engine::kVpc).refused, 1U);
    EXPECT_EQ(errno, 77);
  });
}

TEST(FillCases, SaysWhyThereIsNoPattern) {
  for (const System::Refusal refusal : {System::kFile, System::kLength, System::kMemory}) {
    InOwnProcess([refusal] {
      ASSERT_EQ(setenv(kFillVariable, "ones", 1), 0);
      testing::internal::CaptureStderr();
      checkSystem.refusal = refusal;
      EXPECT_FALSE(PrepareFill());
      checkSystem.refusal = System::kNone;
      EXPECT_EQ(
          testing::internal::GetCapturedStderr(),
          std::string("libstress_scope: cannot make the pattern ones: ") + std::strerror(ENOMEM) + "\n");
      EXPECT_EQ(checkSystem.refused, 1);
    });
  }
  InOwnProcess([] {
    ASSERT_EQ(close(STDIN_FILENO), 0);
    Prepare("ones");
    EXPECT_GE(fcntl(STDIN_FILENO, F_GETFD), 0) << "the pattern is in the file 0";
    Bytes memory(64);
    FillSource(Engine::kCpu, memory.data(), memory.size());
    EXPECT_EQ(memory, Bytes(64, 0xff));
    ASSERT_EQ(setenv(kFillVariable, "", 1), 0);
    EXPECT_FALSE(PrepareFill());
  });
}

// --- deadlines ---

bool DeadlinesOf(const char* text) {
  EXPECT_EQ(setenv(kDeadlinesVariable, text, 1), 0);
  return PrepareDeadlines();
}

TEST(DeadlineCases, AreReadFromIdsAndNumbers) {
  EXPECT_EQ(unsetenv(kDeadlinesVariable), 0);
  EXPECT_FALSE(PrepareDeadlines());
  for (const char* const nothing : {"", "vpc", "vpc=0", "vp=5", "vpcc=5", "vpd=5", "vpc=0,aic"}) {
    InOwnProcess([nothing] { EXPECT_FALSE(DeadlinesOf(nothing)) << nothing; });
  }
  InOwnProcess([] {
    EXPECT_TRUE(DeadlinesOf("vpc=1,aic=0,cpu=1098"));
    EXPECT_EQ(DeadlineCounts(Engine::kVpc).deadlineNs, 1U);
    EXPECT_EQ(DeadlineCounts(Engine::kAic).deadlineNs, 0U);
    EXPECT_EQ(DeadlineCounts(Engine::kCpu).deadlineNs, 1098U);
    EXPECT_EQ(DeadlineCounts(Engine::kVenc).deadlineNs, 0U);
    EXPECT_EQ(DeadlineCounts(Engine::kVpcCopy).deadlineNs, 0U);
  });
}

TEST(DeadlineCases, CountOperationsMissesAndTheLongestRunOfAThread) {
  InOwnProcess([] {
    ASSERT_TRUE(DeadlinesOf("vpc=1,vpc_copy=100"));
    const Worker first(Engine::kVpc, 0);
    const Worker second(Engine::kVpc, 1);
    const Worker copies(Engine::kVpcCopy, 0);
    const Worker others(Engine::kAic, 0);
    for (const std::uint64_t ns : {2U, 2U, 1U, 2U, 2U, 2U, 0U, 2U}) CountDeadline(*first.counters, ns);
    CountDeadline(*second.counters, 2);
    CountDeadline(*copies.counters, 101);
    CountDeadline(*others.counters, 1000);
    const DeadlinePacket counts = DeadlineCounts(Engine::kVpc);
    EXPECT_EQ(counts.engine, Engine::kVpc);
    EXPECT_EQ(counts.operations, 9U);
    EXPECT_EQ(counts.missed, 7U);
    EXPECT_EQ(counts.longestRun, 3U);
    EXPECT_EQ(DeadlineCounts(Engine::kVpcCopy).operations, 1U);
    EXPECT_EQ(DeadlineCounts(Engine::kVpcCopy).missed, 1U);
    EXPECT_EQ(DeadlineCounts(Engine::kAic).operations, 0U);
  });
}

// --- sleeps ---

bool DutyOf(const char* percent) {
  EXPECT_EQ(setenv(kDutyVariable, percent, 1), 0);
  return PrepareDuty();
}

TEST(DutyCases, IsAShareBelowTheWhole) {
  EXPECT_EQ(unsetenv(kDutyVariable), 0);
  EXPECT_FALSE(PrepareDuty());
  for (const char* const none : {"100", "100.5", "0", "-1", "x", ""}) EXPECT_FALSE(DutyOf(none)) << none;
  for (const char* const some : {"0.5", "1", "99.5"}) EXPECT_TRUE(DutyOf(some)) << some;
}

TEST(DutyCases, SleepsAreExact) {
  InOwnProcess([] {
    ASSERT_TRUE(DutyOf("25"));
    constexpr std::uint64_t kStart = 7'000'000'000;
    constexpr std::uint64_t kBusy = 300'000'000;
    constexpr std::uint64_t kPeriod = 4 * kBusy;
    checkSystem.stepNs = 1;
    // How long a thread sleeps after an operation; 0: it does not.
    const auto rest = [](std::uint64_t startNs, std::uint64_t busyNs, std::uint64_t nowNs) {
      checkSystem.nowNs = nowNs - 1;
      checkSystem.sleptUntilNs = 0;
      Rest(startNs, busyNs);
      return checkSystem.sleptUntilNs.load();
    };
    EXPECT_EQ(rest(kStart, kBusy, kStart + kBusy), kStart + kPeriod);
    // In time: the next period follows.
    std::uint64_t due = kStart + kPeriod;
    EXPECT_EQ(rest(due, kBusy, due + kBusy), due + kPeriod);
    due += kPeriod;
    // Late by what a thread may make up for, and by more.
    EXPECT_EQ(rest(due + 100'000'000, kBusy, due + 400'000'000), due + kPeriod);
    due += kPeriod;
    EXPECT_EQ(rest(due + 100'000'007, kBusy, due + 400'000'007), due + 7 + kPeriod);
    due += 7 + kPeriod;
    // Short sleeps are left out, and are part of the next one.
    EXPECT_EQ(rest(due, kBusy, due + kPeriod - 100'000), due + kPeriod);
    due += kPeriod;
    EXPECT_EQ(rest(due, kBusy, due + kPeriod - 99'999), 0U);
    due += kPeriod;
    EXPECT_EQ(rest(due, kBusy, due + kBusy), due + kPeriod);
    // Each thread begins in another part of its period.
    for (const double part : {0.618033988749895, 0.236067977499790}) {
      std::uint64_t until = 0;
      std::thread([&] { until = rest(kStart, kBusy, kStart + kBusy); }).join();
      EXPECT_NEAR(static_cast<double>(until - kStart), (1 + part) * static_cast<double>(kPeriod), 2);
    }
  });
}

}  // namespace
