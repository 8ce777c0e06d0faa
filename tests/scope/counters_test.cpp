// SPDX-License-Identifier: Apache-2.0

// Readers of counters on copies of /sys trees like those of real machines.
#include "counters.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "temporary_folder.h"

namespace {

using scope::Counters;
using scope::CounterSource;
using scope::CounterValue;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// Records what is opened and returns counts that a test sets.
class FakePerf : public scope::PerfEvents {
 public:
  struct Opened {
    perf_event_attr attributes;
    int cpu;
  };
  struct State {
    std::vector<Opened> opened;
    double count = 0;
    int error = 0;
    int closed = 0;
  };
  explicit FakePerf(State& state) : state_(state) {}

  int Open(const perf_event_attr& attributes, int cpu) override {
    if (state_.error != 0) {
      errno = state_.error;
      return -1;
    }
    state_.opened.push_back({attributes, cpu});
    return static_cast<int>(state_.opened.size());
  }
  std::optional<double> Read(int descriptor) override { return state_.count * descriptor; }
  void Close(int /*descriptor*/) override { ++state_.closed; }

 private:
  State& state_;
};

class CountersTest : public ::testing::Test {
 protected:
  std::unique_ptr<Counters> Find() {
    return std::make_unique<Counters>(tree_.Path(), std::make_unique<FakePerf>(perf_));
  }

  static CounterSource SourceOf(const Counters& counters, const std::string& name) {
    for (const CounterSource& source : counters.Sources()) {
      if (source.source == name) return source;
    }
    return {};
  }

  // A memory controller of an x86 server.
  void PutImc(const std::string& name = "uncore_imc_0") {
    const std::string unit = "sys/bus/event_source/devices/" + name;
    tree_.Put(unit + "/type", "14\n");
    tree_.Put(unit + "/cpumask", "8,24\n");
    tree_.Put(unit + "/format/event", "config:0-7\n");
    tree_.Put(unit + "/format/umask", "config:8-15\n");
    tree_.Put(unit + "/events/cas_count_read", "event=0x04,umask=0x03\n");
    tree_.Put(unit + "/events/cas_count_read.scale", "6.103515625e-5\n");
    tree_.Put(unit + "/events/cas_count_read.unit", "MiB\n");
    tree_.Put(unit + "/events/cas_count_write", "event=0x04,umask=0x0c\n");
    tree_.Put(unit + "/events/clockticks", "event=0xff\n");
  }

  TemporaryFolder tree_;
  FakePerf::State perf_;
};

TEST_F(CountersTest, AbsentSourcesAreListedWithTheReason) {
  const auto counters = Find();
  ASSERT_EQ(counters->Sources().size(), 7U);
  for (const CounterSource& source : counters->Sources()) {
    EXPECT_FALSE(source.present) << source.source;
    EXPECT_FALSE(source.reason.empty()) << source.source;
  }
  const std::map<std::string, std::string> reasons = {
      {"perf",
       "the kernel has no counters of a memory controller in " + (tree_ / "sys/bus/event_source/devices")},
      {"resctrl", (tree_ / "sys/fs/resctrl") + " is missing: the kernel offers no resctrl on this machine"},
      {"devfreq",
       (tree_ / "sys/class/devfreq") + " is missing or empty: the kernel scales no device's frequency"},
      {"edac", "no memory controller in " + (tree_ / "sys/devices/system/edac/mc")},
      {"thermal", "no thermal zone with a temperature in " + (tree_ / "sys/class/thermal")},
      {"cpufreq", "no CPU in " + (tree_ / "sys/devices/system/cpu") +
                      " reports its frequency (cpufreq/scaling_cur_freq)"},
      {"throttle", "no CPU in " + (tree_ / "sys/devices/system/cpu") +
                       " counts its throttling (thermal_throttle/core_throttle_count)"}};
  for (const auto& [source, reason] : reasons) EXPECT_EQ(SourceOf(*counters, source).reason, reason);
  EXPECT_THAT(counters->Read(1), IsEmpty());
  std::filesystem::create_directories(tree_ / "sys/fs/resctrl");
  EXPECT_THAT(SourceOf(*Find(), "resctrl").reason, HasSubstr("not mounted"));
  std::filesystem::create_directories(tree_ / "sys/fs/resctrl/info");
  EXPECT_THAT(SourceOf(*Find(), "resctrl").reason, HasSubstr("has no monitoring"));
  std::filesystem::create_directories(tree_ / "sys/fs/resctrl/mon_data");
  EXPECT_EQ(SourceOf(*Find(), "resctrl").reason,
            "no domain in " + (tree_ / "sys/fs/resctrl/mon_data") + " counts bandwidth (mbm_total_bytes)");
}

TEST_F(CountersTest, WhatIsThereAndCannotBeUsedIsNotCalledMissing) {
  // A folder in place of the file can be opened but not read.
  std::filesystem::create_directories(tree_ / "sys/class/devfreq/dmc/cur_freq");
  std::filesystem::create_directories(tree_ / "sys/devices/system/edac/mc/mc0/ce_count");
  tree_.Put("sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq", "<unknown>\n");
  const auto counters = Find();
  EXPECT_EQ(SourceOf(*counters, "devfreq").reason,
            "cannot read " + (tree_ / "sys/class/devfreq/dmc/cur_freq") + ": Is a directory");
  EXPECT_EQ(SourceOf(*counters, "edac").reason,
            "cannot read " + (tree_ / "sys/devices/system/edac/mc/mc0/ce_count") + ": Is a directory");
  EXPECT_EQ(SourceOf(*counters, "cpufreq").reason,
            (tree_ / "sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq") +
                " contains \"<unknown>\", expected a number");
  EXPECT_THAT(SourceOf(*counters, "throttle").reason, HasSubstr("counts its throttling"))
      << "each source has its own reason";
}

TEST_F(CountersTest, AnEventWhoseScaleIsNotUnderstoodIsNotCounted) {
  PutImc();
  tree_.Put("sys/bus/event_source/devices/uncore_imc_0/events/cas_count_read.scale", "64B\n");
  std::filesystem::remove(tree_ / "sys/bus/event_source/devices/uncore_imc_0/events/cas_count_write");
  const auto counters = Find();
  EXPECT_THAT(perf_.opened, IsEmpty());
  EXPECT_THAT(SourceOf(*counters, "perf").reason, HasSubstr("cas_count_read.scale contains \"64B\""));
}

TEST_F(CountersTest, FindsTheMemoryUnitsOfEachKindOfProcessor) {
  for (const char* const unit : {"uncore_imc_free_running_0", "amd_umc_0", "amd_df", "arm_cmn_0", "arm_dsu_0",
                                 "arm_dmc_0", "dmc620_10008c000", "imx8_ddr0", "imx9_ddr0"}) {
    PutImc(unit);
    const auto counters = Find();
    EXPECT_TRUE(SourceOf(*counters, "perf").present) << unit;
    std::filesystem::remove_all(tree_ / "sys/bus/event_source/devices");
  }
  PutImc("uncore_cha_0");
  EXPECT_FALSE(SourceOf(*Find(), "perf").present) << "it counts no memory";
}

TEST_F(CountersTest, OpensTheReadsAndWritesOfAMemoryController) {
  PutImc();
  {
    const auto counters = Find();
    EXPECT_TRUE(SourceOf(*counters, "perf").present);
    ASSERT_EQ(perf_.opened.size(), 4U);
    EXPECT_EQ(perf_.opened[0].attributes.type, 14U);
    EXPECT_EQ(perf_.opened[0].attributes.config, 0x0304U);
    EXPECT_EQ(perf_.opened[2].attributes.config, 0x0c04U);
    // Each of two packages has a controller with this name.
    EXPECT_EQ(perf_.opened[0].cpu, 8);
    EXPECT_EQ(perf_.opened[1].cpu, 24);
    perf_.count = 1000;
    EXPECT_THAT(counters->Read(1), IsEmpty());
    perf_.count = 33768;
    const std::vector<CounterValue> values = counters->Read(3);
    ASSERT_EQ(values.size(), 2U);
    EXPECT_EQ(values[0].name, "uncore_imc_0/cas_count_read");
    EXPECT_EQ(values[0].unit, "MiB/s");
    // 32768 lines of 64 bytes in two seconds in one package, and twice as many in the other.
    EXPECT_DOUBLE_EQ(values[0].value, 3.0);
    EXPECT_EQ(values[1].unit, "events/s");
    EXPECT_DOUBLE_EQ(values[1].value, 16384.0 * (3 + 4));
  }
  EXPECT_EQ(perf_.closed, 4);
}

TEST_F(CountersTest, SaysWhenTheKernelRefusesToCount) {
  PutImc();
  perf_.error = EACCES;
  const auto counters = Find();
  EXPECT_FALSE(SourceOf(*counters, "perf").present);
  EXPECT_THAT(SourceOf(*counters, "perf").reason, HasSubstr("Permission denied (needs CAP_PERFMON"));
}

TEST(ScaledCount, ScalesEachIntervalForItself) {
  scope::ScaledCount count;
  EXPECT_EQ(count.Next(1'000'000, 1000, 500), 2'000'000);
  EXPECT_EQ(count.Next(1'000'100, 2000, 1500), 2'000'100);  // it ran for all of this one
  EXPECT_EQ(count.Next(1'000'100, 3000, 1500), std::nullopt);
  EXPECT_EQ(count.Next(1'000'200, 4000, 2500), 2'000'300);  // and for half of these two
}

TEST_F(CountersTest, LeavesOtherCountingUnitsAlone) {
  tree_.Put("sys/bus/event_source/devices/cpu/type", "4");
  tree_.Put("sys/bus/event_source/devices/cpu/events/mem_read", "event=0x1");
  const auto counters = Find();
  EXPECT_FALSE(SourceOf(*counters, "perf").present);
  EXPECT_THAT(perf_.opened, IsEmpty());
}

TEST_F(CountersTest, TakesEventsOfArmInterconnects) {
  const std::string unit = "sys/bus/event_source/devices/arm_dsu_0";
  tree_.Put(unit + "/type", "9");
  tree_.Put(unit + "/cpumask", "0");
  tree_.Put(unit + "/format/event", "config:0-31");
  tree_.Put(unit + "/events/bus_access_rd", "event=0x60");
  tree_.Put(unit + "/events/bus_access_wr", "event=0x61");
  const auto counters = Find();
  ASSERT_EQ(perf_.opened.size(), 2U);
  EXPECT_EQ(perf_.opened[0].attributes.config, 0x60U);
}

TEST_F(CountersTest, PutsAnEventsFieldsWhereTheUnitSays) {
  tree_.Put("unit/type", "7");
  tree_.Put("unit/format/event", "config:0-3,32-35");
  tree_.Put("unit/format/flag", "config1:63");
  tree_.Put("unit/format/odd", "config9:0-3");
  perf_event_attr attributes{};
  EXPECT_TRUE(scope::ParsePerfEvent(tree_ / "unit", "event=0xab,flag", attributes));
  EXPECT_EQ(attributes.config, 0x0000000a0000000bU);
  EXPECT_EQ(attributes.config1, std::uint64_t{1} << 63);
  EXPECT_TRUE(scope::ParsePerfEvent(tree_ / "unit", "config=0x123", attributes));
  EXPECT_EQ(attributes.config, 0x123U);
  for (const char* text : {"event=?", "event=0x1ab", "unknown=1", "odd=1", "", "event="}) {
    EXPECT_FALSE(scope::ParsePerfEvent(tree_ / "unit", text, attributes)) << text;
  }
  EXPECT_FALSE(scope::ParsePerfEvent(tree_ / "none", "event=1", attributes));
}

TEST_F(CountersTest, ReadsBandwidthFromResctrl) {
  tree_.Put("sys/fs/resctrl/mon_data/mon_L3_00/mbm_total_bytes", "1000000\n");
  tree_.Put("sys/fs/resctrl/mon_data/mon_L3_00/llc_occupancy", "5\n");
  tree_.Put("sys/fs/resctrl/mon_data/mon_L3_01/mbm_total_bytes", "Unavailable\n");
  const auto counters = Find();
  EXPECT_TRUE(SourceOf(*counters, "resctrl").present);
  EXPECT_THAT(counters->Read(1), IsEmpty());
  tree_.Put("sys/fs/resctrl/mon_data/mon_L3_00/mbm_total_bytes", "5000000\n");
  const std::vector<CounterValue> values = counters->Read(3);
  ASSERT_EQ(values.size(), 1U);
  EXPECT_EQ(values[0].name, "mon_L3_00/mbm_total_bytes");
  EXPECT_EQ(values[0].unit, "B/s");
  EXPECT_DOUBLE_EQ(values[0].value, 2e6);
  // A domain without a value at first.
  tree_.Put("sys/fs/resctrl/mon_data/mon_L3_01/mbm_total_bytes", "100\n");
  EXPECT_EQ(counters->Read(3.5).size(), 1U);
  tree_.Put("sys/fs/resctrl/mon_data/mon_L3_01/mbm_total_bytes", "300\n");
  const std::vector<CounterValue> later = counters->Read(3.75);
  ASSERT_EQ(later.size(), 2U);
  EXPECT_EQ(later[1].name, "mon_L3_01/mbm_total_bytes");
  EXPECT_DOUBLE_EQ(later[1].value, 800);
  tree_.Put("sys/fs/resctrl/mon_data/mon_L3_01/mbm_total_bytes", "Unavailable\n");
  // A counter that restarted has no value for one reading.
  tree_.Put("sys/fs/resctrl/mon_data/mon_L3_00/mbm_total_bytes", "7\n");
  EXPECT_THAT(counters->Read(4), IsEmpty());
}

TEST_F(CountersTest, ReadsTheMemorysFrequencyFromDevfreq) {
  tree_.Put("sys/class/devfreq/dmc/cur_freq", "2112000000\n");
  tree_.Put("sys/class/devfreq/fde60000.gpu/cur_freq", "800000000\n");
  const auto counters = Find();
  const std::vector<CounterValue> values = counters->Read(1);
  ASSERT_EQ(values.size(), 1U);
  EXPECT_EQ(values[0].source, "devfreq");
  EXPECT_EQ(values[0].name, "dmc");
  EXPECT_DOUBLE_EQ(values[0].value, 2.112e9);
}

TEST_F(CountersTest, OtherDevicesFrequenciesAreNotTheMemorys) {
  tree_.Put("sys/class/devfreq/fde60000.gpu/cur_freq", "800000000\n");
  EXPECT_THAT(SourceOf(*Find(), "devfreq").reason, HasSubstr("none of the 1 devices"));
}

TEST_F(CountersTest, ReadsErrorsTemperaturesFrequenciesAndThrottling) {
  tree_.Put("sys/devices/system/edac/mc/mc0/ce_count", "3\n");
  tree_.Put("sys/devices/system/edac/mc/mc0/ue_count", "0\n");
  tree_.Put("sys/class/thermal/thermal_zone0/temp", "47250\n");
  tree_.Put("sys/class/thermal/thermal_zone0/type", "ddr-thermal\n");
  tree_.Put("sys/class/thermal/cooling_device0/cur_state", "1\n");
  tree_.Put("sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq", "2400000\n");
  tree_.Put("sys/devices/system/cpu/cpu10/cpufreq/scaling_cur_freq", "800000\n");
  tree_.Put("sys/devices/system/cpu/cpu2/cpufreq/scaling_cur_freq", "1200000\n");
  tree_.Put("sys/devices/system/cpu/cpu0/thermal_throttle/core_throttle_count", "12\n");
  const auto counters = Find();
  std::string text;
  for (const CounterValue& value : counters->Read(1)) {
    text += value.source + " " + value.name + " " + std::to_string(value.value) + " " + value.unit + "\n";
  }
  EXPECT_EQ(text,
            "edac mc0/ce_count 3.000000 errors\n"
            "edac mc0/ue_count 0.000000 errors\n"
            "thermal thermal_zone0/ddr-thermal 47.250000 degC\n"
            "cpufreq cpu0 2400.000000 MHz\n"
            "cpufreq cpu2 1200.000000 MHz\n"
            "cpufreq cpu10 800.000000 MHz\n"
            "throttle cpu0 12.000000 events\n");
}

TEST_F(CountersTest, AFileThatCannotBeReadAnyMoreIsLeftOut) {
  const std::string path = tree_.Put("sys/class/thermal/thermal_zone0/temp", "47250\n");
  const auto counters = Find();
  EXPECT_EQ(counters->Read(1).size(), 1U);
  std::filesystem::remove(path);
  EXPECT_THAT(counters->Read(2), IsEmpty());
}

}  // namespace
