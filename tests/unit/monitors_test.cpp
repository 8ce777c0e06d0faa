// SPDX-License-Identifier: Apache-2.0
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "faults.h"
#include "fixture.h"
#include "stress_bencmark.h"

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;

class MonitorsTest : public UnitTest {
 protected:
  MonitorsTest() : former_(std::cout.rdbuf(out_.rdbuf())) {}
  ~MonitorsTest() override { std::cout.rdbuf(former_); }

  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    std::istringstream text(out_.str());
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
  }

  void StopAtSleep(std::size_t nth) {
    clock_.OnSleep([this, nth](std::size_t n) {
      if (n == nth) stop_ = 1;
    });
  }

  std::ostringstream out_;
  std::streambuf* former_;
  VirtualClock clock_;
  volatile int stop_ = 0;
};

TEST_F(MonitorsTest, AveragerTakesTheMeanOfTheSlots) {
  auto record = MakeRecord(4, 0);
  record->threadFps = {1.0, 2.0, 3.0, 5.0};
  StopAtSleep(1);
  RateAverager(record, stop_);
  EXPECT_EQ(record->averageFps, 2.75);
  EXPECT_THAT(clock_.Sleeps(), ElementsAre(kSecond));
}

TEST_F(MonitorsTest, AveragerAveragesOnceASecondUntilStopped) {
  auto record = MakeRecord(1, 0);
  std::vector<double> seen;
  clock_.OnSleep([&](std::size_t n) {
    seen.push_back(record->averageFps);
    record->threadFps[0] = static_cast<double>(n);
    if (n == 3) stop_ = 1;
  });
  RateAverager(record, stop_);
  EXPECT_THAT(seen, ElementsAre(0.0, 1.0, 2.0));
  EXPECT_EQ(record->averageFps, 2.0);  // the flag is read after the sleep, so there is no further pass
}

TEST_F(MonitorsTest, AveragerWithoutThreadsKeepsTheValue) {
  auto record = MakeRecord(0, 0);
  record->averageFps = 7.0;
  StopAtSleep(2);
  RateAverager(record, stop_);
  EXPECT_EQ(record->averageFps, 7.0);
  EXPECT_EQ(clock_.Sleeps().size(), 2U);
}

TEST_F(MonitorsTest, AveragerReadsThreadNumInEveryPass) {
  auto record = MakeRecord(2, 0);
  record->threadFps = {4.0, 8.0};
  clock_.OnSleep([&](std::size_t n) {
    record->threadNum = 1;
    if (n == 2) stop_ = 1;
  });
  RateAverager(record, stop_);
  EXPECT_EQ(record->averageFps, 4.0);
}

TEST_F(MonitorsTest, AveragerTakesTheLockOncePerSlot) {
  auto record = MakeRecord(5, 0);
  const MutexWatch watch(record->fpsMutex);
  StopAtSleep(1);
  RateAverager(record, stop_);
  EXPECT_EQ(MutexWatch::Locks(), 5);
}

TEST_F(MonitorsTest, AveragerOfMissingSlotsThrowsAndReleasesTheLock) {
  auto record = MakeRecord(2, 0);
  record->threadFps.resize(1);
  EXPECT_THROW(RateAverager(record, stop_), std::out_of_range);
  ASSERT_TRUE(record->fpsMutex.try_lock());
  record->fpsMutex.unlock();
}

TEST_F(MonitorsTest, ReporterPrintsEveryStressAndTheConstantText) {
  StressMap stresses;
  stresses["cpuStress"] = MakeRecord(1, 0);
  stresses["cpuStress"]->averageFps = 1234.5;
  StopAtSleep(1);
  RateReporter(stresses, stop_);
  EXPECT_EQ(out_.str(), "cpuStress : 1234.500000 fps. ispStress : 30.0 fps.\n");
}

TEST_F(MonitorsTest, ReporterFollowsTheOrderOfTheMap) {
  StressMap stresses;
  for (const char* name : {"kivuVpcStress", "kivuVencStress", "cpuStress", "aicStress"}) {
    stresses[name] = MakeRecord(0, 0);
  }
  std::string expected;
  for (const auto& entry : stresses) expected += entry.first + " : 0.000000 fps. ";
  StopAtSleep(1);
  RateReporter(stresses, stop_);
  EXPECT_EQ(out_.str(), expected + "ispStress : 30.0 fps.\n");
}

TEST_F(MonitorsTest, ReporterWithoutAnyStress) {
  StopAtSleep(3);
  RateReporter({}, stop_);
  EXPECT_THAT(Lines(),
              ElementsAre("ispStress : 30.0 fps.", "ispStress : 30.0 fps.", "ispStress : 30.0 fps."));
  EXPECT_THAT(clock_.Sleeps(), ElementsAre(kSecond, kSecond, kSecond));
}

TEST_F(MonitorsTest, LevelZeroIsPrintedAsZero) {
  StressMap stresses;
  stresses["aicStress"] = MakeRecord(0, 0);
  StopAtSleep(2);
  RateReporter(stresses, stop_);
  EXPECT_EQ(Lines().size(), 2U);
  EXPECT_THAT(Lines(), testing::Each("aicStress : 0.000000 fps. ispStress : 30.0 fps."));
}

TEST_F(MonitorsTest, ReporterPrintsTheValuesReadBeforeItsSleep) {
  StressMap stresses;
  stresses["cpuStress"] = MakeRecord(1, 0);
  clock_.OnSleep([&](std::size_t n) {
    EXPECT_EQ(Lines().size(), n - 1);  // nothing is printed before the sleep
    stresses["cpuStress"]->averageFps = 10.0 * static_cast<double>(n);
    if (n == 2) stop_ = 1;
  });
  RateReporter(stresses, stop_);
  EXPECT_THAT(Lines(), ElementsAre("cpuStress : 0.000000 fps. ispStress : 30.0 fps.",
                                   "cpuStress : 10.000000 fps. ispStress : 30.0 fps."));
}

TEST_F(MonitorsTest, ReporterPrintsOneMoreLineWhenTheFlagIsSetInItsSleep) {
  StopAtSleep(1);
  RateReporter({}, stop_);
  EXPECT_EQ(Lines().size(), 1U);
}

TEST_F(MonitorsTest, LimiterRaisesTheFlagAfterRunTimesAndEndsASecondLater) {
  std::size_t raisedBefore = 0;
  clock_.OnSleep([&](std::size_t n) {
    if (stop_ == 1 && raisedBefore == 0) raisedBefore = n;
  });
  RunTimeLimiter(40, stop_);
  EXPECT_EQ(stop_, 1);
  EXPECT_EQ(raisedBefore, 41U);  // set during the 41st sleep, that is, after 40 s
  EXPECT_EQ(clock_.Sleeps().size(), 41U);
}

TEST_F(MonitorsTest, LimiterOfZeroRaisesTheFlagAtOnce) {
  RunTimeLimiter(0, stop_);
  EXPECT_EQ(stop_, 1);
  EXPECT_EQ(clock_.Sleeps().size(), 1U);
}

TEST_F(MonitorsTest, LimiterEndsWhenTheFlagIsSetEarlier) {
  StopAtSleep(3);
  RunTimeLimiter(40, stop_);
  EXPECT_THAT(clock_.Sleeps(), ElementsAre(kSecond, kSecond, kSecond));
}

TEST_F(MonitorsTest, StopFlagAlreadySetMeansNoSleepAndNoLine) {
  stop_ = 1;
  auto record = MakeRecord(1, 0);
  record->threadFps[0] = 5.0;
  StressMap stresses;
  stresses["cpuStress"] = MakeRecord(1, 0);
  RateAverager(record, stop_);
  RateReporter(stresses, stop_);
  RunTimeLimiter(40, stop_);
  EXPECT_EQ(record->averageFps, 0.0);
  EXPECT_EQ(out_.str(), "");
  EXPECT_THAT(clock_.Sleeps(), IsEmpty());
}

}  // namespace
