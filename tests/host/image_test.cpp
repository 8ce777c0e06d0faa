// SPDX-License-Identifier: Apache-2.0
#include <sys/mman.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform_test.h"

namespace Ormis::test {
namespace {

class ImageTest : public PlatformTest {};
class ImageMemoryTest : public PlatformTest {};

/// Anonymous memory of this process in bytes, without pages that are mapped to the shared zero page.
std::size_t OwnMemory() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word != "RssAnon:") continue;
    std::size_t kilobytes = 0;
    status >> kilobytes;
    return kilobytes * 1024;
  }
  return 0;
}

TEST_F(ImageTest, MallocFillsDataAndDataSizeForEveryType) {
  struct Size {
    std::uint32_t type, width, height, bytes;
  };
  for (const Size& size :
       {Size{0, 5, 3, 45}, Size{1, 1920, 1080, 6220800}, Size{1, 416, 234, 292032}, Size{1, 1, 1, 3},
        Size{2, 1920, 1080, 3110400}, Size{2, 2, 2, 6}, Size{9, 6, 4, 36}, Size{10, 6, 3, 36},
        Size{11, 2, 1, 4}, Size{12, 5, 3, 60}, Size{13, 1, 1, 4}, Size{14, 7, 1, 28}, Size{15, 1, 7, 28}}) {
    ImageData image = Record(size.width, size.height, size.type);
    ASSERT_EQ(QetImageMallocAligned(image), kQetOk) << size.type;
    EXPECT_EQ(image.dataSize, size.bytes) << size.type;
    ASSERT_NE(image.data, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(image.data) % 4096, 0U);
    EXPECT_TRUE(std::all_of(image.data, image.data + size.bytes, [](std::uint8_t b) { return b == 0; }));
    EXPECT_EQ(image.width, size.width);
    EXPECT_EQ(image.height, size.height);
    EXPECT_NE(image.offset00, 0U);
    EXPECT_EQ(image.offset08, "");
    EXPECT_EQ(QetImageDestroy(image), kQetOk);
    EXPECT_EQ(image.offset00, 0U);
    EXPECT_EQ(image.data, nullptr);
    EXPECT_EQ(image.dataSize, 0U);
  }
}

TEST_F(ImageTest, MemoryIsBackedByPagesOfItsOwn) {
  constexpr std::size_t kBytes = std::size_t{64} << 20;
  ImageData image = Record(4096, 4096, kQetImageArgb8888);
  const std::size_t before = OwnMemory();
  ASSERT_NE(before, 0U);
  ASSERT_EQ(QetImageMallocAligned(image), kQetOk);
  ASSERT_EQ(image.dataSize, kBytes);
  EXPECT_GT(OwnMemory(), before + kBytes / 10 * 9);
}

/// The message about a record's size, which ends in "expected" and `expected`.
std::string SizeMessage(const ImageData& image, const std::string& expected, bool namesType = true) {
  return "image of " + std::to_string(image.width) + " x " + std::to_string(image.height) +
         (namesType ? " and type " + std::to_string(image.imageType) : "") + ", expected " + expected;
}

std::string UnknownTypeMessage(std::uint32_t type) {
  return "unknown image type " + std::to_string(type) + ", expected 0 to 2 or 9 to 15";
}

TEST_F(ImageTest, MallocRefusesTypesThatAreNone) {
  for (const std::uint32_t type : {3U, 4U, 5U, 6U, 7U, 8U, 16U, 0x100U, 0xffffffffU}) {
    ImageData image = Record(8, 8, type);
    ExpectFailure(kQetUnsupported, "QetImageMallocAligned", UnknownTypeMessage(type),
                  [&] { return QetImageMallocAligned(image); });
    EXPECT_EQ(image.data, nullptr);
    EXPECT_EQ(image.dataSize, 0U);
  }
}

TEST_F(ImageTest, MallocRefusesSidesOfZero) {
  for (const std::uint32_t type : kAllTypes) {
    for (const auto& [width, height] : {std::pair{0U, 8U}, std::pair{8U, 0U}, std::pair{0U, 0U}}) {
      ImageData image = Record(width, height, type);
      ExpectFailure(kQetInvalidSize, "QetImageMallocAligned",
                    SizeMessage(image, "sides of at least 1", false),
                    [&] { return QetImageMallocAligned(image); });
    }
  }
}

TEST_F(ImageTest, MallocRefusesOddSidesWhereChromaIsHalved) {
  for (const std::uint32_t type : {2U, 9U}) {
    for (const auto& [width, height] : {std::pair{7U, 8U}, std::pair{8U, 7U}, std::pair{1U, 1U}}) {
      ImageData image = Record(width, height, type);
      ExpectFailure(kQetInvalidSize, "QetImageMallocAligned", SizeMessage(image, "an even width and height"),
                    [&] { return QetImageMallocAligned(image); });
    }
  }
  for (const std::uint32_t type : {10U, 11U}) {
    ImageData image = Record(7, 8, type);
    ExpectFailure(kQetInvalidSize, "QetImageMallocAligned", SizeMessage(image, "an even width"),
                  [&] { return QetImageMallocAligned(image); });
    image = Record(8, 7, type);
    EXPECT_EQ(QetImageMallocAligned(image), kQetOk);
  }
}

TEST_F(ImageTest, MallocRefusesSizesThatOverflow) {
  struct Size {
    std::uint32_t type, width, height;
  };
  for (const Size& size :
       {Size{1, 65535, 65537}, Size{1, 65536, 65536}, Size{1, 1431655766, 1}, Size{12, 32768, 32768},
        Size{12, 1073741824, 1}, Size{2, 65536, 65536}, Size{2, 0xfffffffe, 0xfffffffe},
        Size{15, 0xffffffff, 0xffffffff}, Size{12, 0x80000000, 0x80000000}, Size{10, 2147483648, 1},
        Size{1, 0x80000000, 0x80000000}}) {
    ImageData image = Record(size.width, size.height, size.type);
    ExpectFailure(kQetInvalidSize, "QetImageMallocAligned", SizeMessage(image, "at most 4294967295 bytes"),
                  [&] { return QetImageMallocAligned(image); });
    EXPECT_EQ(image.data, nullptr);
  }
}

TEST_F(ImageTest, MallocRefusesBuffersOfTheCallerAndUnknownModes) {
  for (const std::uint32_t mode : {0U, 2U, 0xffffffffU}) {
    ImageData image = Record(8, 8, 1);
    image.bufferMode = mode;
    ExpectFailure(kQetInvalidArgument, "QetImageMallocAligned",
                  "buffer mode " + std::to_string(mode) + ", expected 1, the platform's memory",
                  [&] { return QetImageMallocAligned(image); });
  }
}

TEST_F(ImageTest, MallocRefusesARecordWithMemory) {
  ImageData image = Record(8, 8, 1);
  ASSERT_EQ(QetImageMallocAligned(image), kQetOk);
  std::uint8_t* const data = image.data;
  ExpectFailure(kQetInvalidArgument, "QetImageMallocAligned", "the record has data already, expected none",
                [&] { return QetImageMallocAligned(image); });
  EXPECT_EQ(image.data, data);
}

#if !defined(STRESS_ADDRESS_SANITIZER) && !defined(STRESS_THREAD_SANITIZER)
// The largest image is tested here, where it needs no 4 GiB: that memory is asked for shows that the size is
// accepted. One byte more is refused before (MallocRefusesSizesThatOverflow).
TEST_F(ImageMemoryTest, MallocWithoutMemoryAnswersACode) {
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_AS, &saved), 0);
  rlimit small = saved;
  small.rlim_cur = rlim_t{1} << 30;
  ASSERT_EQ(setrlimit(RLIMIT_AS, &small), 0);
  ImageData image = Record(32768, 32767, kQetImageArgb8888);
  ExpectFailure(kQetOutOfMemory, "QetImageMallocAligned",
                "no memory for an image of 32768 x 32767, 4294836224 bytes",
                [&] { return QetImageMallocAligned(image); });
  EXPECT_EQ(image.data, nullptr);
  EXPECT_EQ(image.dataSize, 0U);
  ImageData largest = Record(65537, 21845, kQetImageBgr888);
  ExpectFailure(kQetOutOfMemory, "QetImageMallocAligned",
                "no memory for an image of 65537 x 21845, 4294967295 bytes",
                [&] { return QetImageMallocAligned(largest); });
  ASSERT_EQ(setrlimit(RLIMIT_AS, &saved), 0);
}
#endif

TEST_F(ImageTest, DestroyTwiceIsRefused) {
  ImageData image = Record(8, 8, 1);
  ASSERT_EQ(QetImageMallocAligned(image), kQetOk);
  ImageData copy = image;
  ASSERT_EQ(QetImageDestroy(image), kQetOk);
  ExpectFailure(kQetUnknownBuffer, "QetImageDestroy", kUnknownImageMessage,
                [&] { return QetImageDestroy(image); });
  ExpectFailure(kQetUnknownBuffer, "QetImageDestroy", kUnknownImageMessage,
                [&] { return QetImageDestroy(copy); });
  EXPECT_NE(copy.data, nullptr);
}

TEST_F(ImageTest, DestroyRefusesForeignMemory) {
  std::vector<std::uint8_t> own(192);
  ImageData image = Record(8, 8, 1);
  ExpectFailure(kQetUnknownBuffer, "QetImageDestroy", kUnknownImageMessage,
                [&] { return QetImageDestroy(image); });
  image.data = own.data();
  ExpectFailure(kQetUnknownBuffer, "QetImageDestroy", kUnknownImageMessage,
                [&] { return QetImageDestroy(image); });
  ImageData inside = Record(8, 8, 1);
  ASSERT_EQ(QetImageMallocAligned(inside), kQetOk);
  image.data = inside.data + 1;
  ExpectFailure(kQetUnknownBuffer, "QetImageDestroy", kUnknownImageMessage,
                [&] { return QetImageDestroy(image); });
  EXPECT_EQ(QetImageDestroy(inside), kQetOk);
}

// An allocator usually returns the memory that was freed last for the next image of the same size.
TEST_F(ImageTest, AStaleRecordIsRefusedWhenItsMemoryBelongsToSomebodyElse) {
  ImageData stale;
  std::vector<ImageData> others;
  for (int i = 0; i < 1000 && stale.data == nullptr; ++i) {
    ImageData image = Record(64, 48, 1);
    ASSERT_EQ(QetImageMallocAligned(image), kQetOk);
    const ImageData copy = image;
    ASSERT_EQ(QetImageDestroy(image), kQetOk);
    ImageData& other = others.emplace_back(Record(64, 48, 1));
    ASSERT_EQ(QetImageMallocAligned(other), kQetOk);
    if (other.data == copy.data) stale = copy;
  }
  if (stale.data == nullptr) GTEST_SKIP() << "this allocator keeps what was freed";
  ImageData& owner = others.back();
  ExpectFailure(kQetUnknownBuffer, "QetMemcpyToKivu", kUnknownDestinationMessage,
                [&] { return QetMemcpyToKivu(owner, stale); });
  ExpectFailure(kQetUnknownBuffer, "QetMemcpyToKivu", kUnknownSourceMessage,
                [&] { return QetMemcpyToKivu(stale, owner); });
  ExpectFailure(kQetUnknownBuffer, "QetImageDestroy", kUnknownImageMessage,
                [&] { return QetImageDestroy(stale); });
  EXPECT_NE(stale.data, nullptr);
  EXPECT_EQ(QetMemcpyToKivu(owner, owner), kQetOk);
  EXPECT_EQ(QetImageDestroy(owner), kQetOk);
}

TEST_F(ImageTest, ARecordWithTheAddressAloneIsRefused) {
  ImageData image = Record(8, 8, 1);
  ASSERT_EQ(QetImageMallocAligned(image), kQetOk);
  ImageData made = Record(8, 8, 1);
  made.data = image.data;
  made.dataSize = image.dataSize;
  ExpectFailure(kQetUnknownBuffer, "QetMemcpyToKivu", kUnknownDestinationMessage,
                [&] { return QetMemcpyToKivu(image, made); });
  ExpectFailure(kQetUnknownBuffer, "QetImageDestroy", kUnknownImageMessage,
                [&] { return QetImageDestroy(made); });
  ImageData moved = image;
  moved.data = nullptr;
  ExpectFailure(kQetUnknownBuffer, "QetImageDestroy", kUnknownImageMessage,
                [&] { return QetImageDestroy(moved); });
  EXPECT_EQ(QetImageDestroy(image), kQetOk);
}

TEST_F(ImageTest, MemcpyWithOneRecordKeepsThePixelsAndTheRecordUsable) {
  int channel = 0;
  ASSERT_EQ(QetCreateChannel(channel), kQetOk);
  ImageData source = Record(31, 17, 1);  // 1581 bytes, which is no multiple of a word
  ImageData destination = Record(5, 3, 1);
  ASSERT_EQ(QetImageMallocAligned(source), kQetOk);
  for (std::uint32_t i = 0; i < source.dataSize; ++i) source.data[i] = static_cast<std::uint8_t>(i * 7);
  const std::vector<std::uint8_t> before(source.data, source.data + source.dataSize);
  EXPECT_EQ(QetMemcpyToKivu(source, source), kQetOk);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), source.data));
  ImageData copy = source;
  EXPECT_EQ(QetMemcpyToKivu(copy, source), kQetOk);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), source.data));
  ASSERT_EQ(QetImageMallocAligned(destination), kQetOk);
  EXPECT_EQ(QetImageResize(channel, source, destination, kQetInterpolationArea, -1), kQetOk);
}

/// Counts the pages of `memory` that are written while it exists. `memory` starts at a page. One object at a
/// time.
class WrittenPages {
 public:
  WrittenPages(std::uint8_t* memory, std::size_t bytes) {
    begin_ = memory;
    pages_ = (bytes + kPageBytes - 1) / kPageBytes;
    count_ = 0;
    struct sigaction action{};
    action.sa_sigaction = OnWrite;
    action.sa_flags = SA_SIGINFO;
    EXPECT_EQ(sigaction(SIGSEGV, &action, &saved_), 0);
    Protect(PROT_READ);
  }
  ~WrittenPages() {
    Protect(PROT_READ | PROT_WRITE);
    EXPECT_EQ(sigaction(SIGSEGV, &saved_, nullptr), 0);
  }
  WrittenPages(const WrittenPages&) = delete;
  WrittenPages& operator=(const WrittenPages&) = delete;

  static std::size_t Count() { return count_; }
  static constexpr std::size_t kPageBytes = 4096;

 private:
  // A page that is not mapped needs no protection: a write to it ends the test anyway.
  static void Protect(int protection) {
    if (mprotect(begin_, pages_ * kPageBytes, protection) != 0) EXPECT_EQ(errno, ENOMEM);
  }

  static void OnWrite(int, siginfo_t* info, void*) {
    const auto at = reinterpret_cast<std::uintptr_t>(info->si_addr);
    const auto begin = reinterpret_cast<std::uintptr_t>(begin_);
    if (at < begin || at >= begin + pages_ * kPageBytes) std::abort();
    ++count_;
    const std::uintptr_t page = (at - begin) / kPageBytes * kPageBytes;
    if (mprotect(begin_ + page, kPageBytes, PROT_READ | PROT_WRITE) != 0) std::abort();
  }

  static inline std::uint8_t* begin_ = nullptr;
  static inline std::size_t pages_ = 0;
  static inline volatile std::size_t count_ = 0;
  struct sigaction saved_{};
};

// The copy of an image onto itself changes no pixel, but it has to write them: it is there to load the
// memory.
TEST_F(ImageTest, MemcpyWithOneRecordWritesEveryPage) {
  ImageData image = Record(54614, 1, kQetImageBgr888);
  ASSERT_EQ(QetImageMallocAligned(image), kQetOk);
  ASSERT_EQ(image.dataSize, 40 * WrittenPages::kPageBytes + 2);  // the last page holds less than a word
  const WrittenPages written(image.data, image.dataSize);
  EXPECT_EQ(QetMemcpyToKivu(image, image), kQetOk);
  EXPECT_EQ(WrittenPages::Count(), 41U);
}

TEST_F(ImageTest, MemcpyWithOneRecordWritesNothingBeyondTheImage) {
  ImageData image = Record(40960, 1, kQetImageArgb8888);
  ASSERT_EQ(QetImageMallocAligned(image), kQetOk);
  ASSERT_EQ(image.dataSize, 40 * WrittenPages::kPageBytes);
  const WrittenPages written(image.data, image.dataSize + 1);
  EXPECT_EQ(QetMemcpyToKivu(image, image), kQetOk);
  EXPECT_EQ(WrittenPages::Count(), 40U);
}

TEST_F(ImageTest, MemcpyCopiesFromPlatformAndFromUserMemory) {
  for (const std::uint32_t type : kAllTypes) {
    ImageData destination = Record(6, 4, type);
    ImageData source = Record(6, 4, type);
    ASSERT_EQ(QetImageMallocAligned(destination), kQetOk);
    ASSERT_EQ(QetImageMallocAligned(source), kQetOk);
    std::memset(source.data, 0x11, source.dataSize);
    EXPECT_EQ(QetMemcpyToKivu(source, destination), kQetOk);
    EXPECT_EQ(std::memcmp(destination.data, source.data, source.dataSize), 0);

    std::vector<std::uint8_t> own(source.dataSize, 0x22);
    ImageData user = Record(6, 4, type);
    user.bufferMode = kQetBufferUser;
    user.data = own.data();
    user.dataSize = source.dataSize;
    EXPECT_EQ(QetMemcpyToKivu(user, destination), kQetOk);
    EXPECT_EQ(std::memcmp(destination.data, own.data(), own.size()), 0);
  }
}

TEST_F(ImageTest, MemcpyRefusesWhatDoesNotFit) {
  ImageData destination = Record(8, 8, 1);
  ASSERT_EQ(QetImageMallocAligned(destination), kQetOk);
  std::vector<std::uint8_t> own(192);
  ImageData user = Record(8, 8, 1);
  user.bufferMode = kQetBufferUser;
  const auto copy = [&] { return QetMemcpyToKivu(user, destination); };
  ExpectFailure(kQetInvalidArgument, "QetMemcpyToKivu", "source without data, expected the caller's pixels",
                copy);
  user.data = own.data();
  user.dataSize = 191;
  ExpectFailure(kQetInvalidSize, "QetMemcpyToKivu", "source of 191 bytes, expected 192 for 8 x 8 of type 1",
                copy);
  user.dataSize = 192;
  EXPECT_EQ(copy(), kQetOk);
  user.width = 7;
  ExpectFailure(kQetInvalidSize, "QetMemcpyToKivu", "source of 7 x 8, expected the destination's 8 x 8",
                copy);
  user.width = 0;
  ExpectFailure(kQetInvalidSize, "QetMemcpyToKivu", SizeMessage(user, "sides of at least 1", false), copy);
  user.width = 8;
  user.imageType = 0;
  ExpectFailure(kQetInvalidArgument, "QetMemcpyToKivu", "source of type 0, expected the destination's 1",
                copy);
  user.imageType = 5;
  ExpectFailure(kQetUnsupported, "QetMemcpyToKivu", UnknownTypeMessage(5), copy);
  user.imageType = 1;
  user.bufferMode = 2;
  ExpectFailure(kQetInvalidArgument, "QetMemcpyToKivu",
                "source with buffer mode 2, expected 1, the platform's memory", copy);
  user.bufferMode = kQetBufferPlatform;
  ExpectFailure(kQetUnknownBuffer, "QetMemcpyToKivu", kUnknownSourceMessage, copy);
}

TEST_F(ImageTest, MemcpyChecksTheDestination) {
  ImageData source = Record(8, 8, 1);
  ASSERT_EQ(QetImageMallocAligned(source), kQetOk);
  std::vector<std::uint8_t> own(192);
  ImageData destination = Record(8, 8, 1);
  const auto copy = [&] { return QetMemcpyToKivu(source, destination); };
  ExpectFailure(kQetUnknownBuffer, "QetMemcpyToKivu", kUnknownDestinationMessage, copy);
  destination.data = own.data();
  destination.dataSize = 192;
  ExpectFailure(kQetUnknownBuffer, "QetMemcpyToKivu", kUnknownDestinationMessage, copy);
  destination.bufferMode = kQetBufferUser;
  ExpectFailure(kQetInvalidArgument, "QetMemcpyToKivu",
                "destination with buffer mode 0, expected 1, the platform's memory", copy);
  ImageData gone = source;
  ASSERT_EQ(QetImageDestroy(source), kQetOk);
  ExpectFailure(kQetUnknownBuffer, "QetMemcpyToKivu", kUnknownDestinationMessage,
                [&] { return QetMemcpyToKivu(gone, gone); });
}

// A record that was changed no longer describes its memory.
TEST_F(ImageTest, RecordsChangedAfterTheAllocationAreRefused) {
  ImageData image = Record(8, 8, 1);
  ASSERT_EQ(QetImageMallocAligned(image), kQetOk);
  for (std::uint32_t ImageData::* const field :
       {&ImageData::width, &ImageData::height, &ImageData::dataSize}) {
    for (const std::uint32_t value : {0U, 7U, 9U, 4000U, 0xffffffffU}) {
      ImageData changed = image;
      changed.*field = value;
      ExpectFailure(kQetInvalidSize, "QetMemcpyToKivu",
                    "destination of " + std::to_string(changed.width) + " x " +
                        std::to_string(changed.height) + " and " + std::to_string(changed.dataSize) +
                        " bytes, expected 8 x 8 and 192 bytes as it was allocated",
                    [&] { return QetMemcpyToKivu(changed, changed); });
    }
  }
  ImageData changed = image;
  changed.imageType = kQetImageArgb8888;
  ExpectFailure(kQetInvalidArgument, "QetMemcpyToKivu",
                "destination of type 12, expected 1 as it was allocated",
                [&] { return QetMemcpyToKivu(changed, changed); });
  changed.width = 4000;
  EXPECT_EQ(QetImageDestroy(changed), kQetOk);
}

TEST_F(ImageTest, FortyThreadsAllocateCopyAndDestroy) {
  std::vector<std::thread> threads;
  threads.reserve(40);
  for (int i = 0; i < 40; ++i) {
    threads.emplace_back([i] {
      const ThreadContext context;
      for (int round = 0; round < 20; ++round) {
        ImageData image = Record(64, 48, kAllTypes[(i + round) % 10]);
        ASSERT_EQ(QetImageMallocAligned(image), kQetOk);
        EXPECT_TRUE(
            std::all_of(image.data, image.data + image.dataSize, [](std::uint8_t b) { return b == 0; }));
        std::memset(image.data, i, image.dataSize);
        ASSERT_EQ(QetMemcpyToKivu(image, image), kQetOk);
        EXPECT_TRUE(
            std::all_of(image.data, image.data + image.dataSize, [i](std::uint8_t b) { return b == i; }));
        ASSERT_EQ(QetImageDestroy(image), kQetOk);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace Ormis::test
