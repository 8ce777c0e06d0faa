// SPDX-License-Identifier: Apache-2.0
#include "cpu_stress.h"

#include <algorithm>
#include <set>

#include "array_allocations.h"
#include "fixture.h"

namespace {

class CpuStressTest : public UnitTest {
 protected:
  static void JoinAll(std::vector<std::thread>& threads) {
    for (std::thread& thread : threads) thread.join();
  }
};

TEST_F(CpuStressTest, LevelZeroLogsItsLineAndStartsNothing) {
  auto record = MakeRecord(0, 1000);
  std::vector<std::thread> threads;
  volatile int stop = 0;
  runCpuStress(record, threads, stop);
  EXPECT_THAT(threads, IsEmpty());
  EXPECT_THAT(Infos(), ElementsAre("runCpuStress() | CPU threadNum: 0 , memcpy Process start..."));
}

TEST_F(CpuStressTest, StartsOneWorkerPerLevelAndReturnsWithoutWaiting) {
  auto record = MakeRecord(4, 100);
  std::vector<std::thread> threads(1);  // the list may contain other threads already
  volatile int stop = 0;
  runCpuStress(record, threads, stop);
  EXPECT_EQ(threads.size(), 5U);
  EXPECT_FALSE(threads.front().joinable());
  const auto buffers = [] {
    std::set<const void*> all;
    for (const auto& call : fakePlatform::CallsOf("memcpy_s")) all.insert({call.source, call.destination});
    return all.size();
  };
  while (buffers() < 8) std::this_thread::yield();
  stop = 1;
  threads.erase(threads.begin());
  JoinAll(threads);
  EXPECT_THAT(Infos(), ElementsAre("runCpuStress() | CPU threadNum: 4 , memcpy Process start..."));
  std::set<std::thread::id> workers;
  for (const auto& call : fakePlatform::Calls()) workers.insert(call.thread);
  EXPECT_EQ(workers.size(), 4U);
  EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(CpuStressTest, ThreadNumIsInsertedAsAnUnsignedNumberBetweenTwoTexts) {
  auto record = MakeRecord(0, 0);
  std::vector<std::thread> threads;
  volatile int stop = 0;
  runCpuStress(record, threads, stop);
  ASSERT_EQ(fakeLog::Records().size(), 1U);
  const fakeLog::Record line = fakeLog::Records()[0];
  EXPECT_EQ(std::string(line.kinds.begin(), line.kinds.end()), "vccuc");
  EXPECT_EQ(line.level, ara::log::LogLevel::kInfo);
}

TEST_F(CpuStressTest, CopiesTheWholeBufferWithItsSizeAsTheBound) {
  VirtualClock clock;
  auto record = MakeRecord(1, 1000);
  volatile int stop = 0;
  fakePlatform::OnCall("memcpy_s", [&](int n) {
    if (n == 3) stop = 1;
  });
  MemoryCopy(record, 0, stop);
  const auto calls = fakePlatform::CallsOf("memcpy_s");
  ASSERT_EQ(calls.size(), 3U);
  for (const auto& call : calls) {
    EXPECT_EQ(call.destinationMax, 8294400U);
    EXPECT_EQ(call.count, 8294400U);
    EXPECT_EQ(call.source, calls[0].source);
    EXPECT_EQ(call.destination, calls[0].destination);
    EXPECT_NE(call.source, call.destination);
  }
}

TEST_F(CpuStressTest, BothBuffersAreZero) {
  auto record = MakeRecord(1, 0);
  volatile int stop = 0;
  bool zero = false;
  fakePlatform::OnCall("memcpy_s", [&](int) {
    const auto call = fakePlatform::CallsOf("memcpy_s").back();
    const auto allZero = [](const void* buffer) {
      const auto* bytes = static_cast<const unsigned char*>(buffer);
      return std::all_of(bytes, bytes + kCopyBytes, [](unsigned char byte) { return byte == 0; });
    };
    zero = allZero(call.source) && allZero(call.destination);
    stop = 1;
  });
  MemoryCopy(record, 0, stop);
  EXPECT_TRUE(zero);
}

TEST_F(CpuStressTest, ResultOfTheCopyIsIgnored) {
  VirtualClock clock;
  fakePlatform::FailFrom("memcpy_s", 1, 34);
  auto record = MakeRecord(1, 1000);
  volatile int stop = 0;
  fakePlatform::OnCall("memcpy_s", [&](int n) {
    clock.Advance(std::chrono::milliseconds(2));
    if (n == 334) stop = 1;
  });
  MemoryCopy(record, 0, stop);
  EXPECT_EQ(fakePlatform::FailuresDelivered("memcpy_s"), 334);
  EXPECT_EQ(record->threadFps[0], 500.0);
  EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(CpuStressTest, UsesOnlyTheCopyOfThePlatform) {
  auto record = MakeRecord(1, 0);
  volatile int stop = 0;
  fakePlatform::OnCall("memcpy_s", [&](int) { stop = 1; });
  MemoryCopy(record, 0, stop);
  EXPECT_THAT(fakePlatform::Names(), ElementsAre("memcpy_s"));
}

TEST_F(CpuStressTest, StopFlagAlreadySetAllocatesAndFreesBothBuffers) {
  auto record = MakeRecord(1, 1000);
  volatile int stop = 1;
  ArrayAllocations watch;
  MemoryCopy(record, 0, stop);
  EXPECT_THAT(watch.Events(),
              ElementsAre(8294400U, 8294400U, ArrayAllocations::kFreed, ArrayAllocations::kFreed));
  EXPECT_THAT(fakePlatform::Names(), IsEmpty());
}

TEST_F(CpuStressTest, AllocatesNothingInTheLoop) {
  auto record = MakeRecord(1, 0);
  volatile int stop = 0;
  fakePlatform::OnCall("memcpy_s", [&](int n) {
    if (n == 50) stop = 1;
  });
  ArrayAllocations watch;
  MemoryCopy(record, 0, stop);
  EXPECT_EQ(watch.Events().size(), 4U);
}

TEST_F(CpuStressTest, FailedAllocationOfEitherBufferThrowsOutOfTheWorker) {
  auto record = MakeRecord(1, 1000);
  volatile int stop = 0;
  for (const int nth : {1, 2}) {
    ArrayAllocations watch;
    watch.Fail(nth);
    EXPECT_THROW(MemoryCopy(record, 0, stop), std::bad_alloc) << nth;
  }
  EXPECT_THAT(fakeLog::Records(), IsEmpty());
  EXPECT_THAT(fakePlatform::Names(), IsEmpty());
}

}  // namespace
