// SPDX-License-Identifier: Apache-2.0

// The rules of the measuring period, for each of the four workers, in virtual time.

#include <poll.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <system_error>
#include <thread>

#include "aicore_stress.h"
#include "cpu_stress.h"
#include "faults.h"
#include "fixture.h"
#include "kivu_venc_stress.h"
#include "kivu_vpc_stress.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

using Record = std::unique_ptr<vorn::StressRegister>;

struct Worker {
  const char* name;       ///< as in log lines
  const char* operation;  ///< the platform operation of each cycle
  const char* sourceFile;
  std::function<void(Record&, int, volatile int&)> run;
};

class WorkersTest : public UnitTest, public testing::WithParamInterface<Worker> {
 protected:
  // Runs the worker for `cycles` cycles; `work(n)` is called inside the operation of the n-th.
  void Run(int cycles, const std::function<void(int)>& work) {
    fakePlatform::OnCall(GetParam().operation, [&, cycles](int n) {
      work(n);
      if (n == cycles) stop_ = 1;
    });
    GetParam().run(record_, index_, stop_);
    ASSERT_EQ(fakePlatform::CountOf(GetParam().operation), cycles);
  }

  double Slot() { return record_->threadFps.at(static_cast<std::size_t>(index_)); }

  VirtualClock clock_;
  Record record_ = MakeRecord(2, 1000);
  int index_ = 1;
  volatile int stop_ = 0;
};

TEST_P(WorkersTest, PublishesAfterThe334thCycleOfTwoAndThreeMilliseconds) {
  double before = -1.0;
  Run(334, [&](int n) {
    if (n == 334) before = Slot();  // 333 cycles take 999 ms, which is not enough
    clock_.Advance(milliseconds(2));
  });
  EXPECT_EQ(before, 0.0);
  EXPECT_EQ(Slot(), 500.0);
  EXPECT_EQ(record_->threadFps[0], 0.0);
}

TEST_P(WorkersTest, ExactlyAThousandMillisecondsDoNotCloseThePeriod) {
  record_->sleepUs = 3000;
  double afterExactly1000 = -1.0;
  Run(201, [&](int n) {
    if (n == 201) afterExactly1000 = Slot();
    clock_.Advance(milliseconds(2));
  });
  EXPECT_EQ(afterExactly1000, 0.0);
  EXPECT_EQ(Slot(), 500.0);
}

TEST_P(WorkersTest, SubMillisecondWorkNeverPublishes) {
  record_->threadFps[1] = 123.0;
  Run(5000, [&](int) { clock_.Advance(nanoseconds(999'999)); });
  EXPECT_EQ(Slot(), 123.0);
}

TEST_P(WorkersTest, FirstWholeMillisecondAfterManyShortOnesPublishesTheWholeCount) {
  Run(3001, [&](int n) { clock_.Advance(n == 3001 ? milliseconds(1) : microseconds(500)); });
  EXPECT_EQ(Slot(), 3001.0 / 1.0 * 1000.0);
}

TEST_P(WorkersTest, EveryCycleIsTruncatedToWholeMilliseconds) {
  // 1.999999 ms of work count as 1 ms; with the pause of 1 ms the cycle is 2.999999 ms and counts as 2 ms.
  double before = -1.0;
  Run(501, [&](int n) {
    if (n == 501) before = Slot();
    clock_.Advance(nanoseconds(1'999'999));
  });
  EXPECT_EQ(before, 0.0);
  EXPECT_EQ(Slot(), 1000.0);
}

TEST_P(WorkersTest, CountersRestartFromZeroAfterAPublication) {
  double first = -1.0;
  Run(334 + 201, [&](int n) {
    if (n == 335) first = Slot();
    clock_.Advance(n <= 334 ? milliseconds(2) : milliseconds(4));
  });
  EXPECT_EQ(first, 500.0);
  EXPECT_EQ(Slot(), 250.0);
}

TEST_P(WorkersTest, EachPeriodOfOneMillisecondCyclesIsAThousandAndOneCyclesLong) {
  record_->sleepUs = 0;
  double after1000 = -1.0;
  double after2001 = -1.0;
  Run(2002, [&](int n) {
    if (n == 1001) after1000 = Slot();
    if (n == 1002) {
      EXPECT_EQ(Slot(), 1000.0);
      record_->threadFps[1] = 0.0;  // so that the second rate shows
    }
    if (n == 2002) after2001 = Slot();
    clock_.Advance(milliseconds(1));
  });
  EXPECT_EQ(after1000, 0.0);
  EXPECT_EQ(after2001, 0.0);
  EXPECT_EQ(Slot(), 1000.0);
}

TEST_P(WorkersTest, PauseIsNotBusyTime) {
  record_->sleepUs = 99000;
  Run(11, [&](int) { clock_.Advance(milliseconds(1)); });
  EXPECT_EQ(Slot(), 1000.0);
}

TEST_P(WorkersTest, SleepsOncePerCycleForSleepUs) {
  record_->sleepUs = 100;
  Run(3, [&](int) { clock_.Advance(milliseconds(1)); });
  EXPECT_THAT(clock_.Sleeps(), ElementsAre(100'000, 100'000, 100'000));
}

TEST_P(WorkersTest, SleepUsOfOneIsOneMicrosecond) {
  record_->sleepUs = 1;
  Run(2, [&](int) { clock_.Advance(milliseconds(1)); });
  EXPECT_THAT(clock_.Sleeps(), ElementsAre(1000, 1000));
}

TEST_P(WorkersTest, SleepUsOfZeroMakesNoSleepCall) {
  record_->sleepUs = 0;
  Run(1001, [&](int) { clock_.Advance(milliseconds(1)); });
  EXPECT_THAT(clock_.Sleeps(), IsEmpty());
  EXPECT_EQ(Slot(), 1000.0);
}

TEST_P(WorkersTest, SleepUsIsReadInEveryCycle) {
  Run(3, [&](int n) { record_->sleepUs = n == 2 ? 0 : 7; });
  EXPECT_THAT(clock_.Sleeps(), ElementsAre(7000, 7000));
}

TEST_P(WorkersTest, LongestPauseDoesNotOverflow) {
  record_->sleepUs = 4294967295U;
  Run(1, [&](int) { clock_.Advance(milliseconds(1)); });
  EXPECT_THAT(clock_.Sleeps(), ElementsAre(4294967295000));
}

TEST_P(WorkersTest, ReadsTheClockThreeTimesPerCycle) {
  Run(10, [&](int) { clock_.Advance(milliseconds(1)); });
  EXPECT_EQ(clock_.Reads(), 30U);
}

TEST_P(WorkersTest, IndexBeyondTheSlotsLogsOncePerPeriodAndGoesOn) {
  record_->threadFps.resize(1);
  Run(334 * 3, [&](int) { clock_.Advance(milliseconds(2)); });
  const std::string line = std::string(GetParam().name) + "() | vector";
  EXPECT_THAT(Errors(), ElementsAre(line, line, line));
  EXPECT_EQ(record_->threadFps[0], 0.0);
  // The mutex has been unlocked.
  ASSERT_TRUE(record_->fpsMutex.try_lock());
  record_->fpsMutex.unlock();
}

TEST_P(WorkersTest, ExceptionIsLoggedWhenOnlyErrorsAreEnabled) {
  SetLevel(ara::log::LogLevel::kError);
  record_->threadFps.clear();
  Run(334, [&](int) { clock_.Advance(milliseconds(2)); });
  EXPECT_THAT(Errors(), ElementsAre(std::string(GetParam().name) + "() | vector"));
}

TEST_P(WorkersTest, ExceptionLineHasTheWorkersSourceLocation) {
  record_->threadFps.clear();
  Run(334, [&](int) { clock_.Advance(milliseconds(2)); });
  bool seen = false;
  for (const fakeLog::Record& record : fakeLog::Records()) {
    if (record.level != ara::log::LogLevel::kError) continue;
    seen = true;
    EXPECT_EQ(record.file, GetParam().sourceFile);
    EXPECT_EQ(record.function, GetParam().name);
    EXPECT_GT(record.line, 0);
    EXPECT_EQ(std::string(record.kinds.begin(), record.kinds.end()), "vcc");
  }
  EXPECT_TRUE(seen);
}

TEST_P(WorkersTest, StopFlagAlreadySetMeansNoOperation) {
  stop_ = 1;
  GetParam().run(record_, index_, stop_);
  EXPECT_EQ(fakePlatform::CountOf(GetParam().operation), 0);
  EXPECT_THAT(clock_.Sleeps(), IsEmpty());
}

TEST_P(WorkersTest, CycleInProgressCompletesWithItsPause) {
  Run(1, [&](int) { stop_ = 1; });
  EXPECT_THAT(clock_.Sleeps(), ElementsAre(1'000'000));
}

TEST_P(WorkersTest, PublishesUnderTheMutexThatReadersTake) {
  record_->sleepUs = 0;
  std::atomic<int> operations{0};
  fakePlatform::OnCall(GetParam().operation, [&](int n) {
    clock_.Advance(milliseconds(1001));
    operations = n;
    if (n == 2) stop_ = 1;
  });
  std::unique_lock<std::mutex> reader(record_->fpsMutex);
  std::thread worker([&] { GetParam().run(record_, index_, stop_); });
  while (operations < 1) std::this_thread::yield();
  poll(nullptr, 0,
       50);  // real time; a worker that does not wait for the lock makes its second operation long before
  EXPECT_EQ(operations, 1);
  EXPECT_EQ(Slot(), 0.0);
  reader.unlock();
  worker.join();
  EXPECT_EQ(operations, 2);
  EXPECT_EQ(Slot(), 1 / 1001.0 * 1000.0);
}

TEST_P(WorkersTest, AnyOtherExceptionWhilePublishingThrowsOutOfTheWorker) {
  const MutexFault fault(record_->fpsMutex);
  fakePlatform::OnCall(GetParam().operation, [&](int) { clock_.Advance(milliseconds(2)); });
  EXPECT_THROW(GetParam().run(record_, index_, stop_), std::system_error);
  EXPECT_EQ(MutexFault::Delivered(), 1);
  EXPECT_EQ(fakePlatform::CountOf(GetParam().operation), 334);
  EXPECT_EQ(Slot(), 0.0);
  EXPECT_THAT(Errors(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    All, WorkersTest,
    testing::Values(Worker{"MemoryCopy", "memcpy_s", "stress_benchmark/src/cpu_stress.cpp",
                           [](Record& r, int i, volatile int& stop) { MemoryCopy(r, i, stop); }},
                    Worker{"VPCResize", "QetImageResize", "stress_benchmark/src/kivu_vpc_stress.cpp",
                           [](Record& r, int i, volatile int& stop) { EXPECT_EQ(VPCResize(r, i, stop), 0); }},
                    Worker{
                        "VencProcess", "QetVenc::SendFrame", "stress_benchmark/src/kivu_venc_stress.cpp",
                        [](Record& r, int i, volatile int& stop) { EXPECT_EQ(VencProcess(r, i, stop), 0); }},
                    Worker{"AICoreInfe", "QetDNNModelProcess", "stress_benchmark/src/aicore_stress.cpp",
                           [](Record& r, int i, volatile int& stop) {
                             EXPECT_EQ(AICoreStressNode(r, static_cast<unsigned int>(i), stop), 0);
                           }}),
    [](const testing::TestParamInfo<Worker>& info) { return std::string(info.param.name); });

}  // namespace
