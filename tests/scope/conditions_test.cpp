// SPDX-License-Identifier: Apache-2.0
#include "conditions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "configuration.h"
#include "errors.h"
#include "temporary_folder.h"

namespace {

using scope::Conditions;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;

void PutCache(const TemporaryFolder& tree, int cpu, int index, const std::string& level,
              const std::string& type, const std::string& size, const std::string& shared) {
  const std::string folder =
      "sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/cache/index" + std::to_string(index) + "/";
  tree.Put(folder + "level", level + "\n");
  tree.Put(folder + "type", type + "\n");
  tree.Put(folder + "size", size + "\n");
  tree.Put(folder + "shared_cpu_list", shared + "\n");
}

TEST(Conditions, OfAMachineThatTellsNothingAreEmpty) {
  const TemporaryFolder tree;
  const Conditions conditions = scope::ReadConditions(tree.Path());
  EXPECT_EQ(conditions.cpuModel, "");
  EXPECT_EQ(conditions.cpuCount, 0);
  EXPECT_EQ(conditions.memTotalBytes, 0U);
  EXPECT_EQ(conditions.hostnameHash, "");
  EXPECT_THAT(conditions.caches, IsEmpty());
  EXPECT_THAT(conditions.loadAverage, IsEmpty());
}

TEST(Conditions, OfAMachineWithTwoCores) {
  const TemporaryFolder tree;
  tree.Put("proc/cpuinfo", "processor\t: 0\nmodel name\t: Some CPU @ 2.00GHz\n\nprocessor\t: 1\n");
  tree.Put("proc/meminfo", "MemTotal:       24684092 kB\nMemFree:  1 kB\n");
  tree.Put("proc/loadavg", "0.50 1.25 2.00 3/400 12345\n");
  tree.Put("proc/sys/kernel/osrelease", "6.1.0-18-amd64\n");
  tree.Put("proc/sys/kernel/hostname", "board7\n");
  tree.Put("sys/devices/system/cpu/cpufreq/boost", "1\n");
  for (const int cpu : {0, 1}) {
    PutCache(tree, cpu, 0, "1", "Data", "48K", std::to_string(cpu));
    PutCache(tree, cpu, 3, "3", "Unified", "32M", "0-1");
    const std::string folder = "sys/devices/system/cpu/cpu" + std::to_string(cpu) + "/cpufreq/";
    tree.Put(folder + "scaling_governor", cpu == 0 ? "performance\n" : "powersave\n");
    tree.Put(folder + "cpuinfo_min_freq", cpu == 0 ? "800000\n" : "600000\n");
    tree.Put(folder + "cpuinfo_max_freq", "2400000\n");
  }
  const Conditions conditions = scope::ReadConditions(tree.Path() + "/");
  EXPECT_EQ(conditions.cpuModel, "Some CPU @ 2.00GHz");
  EXPECT_EQ(conditions.cpuCount, 2);
  EXPECT_EQ(conditions.governor, "performance,powersave");
  EXPECT_DOUBLE_EQ(conditions.cpuMhz.least, 600);
  EXPECT_DOUBLE_EQ(conditions.cpuMhz.most, 2400);
  EXPECT_EQ(conditions.memTotalBytes, 24684092ULL * 1024);
  EXPECT_EQ(conditions.kernel, "6.1.0-18-amd64");
  EXPECT_THAT(conditions.loadAverage, ElementsAre(0.5, 1.25, 2));
  EXPECT_EQ(conditions.hostnameHash.size(), 16U);
  EXPECT_EQ(conditions.hostnameHash.find("board7"), std::string::npos);
  ASSERT_EQ(conditions.caches.size(), 2U);
  EXPECT_EQ(conditions.caches[0].bytes, 48U << 10);
  EXPECT_EQ(conditions.caches[0].instances, 2);
  EXPECT_EQ(conditions.caches[1].bytes, 32U << 20);
  EXPECT_EQ(conditions.caches[1].instances, 1);
}

TEST(Conditions, CountsTheCpusThatAreOnline) {
  const TemporaryFolder tree;
  for (const char* cpu : {"cpu0", "cpu1", "cpu2", "cpu3"})
    tree.Put(std::string("sys/devices/system/cpu/") + cpu + "/uevent", "");
  EXPECT_EQ(scope::ReadConditions(tree.Path()).cpuCount, 4);
  for (const auto& [list, count] :
       {std::pair("0-2", 3), std::pair("0,2-3\n", 3), std::pair("1", 1), std::pair("x", 4)}) {
    tree.Put("sys/devices/system/cpu/online", list);
    EXPECT_EQ(scope::ReadConditions(tree.Path()).cpuCount, count) << list;
  }
}

TEST(Conditions, OnArmTheDeviceTreeNamesTheBoard) {
  const TemporaryFolder tree;
  tree.Put("proc/cpuinfo", "processor\t: 0\nCPU implementer\t: 0x41\nCPU part\t: 0xd42\n");
  EXPECT_EQ(scope::ReadConditions(tree.Path()).cpuModel, "implementer 0x41 part 0xd42");
  tree.Put("proc/device-tree/model", std::string("A Board\0", 8));
  EXPECT_EQ(scope::ReadConditions(tree.Path()).cpuModel, "A Board");
}

TEST(LibraryVersions, AreThoseThatMatterAndThePlatformsNeighbours) {
  const TemporaryFolder folder;
  const std::string maps = folder.Put("maps",
                                      "7f00-7f01 r-xp 00000000 08:01 1   /opt/vendor/libormis.so.2.5\n"
                                      "7f00-7f01 r-xp 00000000 08:01 1   /opt/vendor/libdriver.so\n"
                                      "7f00-7f01 r-xp 00000000 08:01 1   /usr/lib/libavcodec.so.59.37.100\n"
                                      "7f00-7f01 r-xp 00000000 08:01 1   /usr/lib/libavcodec.so.59.37.100\n"
                                      "7f00-7f01 r-xp 00000000 08:01 1   /usr/lib/libgsm.so.1.0\n"
                                      "7f00-7f01 rw-p 00000000 00:00 0   [heap]\n");
  EXPECT_THAT(scope::LibraryVersions(maps, "/opt/vendor/libormis.so.2"),
              ElementsAre(Pair("libavcodec", "59.37.100"), Pair("libdriver", "libdriver.so"),
                          Pair("libormis", "2.5")));
  EXPECT_THAT(scope::LibraryVersions(folder / "none", ""), IsEmpty());
}

TEST(LibraryVersions, LeaveOutTheSystemsWhereThePlatformIsAmongThem) {
  const TemporaryFolder folder;
  const std::string maps = folder.Put("maps",
                                      "7f00-7f01 r-xp 00000000 08:01 1   /usr/lib/libormis.so.1.0.0\n"
                                      "7f00-7f01 r-xp 00000000 08:01 1   /usr/lib/libgsm.so.1.0\n"
                                      "7f00-7f01 r-xp 00000000 08:01 1   /usr/lib/libc.so.6\n");
  EXPECT_THAT(scope::LibraryVersions(maps, "/usr/lib/libormis.so.1"),
              ElementsAre(Pair("libc", "6"), Pair("libormis", "1.0.0")));
}

TEST(ReadConfiguration, HasTheLevelsAndTheRunTimeThatTheBenchmarkMakesOfIt) {
  const TemporaryFolder folder;
  unsigned int runTimeS = 0;
  const auto config = scope::ReadConfiguration(
      folder.Put("c.yaml", "runTimes: 55\nCPU:\n  Level: 2\nAIC:\n  Level: 0\n  File: x\nVENC:\n  File: y\n"),
      runTimeS);
  EXPECT_EQ(runTimeS, 55U);
  EXPECT_THAT(config.levels, ElementsAre(Pair("cpu", 2), Pair("aic", 0)));
  EXPECT_THAT(config.settings,
              ElementsAre(Pair("AIC.File", "x"), Pair("VENC.File", "y"), Pair("runTimes", "55")));
  EXPECT_THAT(config.text, HasSubstr("runTimes: 55\n"));
  (void)scope::ReadConfiguration(folder.Put("short.yaml", "runTimes: 5\n"), runTimeS);
  EXPECT_EQ(runTimeS, 40U);
  EXPECT_EQ(scope::ReadConfiguration(folder.Put("empty.yaml", ""), runTimeS).levels.size(), 0U);
  (void)scope::ReadConfiguration(folder.Put("none.yaml", "CPU:\n  Level: 1\n"), runTimeS);
  EXPECT_EQ(runTimeS, 40U);
}

TEST(ReadConfiguration, RefusesWhatTheBenchmarkCannotRead) {
  const TemporaryFolder folder;
  unsigned int runTimeS = 0;
  EXPECT_THROW((void)scope::ReadConfiguration(folder / "missing.yaml", runTimeS), scope::UserError);
  EXPECT_THROW((void)scope::ReadConfiguration(folder.Path(), runTimeS), scope::UserError);
  EXPECT_THROW((void)scope::ReadConfiguration(folder.Put("bad.yaml", "CPU: [1, 2\n"), runTimeS),
               scope::UserError);
}

}  // namespace
