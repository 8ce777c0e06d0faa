// SPDX-License-Identifier: Apache-2.0
#include "stress_utils.h"

#include <algorithm>
#include <new>

#include "array_allocations.h"
#include "fixture.h"

namespace {

class RandomCvImgTest : public UnitTest {
 protected:
  void Make(std::uint32_t width, std::int32_t height, std::uint32_t type) {
    ArrayAllocations watch;
    events_.clear();
    try {
      RandomCvImg(width, height, type, buffer_);
    } catch (...) {
      events_ = watch.Events();
      throw;
    }
    events_ = watch.Events();
  }

  void ExpectFault(const std::string& text) {
    EXPECT_EQ(buffer_, nullptr);
    EXPECT_THAT(Errors(), ElementsAre("RandomCvImg() | " + text));
  }

  static constexpr std::size_t kFreed = ArrayAllocations::kFreed;
  std::vector<std::size_t> events_;  ///< the size of each new array, and kFreed for each freed one
  std::unique_ptr<std::uint8_t[]> buffer_;
};

constexpr const char* kYuv420Fault = "For yuv420sp image, width and height should be even number";
constexpr const char* kYuv422Fault = "For yuv422sp or yvu422sp image, width should be even number";

TEST_F(RandomCvImgTest, SizesByImageType) {
  struct Case {
    std::uint32_t type;
    std::size_t bytes;
  };
  for (const Case c :
       {Case{0, 6220800}, Case{1, 6220800}, Case{2, 3110400}, Case{9, 3110400}, Case{10, 6220800},
        Case{11, 6220800}, Case{12, 8294400}, Case{13, 8294400}, Case{14, 8294400}, Case{15, 8294400}}) {
    buffer_.reset();
    Make(1920, 1080, c.type);
    EXPECT_THAT(events_, ElementsAre(c.bytes)) << c.type;
    ASSERT_NE(buffer_, nullptr);
    EXPECT_TRUE(std::all_of(buffer_.get(), buffer_.get() + c.bytes, [](std::uint8_t b) { return b == 0; }));
  }
  EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(RandomCvImgTest, OddSizesFreeTheFormerBuffer) {
  for (const std::uint32_t type : {2U, 10U}) {
    buffer_.reset(new std::uint8_t[1]);
    Make(1921, 1080, type);
    EXPECT_EQ(buffer_, nullptr);
    EXPECT_THAT(events_, ElementsAre(kFreed));
  }
}

TEST_F(RandomCvImgTest, OddWidthOfYuv420) {
  Make(1921, 1080, 2);
  ExpectFault(kYuv420Fault);
}

TEST_F(RandomCvImgTest, OddHeightOfYuv420) {
  Make(1920, 1081, 2);
  ExpectFault(kYuv420Fault);
}

TEST_F(RandomCvImgTest, OddSizeOfTheOtherYuv420) {
  Make(1921, 1081, 9);
  ExpectFault(kYuv420Fault);
}

TEST_F(RandomCvImgTest, OddHeightOfYuv422IsAccepted) {
  Make(1920, 1081, 10);
  EXPECT_THAT(events_, ElementsAre(3U * 1920 * 1081));
  EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(RandomCvImgTest, OddWidthOfYuv422) {
  Make(1921, 1080, 11);
  ExpectFault(kYuv422Fault);
}

TEST_F(RandomCvImgTest, OddSizesOfPackedTypesAreAccepted) {
  Make(1921, 1081, 1);
  EXPECT_THAT(events_, ElementsAre(3U * 1921 * 1081));
  buffer_.reset();
  Make(1921, 1081, 12);
  EXPECT_THAT(events_, ElementsAre(4U * 1921 * 1081));
}

TEST_F(RandomCvImgTest, UnknownTypesFreeTheFormerBuffer) {
  for (const std::uint32_t type : {3U, 4U, 5U, 6U, 7U, 8U, 16U, 17U, 4294967295U}) {
    fakeLog::Reset();
    buffer_.reset(new std::uint8_t[1]);
    Make(1920, 1080, type);
    ExpectFault("Unsported image type");
    EXPECT_THAT(events_, ElementsAre(kFreed));
    EXPECT_THAT(fakePlatform::Names(), IsEmpty());
  }
}

TEST_F(RandomCvImgTest, SizeOfZeroStoresABufferOfNoBytes) {
  Make(0, 1080, 0);
  EXPECT_NE(buffer_, nullptr);
  EXPECT_THAT(events_, ElementsAre(0U));
  buffer_.reset();
  Make(1920, 0, 12);
  EXPECT_NE(buffer_, nullptr);
  EXPECT_THAT(events_, ElementsAre(0U));
  EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(RandomCvImgTest, FormerBufferIsFreedAfterTheNewOneIsAllocated) {
  buffer_.reset(new std::uint8_t[1]);
  Make(2, 2, 2);
  EXPECT_THAT(events_, ElementsAre(6U, kFreed));
}

TEST_F(RandomCvImgTest, FormerBufferIsFreedAfterTheNewOneIsStored) {
  buffer_.reset(new std::uint8_t[1]);
  const std::uint8_t* const former = buffer_.get();
  const std::uint8_t* heldAtFree = nullptr;
  ArrayAllocations watch;
  watch.OnFree([&] { heldAtFree = buffer_.get(); });
  RandomCvImg(2, 2, 2, buffer_);
  EXPECT_THAT(watch.Events(), ElementsAre(6U, kFreed));
  EXPECT_NE(heldAtFree, former);
  EXPECT_EQ(heldAtFree, buffer_.get());
  EXPECT_NE(buffer_, nullptr);
}

TEST_F(RandomCvImgTest, FaultIsLoggedBeforeTheFormerBufferIsFreed) {
  struct Case {
    std::uint32_t type;
    const char* fault;
  };
  for (const Case c : {Case{2, kYuv420Fault}, Case{10, kYuv422Fault}, Case{3, "Unsported image type"}}) {
    fakeLog::Reset();
    buffer_.reset(new std::uint8_t[1]);
    std::vector<std::string> errorsAtFree;
    ArrayAllocations watch;
    watch.OnFree([&] { errorsAtFree = Errors(); });
    RandomCvImg(1921, 1080, c.type, buffer_);
    EXPECT_THAT(watch.Events(), ElementsAre(kFreed));
    EXPECT_THAT(errorsAtFree, ElementsAre(std::string("RandomCvImg() | ") + c.fault));
  }
}

TEST_F(RandomCvImgTest, FailedAllocationKeepsTheFormerBuffer) {
  buffer_.reset(new std::uint8_t[1]);
  const std::uint8_t* former = buffer_.get();
  ArrayAllocations watch;
  watch.Fail(1);
  EXPECT_THROW(RandomCvImg(1920, 1080, 0, buffer_), std::bad_alloc);
  EXPECT_EQ(buffer_.get(), former);
  EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(RandomCvImgTest, ProductWrapsIn32BitsAndIsWidenedWithItsSign) {
  // 3 x 30000 x 30000 = 2,700,000,000 wraps to a negative number, which asks for nearly the whole address
  // space.
  buffer_.reset(new std::uint8_t[1]);
  const std::uint8_t* former = buffer_.get();
  EXPECT_THROW(Make(30000, 30000, 0), std::bad_alloc);
  EXPECT_EQ(buffer_.get(), former);
  EXPECT_THAT(Errors(), IsEmpty());
  // Wraps past zero to a small positive one: 3 x 65536 x 21846 = 4,295,098,368 = 131,072 modulo 2^32.
  buffer_.reset();
  Make(65536, 21846, 0);
  EXPECT_THAT(events_, ElementsAre(131072U));
}

TEST_F(RandomCvImgTest, TheSignedValueIsHalvedTowardsZero) {
  // 3 x w x h wraps to -1,594,967,296; halved it is still negative, so the allocation fails. An unsigned
  // halving would give 1,350,000,000 bytes.
  EXPECT_THROW(Make(30000, 30000, 2), std::bad_alloc);
}

TEST_F(RandomCvImgTest, NegativeHeightAsksForANegativeSize) {
  EXPECT_THROW(Make(1920, -1080, 0), std::bad_alloc);
}

}  // namespace
