// SPDX-License-Identifier: Apache-2.0
#include "remote_sink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "allocation_count.h"
#include "delivery_times.h"
#include "fake_port.h"
#include "sanitizers.h"
#include "system_calls.h"

namespace ara::log {
namespace {

using log_test::FakePort;
using log_test::Receiver;
using State = RemotePort::State;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

class Remote : public testing::Test {
 protected:
  void Start(std::size_t capacity = 64) {
    sink_ = std::make_unique<RemoteSink>(std::make_unique<FakePort>(receiver_), capacity);
    sink_->SetApplication("STBM", "a test");
    ASSERT_EQ(sink_->Start(), "");
  }
  bool Deliver(const std::string& text, std::uint32_t context = 0) {
    RemoteHeader header;
    header.context = context;
    return sink_->Deliver(header, FixedText::View(text.data(), text.size()));
  }

  Receiver receiver_;
  std::unique_ptr<RemoteSink> sink_;
};

TEST_F(Remote, ForwardsEachRecordUnchanged) {
  Start();
  RemoteHeader header;
  header.contextId = 0x51;
  header.contextDescription = "described";
  header.context = 5;
  header.threadId = 4711;
  header.level = LogLevel::kWarn;
  std::timespec before{};
  (void)clock_gettime(CLOCK_MONOTONIC, &before);
  EXPECT_TRUE(sink_->Deliver(header, "one"));
  EXPECT_TRUE(Deliver("two"));
  EXPECT_EQ(sink_->Stop(), 0U);
  EXPECT_THAT(receiver_.texts, ElementsAre("one", "two"));
  const RemoteRecord& record = receiver_.records[0];
  EXPECT_EQ(record.header.contextId, 0x51U);
  EXPECT_STREQ(record.header.contextDescription, "described");
  EXPECT_EQ(record.header.context, 5U);
  EXPECT_EQ(record.header.threadId, 4711U);
  EXPECT_EQ(record.header.level, LogLevel::kWarn);
  const auto earliest = static_cast<std::uint32_t>(before.tv_sec * 10000 + before.tv_nsec / 100000);
  EXPECT_GE(record.uptime, earliest);
  EXPECT_LT(record.uptime, earliest + 10 * 60 * 10000U);
  EXPECT_THAT(receiver_.calls, ElementsAre("open", "application STBM a test", "close"));
}

TEST_F(Remote, WaitsForRecordsWithoutWork) {
  Start();
  EXPECT_TRUE(Deliver("one"));
  const auto waits = [] {
    rusage usage{};
    (void)getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw;
  };
  const std::clock_t before = std::clock();  // processor time of all threads
  const long waitsBefore = waits();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 40);
  EXPECT_LT(waits() - waitsBefore, 10) << "it does not look again and again";
  EXPECT_EQ(sink_->Stop(), 0U);
}

TEST_F(Remote, TheUptimeIsInTenthsOfAMillisecond) {
  Start();
  log_test::SystemCalls calls;
  calls.onUptime = [] { return std::timespec{123'456, 789'199'999}; };
  EXPECT_TRUE(Deliver("one"));
  EXPECT_EQ(sink_->Stop(), 0U);
  EXPECT_EQ(receiver_.records.at(0).uptime, 1'234'567'891U);
}

TEST_F(Remote, CutsAndMarksALongText) {
  Start();
  EXPECT_TRUE(Deliver(std::string(5000, 'x')));
  EXPECT_TRUE(Deliver(std::string(1200, 'y')));
  EXPECT_EQ(sink_->Stop(), 0U);
  ASSERT_EQ(receiver_.texts.size(), 2U);
  EXPECT_EQ(receiver_.texts[0], std::string(RemoteRecord::kTextCapacity - 44, 'x') + " [cut]");
  EXPECT_EQ(receiver_.texts[1], std::string(1200, 'y'));
}

TEST_F(Remote, CountsAndMarksRecordsThatFindTheQueueFull) {
  Start(4);
  receiver_.state = State::kBusy;
  Deliver("0");
  receiver_.WaitFor(1);
  // The first record stays in the queue until the receiver has taken it.
  for (int i = 1; i < 10; ++i) EXPECT_TRUE(Deliver(std::to_string(i)));
  receiver_.state = State::kIdle;
  receiver_.WaitFor(4);
  Deliver("after");
  EXPECT_EQ(sink_->Stop(), 6U);
  EXPECT_THAT(receiver_.texts, ElementsAre("0", "1", "2", "3", "after [6 lost before]"));
}

TEST_F(Remote, CountsAndMarksASingleRecordThatFindsTheQueueFull) {
  Start(2);
  receiver_.state = State::kBusy;
  for (const char* const text : {"0", "1", "lost"}) EXPECT_TRUE(Deliver(text));
  receiver_.state = State::kIdle;
  receiver_.WaitFor(2);
  Deliver("after");
  EXPECT_EQ(sink_->Stop(), 1U);
  EXPECT_THAT(receiver_.texts, ElementsAre("0", "1", "after [1 lost before]"));
}

TEST_F(Remote, CountsAndMarksRecordsThatThePortRefuses) {
  Start();
  receiver_.refuses = true;
  Deliver("lost");
  Deliver("lost");
  while (receiver_.refused < 2) std::this_thread::yield();
  receiver_.refuses = false;
  Deliver("short");
  receiver_.WaitFor(1);
  receiver_.refuses = true;
  Deliver("lost");
  while (receiver_.refused < 3) std::this_thread::yield();
  receiver_.refuses = false;
  Deliver(std::string(5000, 'x'));
  EXPECT_EQ(sink_->Stop(), 3U);
  EXPECT_FALSE(sink_->LostIsUpperBound());
  ASSERT_EQ(receiver_.texts.size(), 2U);
  EXPECT_EQ(receiver_.texts[0], "short [2 lost before]");
  EXPECT_THAT(receiver_.texts[1], EndsWith("xx [cut] [1 lost before]"));
  EXPECT_LE(receiver_.texts[1].size(), RemoteRecord::kTextCapacity);
}

TEST_F(Remote, CountsAndMarksRecordsThatTheReceiverHasNotRead) {
  Start();
  receiver_.leftBehind = 3;
  Deliver("first");
  Deliver("second");
  Deliver("third");
  receiver_.WaitFor(3);
  receiver_.refuses = true;
  Deliver("lost");
  while (receiver_.refused < 1) std::this_thread::yield();
  receiver_.refuses = false;
  Deliver("fourth");
  EXPECT_EQ(sink_->Stop(), 4U);
  EXPECT_THAT(receiver_.texts,
              ElementsAre("first", "second [up to 3 lost before]", "third", "fourth [1 lost before]"));
  EXPECT_TRUE(sink_->LostIsUpperBound());
}

TEST_F(Remote, CountsUnreadRecordsThatShowOnlyAtTheEnd) {
  Start();
  Deliver("one");
  receiver_.leftBehindAtEnd = 2;
  EXPECT_EQ(sink_->Stop(), 2U);
  EXPECT_TRUE(sink_->LostIsUpperBound());
}

TEST_F(Remote, WaitsForAReceiverThatIsNotThereYet) {
  Start();
  receiver_.state = State::kAway;
  Deliver("one");
  Deliver("two");
  receiver_.WaitFor(1);
  receiver_.WaitUntilSettledAgain();
  EXPECT_THAT(receiver_.Texts(), ElementsAre("one")) << "the second one stays in the queue";
  receiver_.state = State::kIdle;
  receiver_.WaitFor(2);
  EXPECT_EQ(sink_->Stop(), 0U);
}

TEST_F(Remote, StopCountsWhatAnAbsentReceiverDoesNotGet) {
  Start();
  receiver_.state = State::kAway;
  for (int i = 0; i < 10; ++i) Deliver("lost");
  receiver_.WaitFor(1);
  const int before = receiver_.settled;
  EXPECT_EQ(sink_->Stop(), 10U);
  EXPECT_LT(receiver_.settled - before, 100) << "it is not asked until the flush time is over";
  EXPECT_LE(receiver_.texts.size(), 1U);
  EXPECT_EQ(receiver_.calls.back(), "close");
}

TEST_F(Remote, StopGivesUpOnAReceiverThatTakesNothing) {
  Start();
  receiver_.state = State::kBusy;
  for (int i = 0; i < 10; ++i) Deliver("lost");
  EXPECT_EQ(sink_->Stop(), 10U);
  // On a busy machine the forwarding thread may take longer than Stop waits for it.
  receiver_.WaitForCall("close");
  EXPECT_EQ(sink_->Stop(), 10U);
  EXPECT_LT(receiver_.settled, 1100) << "at most once in a millisecond of the flush time";
}

TEST_F(Remote, AReceiverThatIsBusyWhenItStopsStillGetsTheRecords) {
  Start(RemoteSink::kCapacity);
  receiver_.state = State::kBusy;
  int asked = 0;
  receiver_.onSettle = [&] {
    if (Deliver("more")) return;
    // Now it stops. It has to ask again.
    if (++asked == 2) receiver_.state = State::kIdle;
  };
  Deliver("one");
  receiver_.WaitFor(1);
  EXPECT_EQ(sink_->Stop(), 0U);
  EXPECT_GE(asked, 2);
  EXPECT_EQ(receiver_.texts.back(), "more");
}

TEST_F(Remote, AsksABusyReceiverLessAndLessOften) {
  Start();
  receiver_.state = State::kBusy;
  Deliver("one");
  while (receiver_.settled < 9) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  receiver_.state = State::kIdle;
  EXPECT_EQ(sink_->Stop(), 0U);
  const int leastMs[] = {1, 2, 4, 8, 16, 32, 50, 50};
  for (std::size_t i = 0; i != std::size(leastMs); ++i) {
    EXPECT_GE(receiver_.unsettled.at(i + 1) - receiver_.unsettled.at(i),
              std::chrono::milliseconds(leastMs[i]))
        << i;
  }
}

TEST_F(Remote, APortThatHangsDelaysNoThread) {
  constexpr std::size_t kThreads = 10;
  constexpr int kRecords = 10000;
  Start(RemoteSink::kCapacity);
  receiver_.hangs = true;
  log_test::DeliveryTimes times;
  std::vector<std::thread> writers;
  writers.reserve(kThreads);
  for (std::size_t writer = 0; writer < kThreads; ++writer) {
    writers.emplace_back([&] { times.Measure(kRecords, [this](int /*number*/) { Deliver("text"); }); });
  }
  for (std::thread& writer : writers) writer.join();
  const std::uint64_t lost = sink_->Stop();
  std::cout << kThreads * kRecords << " deliveries: waits " << times.waits << ", longest "
            << times.longestNs / 1000 << " us, on the processor " << times.longestOnProcessorNs / 1000
            << " us\n";
  EXPECT_EQ(lost, kThreads * kRecords);
  EXPECT_LT(times.waits, 100) << "a page fault may wait";
  EXPECT_THAT(receiver_.texts, IsEmpty());
  receiver_.hangs = false;
  receiver_.WaitForCall("close");
  sink_->Stop();
  EXPECT_LE(receiver_.texts.size(), 1U)
      << "only the record in the port may still arrive; the others were counted as lost";
}

TEST_F(Remote, StopForwardsQueuedRecords) {
  Start(1024);
  for (int i = 0; i < 1000; ++i) Deliver(std::to_string(i));
  EXPECT_EQ(sink_->Stop(), 0U);
  ASSERT_EQ(receiver_.texts.size(), 1000U);
  EXPECT_EQ(receiver_.texts.back(), "999");
}

TEST_F(Remote, AcceptsNothingAfterStop) {
  Start();
  sink_->Stop();
  EXPECT_FALSE(Deliver("late"));
  EXPECT_THAT(receiver_.texts, IsEmpty());
}

TEST_F(Remote, AbandonedInAForkedProcessItAcceptsNothingAndStopDoesNotWait) {
  Start();
  receiver_.state = State::kBusy;
  Deliver("one");
  receiver_.WaitFor(1);
  const pid_t child = fork();
  if (child == 0) {
    sink_->Abandon();
    sink_->SetApplication("OTHR", "");
    _exit(!Deliver("late") && sink_->Stop() == 0 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  receiver_.state = State::kIdle;
  EXPECT_TRUE(Deliver("two"));
  EXPECT_EQ(sink_->Stop(), 0U);
  EXPECT_THAT(receiver_.texts, ElementsAre("one", "two"));
}

TEST_F(Remote, AbandonedItTellsThePortOfNoOtherApplication) {
  if (kThreadSanitized) GTEST_SKIP() << "it lets no child of a program with several threads start a thread";
  const pid_t child = fork();
  if (child == 0) {
    Start();
    receiver_.state = State::kBusy;
    Deliver("one");
    receiver_.WaitFor(1);
    sink_->Abandon();
    sink_->SetApplication("OTHR", "");
    receiver_.state = State::kIdle;
    receiver_.WaitForCall("close");
    const std::vector<std::string> expected = {"open", "application STBM a test", "close"};
    _exit(receiver_.calls == expected ? 0 : 1);  // no one waits for the thread of an abandoned sink
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(Remote, TheForwardingThreadHasAName) {
  Start();
  sink_->Stop();
  EXPECT_STREQ(receiver_.threadName, "ara_log_remote");
}

TEST_F(Remote, BlocksAllSignalsInTheForwardingThreadOnly) {
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  Start();
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  sink_->Stop();
  for (const int signal : {SIGINT, SIGPIPE, SIGALRM, SIGUSR1, SIGTERM}) {
    EXPECT_EQ(sigismember(&receiver_.blocked, signal), 1) << signal;
    EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
  }
}

TEST_F(Remote, AnotherApplicationIsSetForLaterRecords) {
  Start();
  Deliver("one");
  receiver_.WaitFor(1);
  sink_->SetApplication("STBM", "a test");
  Deliver("two");
  receiver_.WaitFor(2);
  sink_->SetApplication("STBM", "another");
  Deliver("three");
  receiver_.WaitForCall("application STBM another");
  sink_->SetApplication("OTHR", "another");
  Deliver("four");
  sink_->Stop();
  EXPECT_THAT(receiver_.calls, ElementsAre("open", "application STBM a test", "application STBM another",
                                           "application OTHR another", "close"));
}

TEST_F(Remote, ReturnsWhyThePortCannotBeOpened) {
  receiver_.failure = "no way";
  RemoteSink sink(std::make_unique<FakePort>(receiver_));
  EXPECT_EQ(sink.Start(), "no way");
  EXPECT_THAT(receiver_.calls, ElementsAre("open"));
}

TEST_F(Remote, DeliversWithoutAnAllocation) {
  if (!log_test::CountsAllocations()) GTEST_SKIP() << "a sanitizer's allocator cannot be replaced";
  Start(2);
  receiver_.state = State::kBusy;
  const std::string text = "text";
  const FixedText::View view(text.data(), text.size());
  const long before = log_test::AllocationsOfThisThread();
  for (int i = 0; i < 10; ++i) sink_->Deliver({}, view);
  EXPECT_EQ(log_test::AllocationsOfThisThread(), before);
  sink_->Stop();
}

RemoteSink* handlerSink = nullptr;
std::atomic<int> handled{0};

void OnSignal(int /*signal*/) {
  RemoteHeader header;
  header.context = 99;
  handlerSink->Deliver(header, "signal");
  ++handled;
}

// The queue is small, so that it is often full and often empty and wraps around all the time.
TEST_F(Remote, UnderSignalsEveryRecordArrivesOnceOrIsCounted) {
  constexpr std::uint32_t kWriters = 4;
  constexpr int kRecords = 20000;
  Start(16);
  handlerSink = sink_.get();
  handled = 0;
  struct sigaction action{};
  struct sigaction old{};
  action.sa_handler = OnSignal;
  ASSERT_EQ(sigaction(SIGALRM, &action, &old), 0);
  const itimerval period{{0, 100}, {0, 100}};
  ASSERT_EQ(setitimer(ITIMER_REAL, &period, nullptr), 0);
  std::vector<std::thread> writers;
  writers.reserve(kWriters);
  for (std::uint32_t writer = 0; writer < kWriters; ++writer) {
    writers.emplace_back([this, writer] {
      for (int i = 0; i < kRecords; ++i) Deliver(std::to_string(i), writer);
    });
  }
  for (std::thread& writer : writers) writer.join();
  const itimerval off{};
  ASSERT_EQ(setitimer(ITIMER_REAL, &off, nullptr), 0);
  ASSERT_EQ(sigaction(SIGALRM, &old, nullptr), 0);
  const std::uint64_t lost = sink_->Stop();

  EXPECT_GT(handled, 0);
  EXPECT_EQ(receiver_.records.size() + lost,
            std::uint64_t{kWriters} * kRecords + static_cast<std::uint64_t>(handled));
  std::vector<int> last(kWriters, -1);
  std::uint64_t marked = 0;
  for (std::size_t i = 0; i < receiver_.records.size(); ++i) {
    marked += receiver_.records[i].lostBefore;
    const std::uint32_t writer = receiver_.records[i].header.context;
    if (writer == 99) continue;
    const int number = std::stoi(receiver_.texts[i]);
    EXPECT_GT(number, last[writer]) << "records arrive in order and once";
    last[writer] = number;
  }
  EXPECT_LE(marked, lost);
}

}  // namespace
}  // namespace ara::log
