// SPDX-License-Identifier: Apache-2.0
#include <functional>
#include <iostream>
#include <sstream>

#include "aicore_stress.h"
#include "cpu_stress.h"
#include "faults.h"
#include "fixture.h"
#include "kivu_venc_stress.h"
#include "kivu_vpc_stress.h"
#include "stress_bencmark.h"

namespace {

class RegistryTest : public UnitTest {
 protected:
  RegistryTest() : former_(std::cout.rdbuf(out_.rdbuf())), registry_(stressRegistry) { stopFlag = 0; }
  ~RegistryTest() override {
    std::cout.rdbuf(former_);
    stressRegistry = registry_;
    stopFlag = 0;
  }

  std::ostringstream out_;
  std::streambuf* former_;
  std::unordered_map<std::string, StressLauncher> registry_;
  VirtualClock clock_;
};

using LauncherFunction = void (*)(std::unique_ptr<vorn::StressRegister>&, std::vector<std::thread>&,
                                  volatile int&);

TEST_F(RegistryTest, ContainsTheFourLaunchers) {
  ASSERT_EQ(stressRegistry.size(), 4U);
  const auto target = [](const char* name) { return *stressRegistry.at(name).target<LauncherFunction>(); };
  EXPECT_EQ(target("kivuVpcStress"), &runVpcStress);
  EXPECT_EQ(target("kivuVencStress"), &runVencStress);
  EXPECT_EQ(target("aicStress"), &runAicStress);
  using CpuLauncher =
      void (*)(std::unique_ptr<vorn::StressRegister>&, std::vector<std::thread>&, const volatile int&);
  EXPECT_EQ(*stressRegistry.at("cpuStress").target<CpuLauncher>(), &runCpuStress);
}

TEST_F(RegistryTest, ThreadListIsWorkersThenAveragerPerStressThenReporterAndLimiter) {
  StressBenchmark benchmark("unused.yaml");
  benchmark.stressMap["one"] = MakeRecord(2, 0);
  benchmark.stressMap["two"] = MakeRecord(3, 0);
  std::vector<std::size_t> sizesAtLaunch;
  std::vector<std::string> names;
  for (const char* name : {"one", "two"}) {
    stressRegistry[name] = [&, name](std::unique_ptr<vorn::StressRegister>& reg,
                                     std::vector<std::thread>& threads, volatile int& stop) {
      EXPECT_EQ(&stop, &stopFlag);
      EXPECT_EQ(reg.get(), benchmark.stressMap[name].get());
      sizesAtLaunch.push_back(threads.size());
      names.emplace_back(name);
      EXPECT_EQ(Infos().back(), "Start() | stressName : " + names.back()) << "logged before the launch";
      for (std::uint32_t i = 0; i < reg->threadNum; ++i) threads.emplace_back([] {});
    };
  }
  clock_.WaitForSleepers(4);  // two averagers, reporter, limiter
  benchmark.Start();
  const std::size_t first = names[0] == "one" ? 2 : 3;
  EXPECT_THAT(sizesAtLaunch, ElementsAre(0, first + 1));
  EXPECT_EQ(benchmark.threads.size(), 2U + 1 + 3 + 1 + 2);
  for (const std::thread& thread : benchmark.threads) EXPECT_FALSE(thread.joinable());
  EXPECT_THAT(Infos(),
              ElementsAre("Start() | stressName : " + names[0], "Start() | stressName : " + names[1]));
}

TEST_F(RegistryTest, LevelZeroStartsOnlyItsAverager) {
  StressBenchmark benchmark("unused.yaml");
  benchmark.stressMap["cpuStress"] = MakeRecord(0, 1000);
  clock_.WaitForSleepers(3);
  benchmark.Start();
  EXPECT_EQ(benchmark.threads.size(), 3U);
  std::istringstream lines(out_.str());
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    EXPECT_EQ(line, "cpuStress : 0.000000 fps. ispStress : 30.0 fps.");
  }
  EXPECT_GE(count, 1);
  EXPECT_EQ(fakePlatform::CountOf("memcpy_s"), 0);
}

TEST_F(RegistryTest, EmptyMapStartsOnlyReporterAndLimiter) {
  StressBenchmark benchmark("unused.yaml");
  clock_.WaitForSleepers(2);
  benchmark.Start();
  EXPECT_EQ(benchmark.threads.size(), 2U);
  EXPECT_EQ(stopFlag, 1);
  EXPECT_THAT(out_.str(), testing::StartsWith("ispStress : 30.0 fps.\n"));
}

TEST_F(RegistryTest, ListEndsWithReporterAndLimiterOfRunTimesSeconds) {
  for (const std::uint32_t runTimes : {3U, 50U}) {
    stopFlag = 0;
    VirtualClock::Forget();
    clock_.WaitForSleepers(2);
    StressBenchmark benchmark("unused.yaml");
    benchmark.runTimes = runTimes;
    std::vector<std::thread::id> started;
    ThreadStarts starts;
    starts.OnStart([&](int) {
      // The new thread is not in the list yet; the last entry is the thread before it.
      if (!benchmark.threads.empty()) started.push_back(benchmark.threads.back().get_id());
    });
    benchmark.Start();
    EXPECT_EQ(starts.Count(), 2);
    ASSERT_EQ(started.size(), 1U);
    const auto sleeps = VirtualClock::SleepsByThread();
    ASSERT_EQ(sleeps.size(), 2U);
    for (const auto& [thread, count] : sleeps) {
      if (thread == started[0]) continue;  // the reporter, started first
      EXPECT_EQ(count, runTimes + 1);
    }
  }
}

TEST_F(RegistryTest, UnknownNameInsertsAnEmptyLauncherAndThrows) {
  StressBenchmark benchmark("unused.yaml");
  benchmark.stressMap["noStress"] = MakeRecord(1, 0);
  EXPECT_THROW(benchmark.Start(), std::bad_function_call);
  EXPECT_EQ(stressRegistry.count("noStress"), 1U);
  EXPECT_THAT(benchmark.threads, IsEmpty());
}

TEST_F(RegistryTest, NewRecordHasOneThreadAndNoPause) {
  const vorn::StressRegister record;
  EXPECT_EQ(record.threadNum, 1U);
  EXPECT_EQ(record.sleepUs, 0U);
  EXPECT_EQ(record.file, "");
  EXPECT_EQ(record.averageFps, 0.0);
  EXPECT_THAT(record.threadFps, IsEmpty());
}

}  // namespace
