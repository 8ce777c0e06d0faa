// SPDX-License-Identifier: Apache-2.0
#include "memory_limit.h"

#include <dlfcn.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <vector>

#include "failing_memory.h"
#include "platform_test.h"

namespace {

/// Bytes of memory that the machine pretends to have; 0: what it has.
std::uint64_t pretendedBytes = 0;
bool nothingIsKnown = false;
int asked = 0;

}  // namespace

extern "C" __attribute__((visibility("default"))) int sysinfo(struct sysinfo* info) noexcept {
  static const auto real = reinterpret_cast<int (*)(struct sysinfo*)>(dlsym(RTLD_NEXT, "sysinfo"));
  if (nothingIsKnown) return -1;
  const int result = real(info);
  if (pretendedBytes != 0) {
    ++asked;
    info->totalram = pretendedBytes / 16;
    info->mem_unit = 16;
  }
  return result;
}

namespace Ormis::test {
namespace {

namespace fs = std::filesystem;

/// While one exists, the machine has this much memory.
struct PretendedMemory {
  explicit PretendedMemory(std::uint64_t bytes) {
    pretendedBytes = bytes;
    asked = 0;
  }
  ~PretendedMemory() { pretendedBytes = 0; }
};

constexpr std::uint64_t kMachine = std::uint64_t{64} << 30U;

class MemoryLimitTest : public testing::Test {
 protected:
  ~MemoryLimitTest() override { fs::remove_all(root_); }

  void Write(const fs::path& file, const std::string& text) const {
    fs::create_directories((root_ / file).parent_path());
    std::ofstream(root_ / file) << text << '\n';
  }
  std::uint64_t Limit() const { return portable::MemoryLimit(root_); }

  const fs::path root_ = fs::temp_directory_path() / ("memory_limit_test_" + std::to_string(getpid()));
  const PretendedMemory machine_{kMachine};
};

TEST_F(MemoryLimitTest, WithoutGroupsTheMachineIsTheLimit) {
  EXPECT_EQ(Limit(), kMachine);
  Write("proc/self/cgroup", "no colon\none:colon\n0::/none\n4:memory:/none");
  EXPECT_EQ(Limit(), kMachine);
}

TEST_F(MemoryLimitTest, TheSmallestLimitOfTheGroupAndThoseAboveItCounts) {
  Write("proc/self/cgroup", "0::/a/b");
  Write("sys/fs/cgroup/a/b/memory.max", "max");
  EXPECT_EQ(Limit(), kMachine);
  Write("sys/fs/cgroup/a/memory.max", "3000000");
  EXPECT_EQ(Limit(), 3000000U);
  Write("sys/fs/cgroup/a/b/memory.max", "2000000");
  EXPECT_EQ(Limit(), 2000000U);
  Write("sys/fs/cgroup/memory.max", "1000000");
  EXPECT_EQ(Limit(), 1000000U);
}

TEST_F(MemoryLimitTest, AContainerSeesItsGroupAtTheTop) {
  Write("proc/self/cgroup", "0::/");
  Write("sys/fs/cgroup/memory.max", "5000000");
  EXPECT_EQ(Limit(), 5000000U);
  Write("proc/self/cgroup", "0::/the/path/on/the/host");
  EXPECT_EQ(Limit(), 5000000U);
}

TEST_F(MemoryLimitTest, GroupsOfVersionOneCount) {
  Write("proc/self/cgroup", "7:cpu,memory:/a\n3:memoryless:/c\n2:cpuset:/d\n0::/");
  Write("sys/fs/cgroup/memory/a/memory.limit_in_bytes", "7000000");
  Write("sys/fs/cgroup/memory/c/memory.limit_in_bytes", "1");
  Write("sys/fs/cgroup/memory/memory.limit_in_bytes", "9223372036854771712");
  EXPECT_EQ(Limit(), 7000000U);
}

TEST_F(MemoryLimitTest, TheControllerOfMemoryIsFoundAnywhereInItsList) {
  for (const char* const list : {"memory", "memory,cpu", "cpu,memory,pids", "cpu,memory"}) {
    Write("proc/self/cgroup", std::string("7:") + list + ":/a");
    Write("sys/fs/cgroup/memory/a/memory.limit_in_bytes", "7000000");
    EXPECT_EQ(Limit(), 7000000U) << list;
  }
}

TEST_F(MemoryLimitTest, LinesThatAreNoneAndGroupsWithoutASlashAreNoTrouble) {
  Write("sys/fs/cgroup/memory/memory.limit_in_bytes", "1");
  Write("sys/fs/cgroup/memory.max", "5000000");
  Write("proc/self/cgroup", "memory\n7:memory\n");
  EXPECT_EQ(Limit(), kMachine);
  Write("proc/self/cgroup", "0::a\n");
  EXPECT_EQ(Limit(), 5000000U);
  Write("proc/self/cgroup", "0::/a/\n");
  Write("sys/fs/cgroup/a/memory.max", "4000000");
  EXPECT_EQ(Limit(), 4000000U);
}

TEST_F(MemoryLimitTest, WhereTheMachineDoesNotSayTheGroupsCount) {
  nothingIsKnown = true;
  EXPECT_EQ(Limit(), UINT64_MAX);
  Write("proc/self/cgroup", "0::/");
  Write("sys/fs/cgroup/memory.max", "5000000");
  EXPECT_EQ(Limit(), 5000000U);
  nothingIsKnown = false;
}

// Makes each allocation fail in turn: a limit that is overlooked for want of memory would be a wrong answer.
TEST_F(MemoryLimitTest, WantOfMemoryIsNotTheEndOfTheGroups) {
  if (!FailingMemory::kWorks) GTEST_SKIP() << FailingMemory::kWhyNot;
  const std::string group = "/a/group/whose/name/takes/more/than/a/string/holds/in/itself";
  Write("proc/self/cgroup", "7:a,list,of,controllers,which,is/long:/none\n0::" + group);
  Write("sys/fs/cgroup" + group + "/memory.max", "3000000");
  const std::string root = root_;
  std::size_t faults = 0;
  for (;; ++faults) {
    ASSERT_LT(faults, 1000U);
    const FailingMemory memory(faults + 1);
    std::uint64_t limit = 3000000;
    try {
      limit = portable::MemoryLimit(root);
    } catch (const std::bad_alloc&) {
      continue;
    }
    EXPECT_EQ(limit, 3000000U) << "allocation " << faults + 1;
    if (!memory.Fired()) break;
  }
  EXPECT_GT(faults, 3U);
}

TEST_F(MemoryLimitTest, AGroupWithMoreThanTheMachineIsNoLimit) {
  Write("proc/self/cgroup", "0::/");
  Write("sys/fs/cgroup/memory.max", "9223372036854771712");
  EXPECT_EQ(Limit(), kMachine);
}

class ImageLimitTest : public PlatformTest {};

TEST_F(ImageLimitTest, AllImagesTogetherTakeHalfOfTheMemory) {
  const PretendedMemory machine(std::uint64_t{1} << 20U);
  std::vector<ImageData> images(2, Record(512, 512, 0));  // 768 KiB
  const auto expectRefused = [](ImageData& image, const std::string& bytes, const std::string& others,
                                const std::string& most) {
    ExpectFailure(kQetOutOfMemory, "QetImageMallocAligned",
                  "no memory for an image of " + bytes + " bytes beside " + others +
                      " of other images, expected at most " + most +
                      " in all: half of the memory of the machine, or of this process's control group",
                  [&] { return QetImageMallocAligned(image); });
  };
  expectRefused(images[0], "786432", "0", "524288");
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(images[0].data, nullptr);
  images.assign(2, Record(512, 256, 0));  // 384 KiB
  ASSERT_EQ(QetImageMallocAligned(images[0]), kQetOk);
  expectRefused(images[1], "393216", "393216", "524288");
  {
    const PretendedMemory smaller(std::uint64_t{1} << 18U);
    expectRefused(images[1], "393216", "393216", "131072");
  }
  const PretendedMemory machineAgain(std::uint64_t{1} << 20U);
  ASSERT_EQ(QetImageDestroy(images[0]), kQetOk);
  EXPECT_EQ(QetImageMallocAligned(images[1]), kQetOk) << "what was freed no longer counts";
  ImageData rest = Record(512, 64, kQetImageArgb8888);  // 128 KiB: all that is left
  EXPECT_EQ(QetImageMallocAligned(rest), kQetOk);
  ImageData more = Record(1, 1, 0);
  ExpectFailure(kQetOutOfMemory, "QetImageMallocAligned",
                "no memory for an image of 3 bytes beside 524288 of other images, expected at most 524288 in "
                "all: half of the memory of the machine, or of this process's control group",
                [&] { return QetImageMallocAligned(more); });
}

/// Makes a record as `Record{}` in memory that is full of other bytes. Expects the bytes of `padding` to be
/// zero.
template <typename AnyRecord>
void ExpectZeroPadding(std::size_t padding) {
  alignas(AnyRecord) unsigned char memory[sizeof(AnyRecord)];
  std::fill(std::begin(memory), std::end(memory), static_cast<unsigned char>(0xA5));
  asm volatile("" : : "r"(memory) : "memory");  // or the compiler leaves the writes out
  auto* const record = new (memory) AnyRecord{};
  asm volatile("" : : "r"(memory) : "memory");
  for (std::size_t i = padding; i < padding + 4; ++i) EXPECT_EQ(memory[i], 0) << i;
  record->~AnyRecord();
}

TEST(RecordTest, PaddingIsZero) {
  ExpectZeroPadding<ImageData>(0x34);
  ExpectZeroPadding<QetContext>(0x24);
  ExpectZeroPadding<QetContextParameters>(0x1C);
  ExpectZeroPadding<QetVenc>(0xFC);
  ExpectZeroPadding<QetVenc>(0x11C);
}

}  // namespace
}  // namespace Ormis::test
