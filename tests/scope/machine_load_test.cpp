// SPDX-License-Identifier: Apache-2.0
#include "machine_load.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>

#include "temporary_folder.h"

namespace {

using scope::MachineLoad;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

class MachineLoadTest : public ::testing::Test {
 protected:
  static constexpr pid_t kBenchmark = 77;

  /// Times are in seconds of one CPU.
  void Put(double machineS, double stealS, double benchmarkS, double ownS) const {
    folder_.Put("proc/stat",
                "cpu  " + Ticks(machineS) + " 0 0 9999 500 0 0 " + Ticks(stealS) + " 0 0\ncpu0 1\n");
    folder_.Put("proc/77/stat", Process(benchmarkS));
    folder_.Put("proc/self/stat", Process(ownS));
  }

  static std::string Ticks(double seconds) {
    return std::to_string(static_cast<long>(seconds * static_cast<double>(sysconf(_SC_CLK_TCK))));
  }

  /// `endedS` is the time of children that the process has waited for.
  static std::string Process(double seconds, double endedS = 0) {
    return "77 (a ) name) R 1 2 3 4 5 6 7 8 9 10 " + Ticks(seconds / 2) + " " + Ticks(seconds / 2) + " " +
           Ticks(endedS / 2) + " " + Ticks(endedS / 2) + " 20\n";
  }

  std::map<std::string, double> Read(double timeS) {
    std::map<std::string, double> values;
    for (const scope::CounterValue& value : load_.Read(timeS, kBenchmark)) {
      EXPECT_EQ(value.timeS, timeS);
      values[value.source + "/" + value.name] = value.value;
    }
    return values;
  }

  TemporaryFolder folder_;
  MachineLoad load_{folder_.Path()};
};

TEST_F(MachineLoadTest, TimeOfTheBenchmarkAndOfTheRecorderIsNotThatOfOthers) {
  Put(1000, 50, 10, 2);
  EXPECT_THAT(Read(1), IsEmpty()) << "the first call";
  // In two seconds: 4 s of the machine, 2 of them the benchmark's and 1 the recorder's.
  Put(1004, 51, 12, 3);
  EXPECT_THAT(Read(3), UnorderedElementsAre(Pair("load/others", 0.5), Pair("load/steal", 0.5),
                                            Pair("processor/benchmark", 1)));
  Put(1005, 51, 14, 3);
  EXPECT_THAT(Read(4), UnorderedElementsAre(Pair("load/others", 0), Pair("load/steal", 0),
                                            Pair("processor/benchmark", 2)))
      << "ticks that were counted late";
}

TEST_F(MachineLoadTest, TimeOfTheGuardIsNotThatOfOthers) {
  constexpr pid_t kGuard = 90;
  double helpers = -1;
  const auto others = [&](double timeS) {
    double found = -1;
    for (const scope::CounterValue& value : load_.Read(timeS, kBenchmark, {kGuard})) {
      if (value.name == "others") found = value.value;
      if (value.name == "helpers") helpers = value.value;
    }
    return found;
  };
  Put(1000, 0, 10, 2);
  folder_.Put("proc/90/stat", Process(5));
  EXPECT_EQ(others(1), -1);
  Put(1002, 0, 11, 2);
  folder_.Put("proc/90/stat", Process(5.5));
  EXPECT_EQ(others(2), 0.5);
  EXPECT_EQ(helpers, 0.5);
}

TEST_F(MachineLoadTest, TimeOfWhatTheBenchmarkStartsIsNotThatOfOthers) {
  const auto othersAt = [this](double timeS) { return Read(timeS)["load/others"]; };
  Put(1000, 0, 10, 0);
  (void)Read(1);
  // A thread starts the child 78, which starts 79. Both work for 1 s, as the benchmark itself does.
  Put(1003, 0, 11, 0);
  folder_.Put("proc/77/task/77/children", "");
  folder_.Put("proc/77/task/80/children", "78 ");
  folder_.Put("proc/78/task/78/children", "79 ");
  folder_.Put("proc/78/stat", Process(1));
  folder_.Put("proc/79/stat", Process(1));
  EXPECT_EQ(othersAt(2), 0);
  // 79 ends, and 78 has waited for it.
  Put(1005, 0, 12, 0);
  folder_.Put("proc/78/task/78/children", "");
  std::filesystem::remove_all(folder_ / "proc/79");
  folder_.Put("proc/78/stat", Process(2, 1));
  EXPECT_EQ(othersAt(3), 0);
  // 78 ends, too. The benchmark has its time and that of 79. Others take half a second.
  Put(1006.5, 0, 13, 0);
  folder_.Put("proc/77/task/80/children", "");
  std::filesystem::remove_all(folder_ / "proc/78");
  folder_.Put("proc/77/stat", Process(13, 3));
  EXPECT_EQ(othersAt(4), 0.5);
  Put(1008.5, 0, 14, 0);
  folder_.Put("proc/77/stat", Process(14, 3));
  EXPECT_EQ(othersAt(5), 1) << "the time of an ended child is counted once";
}

TEST_F(MachineLoadTest, AChildThatTwoThreadsListIsCountedOnce) {
  folder_.Put("proc/77/task/77/children", "78 ");
  folder_.Put("proc/77/task/80/children", "78 ");
  folder_.Put("proc/78/stat", Process(1));
  Put(1000, 0, 10, 0);
  (void)Read(1);
  folder_.Put("proc/78/stat", Process(2));
  Put(1002, 0, 10, 0);
  EXPECT_EQ(Read(2)["load/others"], 1);
}

TEST_F(MachineLoadTest, WithoutTheBenchmarkItCannotTellOthers) {
  Put(1000, 0, 10, 2);
  (void)Read(1);
  std::filesystem::remove_all(folder_ / "proc/77");
  EXPECT_THAT(Read(2), UnorderedElementsAre(Pair("load/steal", 0)));
}

TEST_F(MachineLoadTest, PressureIsAShareOfTheTime) {
  const auto put = [this](const std::string& total) {
    folder_.Put("proc/pressure/memory", "some avg10=1.00 avg60=0.10 avg300=0.00 total=" + total +
                                            "\nfull avg10=0.00 avg60=0.00 avg300=0.00 total=9\n");
  };
  put("1000000");
  folder_.Put("proc/pressure/io", "nothing");
  (void)Read(1);
  put("1500000");
  EXPECT_THAT(Read(3), UnorderedElementsAre(Pair("pressure/memory", 25)));
}

TEST_F(MachineLoadTest, SaysWhatIsAbsent) {
  Put(1, 1, 1, 1);
  const std::vector<scope::CounterSource> sources = load_.Sources();
  ASSERT_EQ(sources.size(), 3U);
  EXPECT_EQ(sources[0].source, "load");
  EXPECT_TRUE(sources[0].present);
  EXPECT_FALSE(sources[1].present);
  EXPECT_THAT(sources[1].reason, HasSubstr("proc/pressure/cpu: No such file"));
  EXPECT_EQ(sources[2].source, "processor");
  EXPECT_TRUE(sources[2].present);
}

}  // namespace
