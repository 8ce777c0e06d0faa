// SPDX-License-Identifier: Apache-2.0

// The contract that the four launchers share.

#include <chrono>
#include <functional>
#include <system_error>

#include "aicore_stress.h"
#include "cpu_stress.h"
#include "faults.h"
#include "fixture.h"
#include "kivu_venc_stress.h"
#include "kivu_vpc_stress.h"

namespace {

using Record = std::unique_ptr<vorn::StressRegister>;

struct Launcher {
  const char* name;
  const char* operation;
  std::function<void(Record&, std::vector<std::thread>&, volatile int&)> run;
};

class LaunchersTest : public UnitTest, public testing::WithParamInterface<Launcher> {
 protected:
  ~LaunchersTest() override {
    stop_ = 1;
    for (std::thread& thread : threads_) {
      if (thread.joinable()) thread.join();
    }
  }

  VirtualClock clock_;
  std::vector<std::thread> threads_;
  volatile int stop_ = 0;
};

TEST_P(LaunchersTest, AppendsToAListThatContainsOtherThreads) {
  Record record = MakeRecord(2, 0);
  threads_.resize(3);
  GetParam().run(record, threads_, stop_);
  ASSERT_EQ(threads_.size(), 5U);
  EXPECT_FALSE(threads_[2].joinable());
  EXPECT_TRUE(threads_[3].joinable());
  EXPECT_TRUE(threads_[4].joinable());
  stop_ = 1;
  threads_[3].join();
  threads_[4].join();
}

TEST_P(LaunchersTest, EveryWorkerGetsItsOwnIndex) {
  Record record = MakeRecord(3, 0);
  fakePlatform::OnCall(GetParam().operation, [&](int) { clock_.Advance(std::chrono::seconds(2)); });
  GetParam().run(record, threads_, stop_);
  const auto published = [&] {
    const std::lock_guard<std::mutex> lock(record->fpsMutex);
    return record->threadFps[0] > 0 && record->threadFps[1] > 0 && record->threadFps[2] > 0;
  };
  while (!published()) std::this_thread::yield();
  stop_ = 1;
  for (std::thread& thread : threads_) thread.join();
}

TEST_P(LaunchersTest, ReadsThreadNumBeforeEachStart) {
  Record record = MakeRecord(5, 0);
  stop_ = 1;  // the workers end at once; this test is about the list
  ThreadStarts starts;
  starts.OnStart([&](int n) {
    if (n == 2) record->threadNum = 3;
  });
  GetParam().run(record, threads_, stop_);
  EXPECT_EQ(threads_.size(), 3U);
  for (std::thread& thread : threads_) thread.join();
}

TEST_P(LaunchersTest, FailureToStartAThreadPropagates) {
  Record record = MakeRecord(3, 0);
  stop_ = 1;
  ThreadStarts starts;
  starts.Fail(2);
  try {
    GetParam().run(record, threads_, stop_);
    FAIL() << "nothing was thrown";
  } catch (const std::system_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("thread constructor failed"));
    EXPECT_EQ(error.code().value(), EAGAIN);
  }
  ASSERT_EQ(threads_.size(), 1U);
  threads_[0].join();
  EXPECT_THAT(Errors(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(All, LaunchersTest,
                         testing::Values(Launcher{"runCpuStress", "memcpy_s",
                                                  [](Record& r, std::vector<std::thread>& t,
                                                     volatile int& s) { runCpuStress(r, t, s); }},
                                         Launcher{"runVpcStress", "QetImageResize", runVpcStress},
                                         Launcher{"runVencStress", "QetVenc::SendFrame", runVencStress},
                                         Launcher{"runAicStress", "QetDNNModelProcess", runAicStress}),
                         [](const testing::TestParamInfo<Launcher>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
