// SPDX-License-Identifier: Apache-2.0
#include "record_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/futex.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "allocation_count.h"
#include "sanitizers.h"
#include "system_calls.h"

namespace ara::log {
namespace {

/// A sanitizer looks at accesses, which are the same in each round. A rare order of events is looked for
/// without one.
constexpr std::uint32_t kTimesFewer = kSanitized ? 10 : 1;

void Put(RecordQueue& queue, std::uint32_t number) {
  RemoteRecord* const record = queue.Claim();
  ASSERT_NE(record, nullptr);
  record->uptime = number;
  queue.Publish(record);
}

/// Takes the oldest record and returns its number, or -1 when there is none.
int Take(RecordQueue& queue) {
  const RemoteRecord* const record = queue.Front();
  if (record == nullptr) return -1;
  const int number = static_cast<int>(record->uptime);
  queue.Pop();
  return number;
}

TEST(RecordQueue, KeepsTheOrderOverManyRounds) {
  RecordQueue queue(4);
  EXPECT_EQ(Take(queue), -1);
  for (std::uint32_t i = 0; i < 100; i += 3) {
    for (std::uint32_t k = 0; k < 3; ++k) Put(queue, i + k);
    for (std::uint32_t k = 0; k < 3; ++k) EXPECT_EQ(Take(queue), static_cast<int>(i + k));
    EXPECT_EQ(Take(queue), -1);
  }
}

TEST(RecordQueue, AcceptsNothingWhenItIsFull) {
  RecordQueue queue(4);
  for (std::uint32_t i = 0; i < 4; ++i) Put(queue, i);
  EXPECT_EQ(queue.Claim(), nullptr);
  EXPECT_EQ(queue.Remaining(), 4U);
  EXPECT_EQ(Take(queue), 0);
  Put(queue, 4);
  EXPECT_EQ(queue.Claim(), nullptr);
  for (int i = 1; i <= 4; ++i) EXPECT_EQ(Take(queue), i);
}

// A signal handler that is a producer has interrupted a producer between Claim and Publish.
TEST(RecordQueue, AClaimThatIsNotPublishedDelaysOnlyTheConsumer) {
  RecordQueue queue(4);
  RemoteRecord* const interrupted = queue.Claim();
  ASSERT_NE(interrupted, nullptr);
  for (std::uint32_t i = 1; i < 4; ++i) Put(queue, i);
  EXPECT_EQ(queue.Claim(), nullptr) << "the queue is full; Claim does not wait";
  EXPECT_EQ(queue.Front(), nullptr);
  interrupted->uptime = 0;
  queue.Publish(interrupted);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(Take(queue), i);
}

TEST(RecordQueue, WhenClosedItAcceptsNothingAndKeepsItsRecords) {
  RecordQueue queue(4);
  Put(queue, 0);
  RemoteRecord* const claimed = queue.Claim();
  EXPECT_FALSE(queue.Closed());
  queue.Close();
  EXPECT_TRUE(queue.Closed());
  EXPECT_EQ(queue.Claim(), nullptr);
  EXPECT_EQ(queue.Remaining(), 2U);
  EXPECT_EQ(Take(queue), 0);
  EXPECT_EQ(Take(queue), -1);
  EXPECT_EQ(queue.Remaining(), 1U) << "a claimed record counts before it is published";
  claimed->uptime = 1;
  queue.Publish(claimed);
  EXPECT_EQ(Take(queue), 1);
  EXPECT_EQ(queue.Remaining(), 0U);
  queue.Wait();  // returns at once
}

/// Records each futex call and returns an error at once.
struct ScriptedFutex {
  ScriptedFutex() {
    calls.onFutex = [this](void* word, int operation, unsigned value) {
      const unsigned current = static_cast<std::atomic<std::uint32_t>*>(word)->load();
      made.push_back((operation == FUTEX_WAIT_PRIVATE   ? "wait if "
                      : operation == FUTEX_WAKE_PRIVATE ? "wake "
                                                        : "other ") +
                     std::to_string(value) + ", is " + std::to_string(current));
      if (operation == FUTEX_WAIT_PRIVATE && whileAsleep) whileAsleep();
      errno = EAGAIN;
      return -1;
    };
  }
  log_test::SystemCalls calls;
  std::vector<std::string> made;
  std::function<void()> whileAsleep;
};

TEST(RecordQueue, TheConsumerSleepsUntilTheFirstRecordWakesIt) {
  RecordQueue queue(4);
  ScriptedFutex futex;
  futex.whileAsleep = [&] {
    Put(queue, 0);
    Put(queue, 1);
  };
  errno = EDOM;
  queue.Wait();
  EXPECT_THAT(futex.made, testing::ElementsAre("wait if 1, is 1", "wake 1, is 0"));
  EXPECT_EQ(errno, EDOM);

  futex.made.clear();
  Put(queue, 2);
  EXPECT_THAT(futex.made, testing::IsEmpty()) << "no consumer sleeps";
  queue.Wait();
  EXPECT_THAT(futex.made, testing::IsEmpty()) << "there are records";
}

TEST(RecordQueue, AConsumerThatWokeByItselfIsNotWokenAgain) {
  RecordQueue queue(4);
  ScriptedFutex futex;
  queue.Wait();
  Put(queue, 0);
  EXPECT_THAT(futex.made, testing::ElementsAre("wait if 1, is 1"));
}

TEST(RecordQueue, ClosingWakesTheConsumer) {
  RecordQueue queue(4);
  ScriptedFutex futex;
  futex.whileAsleep = [&] { queue.Close(); };
  queue.Wait();
  EXPECT_THAT(futex.made, testing::ElementsAre("wait if 1, is 1", "wake 1, is 0"));
  futex.made.clear();
  queue.Wait();
  EXPECT_THAT(futex.made, testing::IsEmpty()) << "a closed queue is not waited for";
}

TEST(RecordQueue, AllocatesNothingAfterItsStart) {
  if (!log_test::CountsAllocations()) GTEST_SKIP() << "a sanitizer's allocator cannot be replaced";
  RecordQueue queue(4);
  const long before = log_test::AllocationsOfThisThread();
  for (std::uint32_t i = 0; i < 20; ++i) {
    Put(queue, i);
    Take(queue);
  }
  EXPECT_EQ(log_test::AllocationsOfThisThread(), before);
}

// One record at a time, so that the consumer nearly always sleeps or is about to.
TEST(RecordQueue, WakesTheConsumerForEachRecord) {
  constexpr std::uint32_t kRecords = 20000 / kTimesFewer;
  RecordQueue queue(2);
  std::atomic<std::uint32_t> taken{0};
  std::thread consumer([&] {
    while (taken < kRecords) {
      if (Take(queue) >= 0) {
        ++taken;
      } else {
        queue.Wait();
      }
    }
  });
  for (std::uint32_t i = 0; i < kRecords; ++i) {
    Put(queue, i);
    while (taken <= i) std::this_thread::yield();
  }
  consumer.join();
}

// Who sees the new head has to see what was done before it. Otherwise the head could seem to be ahead of the
// tail, and Remaining would return nearly 2^64. ThreadSanitizer finds a missing order on every machine.
TEST(RecordQueue, WhoSeesThatARecordIsRemovedSeesWhatWasDoneBefore) {
  RecordQueue queue(4);
  RemoteRecord* const record = queue.Claim();
  ASSERT_NE(record, nullptr);
  int before = 0;  // not atomic: only the queue orders the accesses
  std::thread observer([&] {
    while (queue.Remaining() != 0) std::this_thread::yield();
    EXPECT_EQ(before, 1);
  });
  std::thread consumer([&] {
    while (queue.Front() == nullptr) queue.Wait();
    queue.Pop();
  });
  std::thread producer([&] {
    before = 1;
    queue.Publish(record);
  });
  for (std::thread* const thread : {&observer, &consumer, &producer}) thread->join();
}

TEST(RecordQueue, ProducersThatClaimAtTheSameMomentGetDifferentRecords) {
  constexpr std::uint32_t kRounds = 300 / kTimesFewer;
  constexpr std::uint32_t kProducers = 2;
  for (std::uint32_t round = 0; round < kRounds; ++round) {
    RecordQueue queue(4);
    std::atomic<std::uint32_t> ready{0};
    RemoteRecord* claimed[kProducers] = {};
    const auto claim = [&](std::uint32_t producer) {
      ++ready;
      while (ready < kProducers) {
      }
      claimed[producer] = queue.Claim();
    };
    std::thread other(claim, 1U);
    claim(0);
    other.join();
    ASSERT_NE(claimed[0], nullptr);
    ASSERT_NE(claimed[0], claimed[1]) << "round " << round;
  }
}

TEST(RecordQueue, LosesAndDuplicatesNothingWithManyProducers) {
  constexpr std::uint32_t kProducers = 4;
  constexpr std::uint32_t kRecords = 20000 / kTimesFewer;
  RecordQueue queue(8);
  std::vector<std::thread> producers;
  producers.reserve(kProducers);
  for (std::uint32_t producer = 0; producer < kProducers; ++producer) {
    producers.emplace_back([&queue, producer] {
      for (std::uint32_t i = 0; i < kRecords;) {
        RemoteRecord* const record = queue.Claim();
        if (record == nullptr) {
          std::this_thread::yield();
          continue;
        }
        record->header.context = producer;
        record->uptime = i++;
        queue.Publish(record);
      }
    });
  }
  std::vector<std::uint32_t> next(kProducers, 0);
  for (std::uint32_t taken = 0; taken < kProducers * kRecords;) {
    const RemoteRecord* const record = queue.Front();
    if (record == nullptr) {
      queue.Wait();
      continue;
    }
    EXPECT_EQ(record->uptime, next[record->header.context]++);
    queue.Pop();
    ++taken;
  }
  for (std::thread& producer : producers) producer.join();
  EXPECT_EQ(queue.Remaining(), 0U);
  EXPECT_EQ(next, std::vector<std::uint32_t>(kProducers, kRecords));
}

}  // namespace
}  // namespace ara::log
