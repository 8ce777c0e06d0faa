// SPDX-License-Identifier: Apache-2.0
#include "kivu_vpc_stress.h"

#include <cstring>
#include <set>

#include "array_allocations.h"
#include "fixture.h"
#include "image_requests.h"

namespace {

std::uint32_t WordAt(const fakePlatform::ImageBytes& bytes, std::size_t offset) {
  std::uint32_t word = 0;
  std::memcpy(&word, bytes.data() + offset, sizeof word);
  return word;
}

class VpcStressTest : public UnitTest {
 protected:
  std::int32_t RunCycles(int cycles) {
    fakePlatform::OnCall("QetImageResize", [this, cycles](int n) {
      if (n == cycles) stop_ = 1;
    });
    return VPCResize(record_, index_, stop_);
  }

  std::unique_ptr<vorn::StressRegister> record_ = MakeRecord(8, 0);
  int index_ = 3;
  volatile int stop_ = 0;
};

const std::vector<std::string> kSetUp = {"QetCreateContext", "QetSetCurrentContext",
                                         "QetCreateChannel", "QetImageMallocAligned",
                                         "QetMemcpyToKivu",  "QetImageMallocAligned"};

std::vector<std::string> Then(std::vector<std::string> calls, const std::vector<std::string>& more) {
  calls.insert(calls.end(), more.begin(), more.end());
  return calls;
}

TEST_F(VpcStressTest, LevelZeroLogsItsLineAndStartsNothing) {
  auto record = MakeRecord(0, 100);
  std::vector<std::thread> threads;
  runVpcStress(record, threads, stop_);
  EXPECT_THAT(threads, IsEmpty());
  EXPECT_THAT(Infos(), ElementsAre("runVpcStress() | KIVU VPC threadNum: 0 , resize Process start..."));
}

TEST_F(VpcStressTest, StartsOneWorkerPerLevelWithItsIndexAsTheWantedChannel) {
  auto record = MakeRecord(4, 100);
  std::vector<std::thread> threads;
  runVpcStress(record, threads, stop_);
  EXPECT_EQ(threads.size(), 4U);
  while (fakePlatform::CountOf("QetImageResize") < 20) std::this_thread::yield();
  stop_ = 1;
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(Infos(), ElementsAre("runVpcStress() | KIVU VPC threadNum: 4 , resize Process start..."));
  std::set<int> channels;
  std::set<std::thread::id> workers;
  for (const auto& call : fakePlatform::CallsOf("QetCreateChannel")) {
    channels.insert(call.channel);
    workers.insert(call.thread);
  }
  EXPECT_EQ(channels, (std::set<int>{0, 1, 2, 3}));
  EXPECT_EQ(workers.size(), 4U);
  EXPECT_EQ(workers.count(std::this_thread::get_id()), 0U);
}

TEST_F(VpcStressTest, EveryCallIsOnTheWorkersThread) {
  auto record = MakeRecord(1, 0);
  std::vector<std::thread> threads;
  fakePlatform::OnCall("QetImageResize", [this](int) { stop_ = 1; });
  runVpcStress(record, threads, stop_);
  ASSERT_EQ(threads.size(), 1U);
  const std::thread::id worker = threads[0].get_id();
  threads[0].join();
  EXPECT_EQ(fakePlatform::Calls().size(), kSetUp.size() + 1 + 4);
  for (const auto& call : fakePlatform::Calls()) EXPECT_EQ(call.thread, worker) << call.name;
}

TEST_F(VpcStressTest, WholeLifeInOrder) {
  EXPECT_EQ(RunCycles(2), 0);
  EXPECT_EQ(fakePlatform::Names(),
            Then(kSetUp, {"QetImageResize", "QetImageResize", "QetImageDestroy", "QetImageDestroy",
                          "QetDestroyChannel", "QetDestroyContext"}));
  const auto context = fakePlatform::CallsOf("QetCreateContext")[0].object;
  EXPECT_EQ(fakePlatform::CallsOf("QetSetCurrentContext")[0].object, context);
  EXPECT_EQ(fakePlatform::CallsOf("QetDestroyContext")[0].object, context);
  const auto images = fakePlatform::CallsOf("QetImageMallocAligned");
  const auto destroyed = fakePlatform::CallsOf("QetImageDestroy");
  EXPECT_EQ(destroyed[0].object, images[1].object) << "the destination is destroyed first";
  EXPECT_EQ(destroyed[1].object, images[0].object);
  EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(VpcStressTest, ImageRecordsHaveTheirFixedValues) {
  RunCycles(1);
  const auto images = fakePlatform::AllocatedImages();
  ASSERT_EQ(images.size(), 2U);
  const std::uint32_t sizes[2][2] = {{1920, 1080}, {416, 234}};
  for (int i = 0; i < 2; ++i) {
    fakePlatform::ImageBytes expected{};
    const Ormis::ImageData empty{};
    std::memcpy(expected.data() + 0x08, &empty.offset08, 24);
    std::memcpy(expected.data() + 0x20, &sizes[i][0], 4);
    std::memcpy(expected.data() + 0x24, &sizes[i][1], 4);
    const std::uint32_t one = 1;
    std::memcpy(expected.data() + 0x2c, &one, 4);
    std::memcpy(expected.data() + 0x30, &one, 4);
    // The four bytes from 0x34 are padding.
    for (std::size_t at = 0; at < expected.size(); ++at) {
      if (at >= 0x34 && at < 0x38) continue;
      EXPECT_EQ(images[static_cast<std::size_t>(i)][at], expected[at]) << "image " << i << " byte " << at;
    }
    EXPECT_EQ(WordAt(images[static_cast<std::size_t>(i)], 0x28), 0U);
  }
}

TEST_F(VpcStressTest, SourceIsCopiedOntoItselfRightAfterItsAllocation) {
  RunCycles(1);
  const auto copy = fakePlatform::CallsOf("QetMemcpyToKivu")[0];
  EXPECT_EQ(copy.source, copy.destination);
  EXPECT_EQ(copy.source, fakePlatform::CallsOf("QetImageMallocAligned")[0].object);
}

TEST_F(VpcStressTest, ResizeGetsTheFixedArgumentsAndTheChannelThatThePlatformReturned) {
  fakePlatform::GiveChannel(42);
  RunCycles(1);
  EXPECT_EQ(fakePlatform::CallsOf("QetCreateChannel")[0].channel, 3);
  const auto resize = fakePlatform::CallsOf("QetImageResize")[0];
  EXPECT_EQ(resize.channel, 42);
  EXPECT_EQ(resize.interpolation, 1);
  EXPECT_EQ(resize.lastArgument, -1);
  EXPECT_EQ(resize.source, fakePlatform::CallsOf("QetImageMallocAligned")[0].object);
  EXPECT_EQ(resize.destination, fakePlatform::CallsOf("QetImageMallocAligned")[1].object);
  EXPECT_EQ(fakePlatform::CallsOf("QetDestroyChannel")[0].channel, 42);
}

TEST_F(VpcStressTest, TestImageIsAllocatedAndFreed) {
  ArrayAllocations watch;
  stop_ = 1;
  VPCResize(record_, index_, stop_);
  EXPECT_THAT(watch.Events(), ElementsAre(6220800U, ArrayAllocations::kFreed));
}

TEST_F(VpcStressTest, TestImageIsOfType0) {
  const ImageRequests requests;
  stop_ = 1;
  VPCResize(record_, index_, stop_);
  ASSERT_EQ(requests.All().size(), 1U);
  EXPECT_EQ(requests.All()[0].width, 1920U);
  EXPECT_EQ(requests.All()[0].height, 1080);
  EXPECT_EQ(requests.All()[0].imageType, 0U);
}

TEST_F(VpcStressTest, PrepareSetsEveryFieldOfBothRecordsButTheSizeAndReturnsZero) {
  std::unique_ptr<std::uint8_t[]> image;
  Ormis::ImageData images[2];
  std::uint8_t pixel = 0;
  for (Ormis::ImageData& record : images) {
    record.width = record.height = record.bufferMode = record.imageType = 0xA5A5A5A5;
    record.data = &pixel;
  }
  EXPECT_EQ(VpcPerpare(image, images[0], images[1]), 0);
  EXPECT_EQ(images[0].width, 1920U);
  EXPECT_EQ(images[0].height, 1080U);
  EXPECT_EQ(images[1].width, 416U);
  EXPECT_EQ(images[1].height, 234U);
  for (const Ormis::ImageData& record : images) {
    EXPECT_EQ(record.bufferMode, 1U);
    EXPECT_EQ(record.imageType, 1U);
    EXPECT_EQ(record.data, nullptr);
  }
}

TEST_F(VpcStressTest, StopFlagSetAfterSetUpGoesStraightToTheTearDown) {
  stop_ = 1;
  EXPECT_EQ(VPCResize(record_, index_, stop_), 0);
  EXPECT_EQ(fakePlatform::Names(),
            Then(kSetUp, {"QetImageDestroy", "QetImageDestroy", "QetDestroyChannel", "QetDestroyContext"}));
}

struct VpcFault {
  const char* operation;
  int nth;
  const char* function;
  const char* text;
  std::vector<std::string> calls;  // all calls of a worker whose first resize fails as well
};

class VpcSetUpFaultTest : public VpcStressTest, public testing::WithParamInterface<VpcFault> {};

TEST_P(VpcSetUpFaultTest, IsLoggedAndTheWorkerGoesOnToItsFirstResize) {
  fakePlatform::Fail(GetParam().operation, GetParam().nth, 77);
  fakePlatform::Fail("QetImageResize", 1, -5);
  EXPECT_EQ(VPCResize(record_, index_, stop_), 10);
  EXPECT_EQ(fakePlatform::FailuresDelivered(GetParam().operation), 1);
  EXPECT_THAT(Errors(),
              ElementsAre(std::string(GetParam().function) + "() | " + GetParam().text + ", ret = 77",
                          "VPCResize() | QetImageResize failed, ret = -5"));
  EXPECT_EQ(fakePlatform::Names(), GetParam().calls);
}

TEST_P(VpcSetUpFaultTest, ReturnsTen) {
  fakePlatform::Fail(GetParam().operation, GetParam().nth, 77);
  Ormis::QetContext context{};
  int channel = 0;
  std::unique_ptr<std::uint8_t[]> image;
  Ormis::ImageData source{};
  Ormis::ImageData destination{};
  const bool inInit = std::string(GetParam().function) == "VpcInit";
  EXPECT_EQ(VpcInit(context, channel, image), inInit ? 10 : 0);
  EXPECT_EQ(image == nullptr, inInit) << "only a complete VpcInit creates the test image";
  EXPECT_EQ(VpcPerpare(image, source, destination), inInit ? 0 : 10);
}

const std::vector<std::string> kPrepareAndResize = {"QetImageMallocAligned", "QetMemcpyToKivu",
                                                    "QetImageMallocAligned", "QetImageResize"};

INSTANTIATE_TEST_SUITE_P(
    All, VpcSetUpFaultTest,
    testing::Values(VpcFault{"QetCreateContext", 1, "VpcInit", "QetCreateContext fail",
                             Then({"QetCreateContext"}, kPrepareAndResize)},
                    VpcFault{"QetSetCurrentContext", 1, "VpcInit", "QetSetCurrentContext fail",
                             Then({"QetCreateContext", "QetSetCurrentContext"}, kPrepareAndResize)},
                    VpcFault{"QetCreateChannel", 1, "VpcInit", "QetCreateChannel fail",
                             Then({"QetCreateContext", "QetSetCurrentContext", "QetCreateChannel"},
                                  kPrepareAndResize)},
                    VpcFault{"QetImageMallocAligned",
                             1,
                             "VpcPerpare",
                             "QetImageMallocAligned fail",
                             {"QetCreateContext", "QetSetCurrentContext", "QetCreateChannel",
                              "QetImageMallocAligned", "QetImageResize"}},
                    VpcFault{"QetMemcpyToKivu",
                             1,
                             "VpcPerpare",
                             "QetMemcpyToKivu fail",
                             {"QetCreateContext", "QetSetCurrentContext", "QetCreateChannel",
                              "QetImageMallocAligned", "QetMemcpyToKivu", "QetImageResize"}},
                    VpcFault{"QetImageMallocAligned", 2, "VpcPerpare", "QetImageMallocAligned fail",
                             Then(kSetUp, {"QetImageResize"})}),
    [](const testing::TestParamInfo<VpcFault>& info) {
      return std::string(info.param.operation) + std::to_string(info.param.nth);
    });

TEST_F(VpcStressTest, WorkerWhoseSetUpFailedRunsOnWhileItsResizesWork) {
  fakePlatform::Fail("QetCreateChannel", 1, 77);
  EXPECT_EQ(RunCycles(3), 0);
  EXPECT_EQ(fakePlatform::CountOf("QetDestroyChannel"), 1);
}

TEST_F(VpcStressTest, FailedResizeInMidRunEndsTheWorkerWithoutTearDown) {
  fakePlatform::Fail("QetImageResize", 3, 77);
  ArrayAllocations watch;
  EXPECT_EQ(VPCResize(record_, index_, stop_), 10);
  EXPECT_THAT(watch.Events(), ElementsAre(6220800U, ArrayAllocations::kFreed))
      << "the locals are freed nevertheless";
  EXPECT_EQ(fakePlatform::FailuresDelivered("QetImageResize"), 1);
  EXPECT_EQ(fakePlatform::Names(), Then(kSetUp, {"QetImageResize", "QetImageResize", "QetImageResize"}));
  EXPECT_THAT(Errors(), ElementsAre("VPCResize() | QetImageResize failed, ret = 77"));
}

struct TearDownFault {
  const char* operation;
  int nth;
  const char* text;
  std::size_t stepsDone;  // calls of the tear-down, the failed one included
};

class VpcTearDownFaultTest : public VpcStressTest, public testing::WithParamInterface<TearDownFault> {};

TEST_P(VpcTearDownFaultTest, EndsTheTearDownAtOnce) {
  fakePlatform::Fail(GetParam().operation, GetParam().nth, -77);
  EXPECT_EQ(RunCycles(1), 10);
  EXPECT_EQ(fakePlatform::FailuresDelivered(GetParam().operation), 1);
  EXPECT_THAT(Errors(), ElementsAre(std::string("VPCResize() | ") + GetParam().text + ", ret = -77"));
  std::vector<std::string> steps = {"QetImageDestroy", "QetImageDestroy", "QetDestroyChannel",
                                    "QetDestroyContext"};
  steps.resize(GetParam().stepsDone);
  EXPECT_EQ(fakePlatform::Names(), Then(Then(kSetUp, {"QetImageResize"}), steps));
}

INSTANTIATE_TEST_SUITE_P(
    All, VpcTearDownFaultTest,
    testing::Values(TearDownFault{"QetImageDestroy", 1, "QetImageDestroy(dstImage) failed", 1},
                    TearDownFault{"QetImageDestroy", 2, "QetImageDestroy(srcImage) failed", 2},
                    TearDownFault{"QetDestroyChannel", 1, "QetDestroyChannel failed", 3},
                    TearDownFault{"QetDestroyContext", 1, "QetDestroyContext failed", 4}),
    [](const testing::TestParamInfo<TearDownFault>& info) {
      return std::string(info.param.operation) + std::to_string(info.param.nth);
    });

}  // namespace
