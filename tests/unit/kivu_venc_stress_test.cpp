// SPDX-License-Identifier: Apache-2.0
#include "kivu_venc_stress.h"

#include <chrono>
#include <cstring>
#include <new>
#include <set>

#include "array_allocations.h"
#include "fixture.h"
#include "image_requests.h"

namespace {

class VencStressTest : public UnitTest {
 protected:
  std::int32_t RunCycles(int cycles) {
    fakePlatform::OnCall("QetVenc::SendFrame", [this, cycles](int n) {
      if (n == cycles) stop_ = 1;
    });
    return VencProcess(record_, index_, stop_);
  }

  std::unique_ptr<vorn::StressRegister> record_ = MakeRecord(8, 0);
  int index_ = 3;
  volatile int stop_ = 0;
};

TEST_F(VencStressTest, LevelZeroLogsItsLineAndStartsNothing) {
  auto record = MakeRecord(0, 100);
  std::vector<std::thread> threads;
  runVencStress(record, threads, stop_);
  EXPECT_THAT(threads, IsEmpty());
  EXPECT_THAT(Infos(), ElementsAre("runVencStress() | KIVU VENC threadNum: 0 , venc Process start..."));
}

TEST_F(VencStressTest, StartsOneWorkerPerLevel) {
  auto record = MakeRecord(3, 100);
  std::vector<std::thread> threads;
  runVencStress(record, threads, stop_);
  EXPECT_EQ(threads.size(), 3U);
  while (fakePlatform::CountOf("QetVenc::ReleaseStream") < 9) std::this_thread::yield();
  stop_ = 1;
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(Infos(), ElementsAre("runVencStress() | KIVU VENC threadNum: 3 , venc Process start..."));
  std::set<std::uint32_t> channels;
  for (const auto& bytes : fakePlatform::Encoders()) {
    std::uint32_t channel = 0;
    std::memcpy(&channel, bytes.data() + 0xD0, sizeof channel);
    channels.insert(channel);
  }
  EXPECT_EQ(channels, (std::set<std::uint32_t>{25, 26, 27}));
}

TEST_F(VencStressTest, WholeLifeInOrder) {
  EXPECT_EQ(RunCycles(2), 0);
  EXPECT_THAT(
      fakePlatform::Names(),
      ElementsAre("QetCreateContext", "QetSetCurrentContext", "QetVenc::Init", "QetVenc::SendFrame",
                  "QetVenc::GetStream", "QetVenc::ReleaseStream", "QetVenc::SendFrame", "QetVenc::GetStream",
                  "QetVenc::ReleaseStream", "QetVenc::~QetVenc", "QetDestroyContext"));
  EXPECT_THAT(Errors(), IsEmpty());
  EXPECT_EQ(fakePlatform::CallsOf("QetVenc::GetStream")[0].destination,
            fakePlatform::CallsOf("QetVenc::ReleaseStream")[0].destination);
}

TEST_F(VencStressTest, EncoderMembersHaveTheirFixedValues) {
  RunCycles(1);
  const auto encoders = fakePlatform::Encoders();
  ASSERT_EQ(encoders.size(), 1U);
  const auto& bytes = encoders[0];
  struct Word {
    std::size_t offset;
    std::uint32_t value;
  };
  for (const Word word :
       {Word{0xBC, 46},     Word{0xC0, 25},  Word{0xC4, 0},       Word{0xC8, 1920}, Word{0xCC, 1080},
        Word{0xD0, 3 + 25}, Word{0xD4, 1},   Word{0xD8, 2000},    Word{0xDC, 0},    Word{0xE0, 4096},
        Word{0xE4, 4096},   Word{0xE8, 128}, Word{0xEC, 9437184}, Word{0xF0, 0},    Word{0xF4, 8},
        Word{0xF8, 16},     Word{0x118, 15}, Word{0x120, 0},      Word{0x124, 0},   Word{0x128, 1},
        Word{0x12C, 0},     Word{0x130, 30}, Word{0x134, 60}}) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + word.offset, sizeof value);
    EXPECT_EQ(value, word.value) << "offset " << word.offset;
  }
  for (std::size_t at = 0; at <= 0xBA; ++at) {
    if (at >= 0x88 && at < 0x90) continue;
    EXPECT_EQ(bytes[at], 0) << "offset " << at;
  }
  // An empty map: no root at 0x108, no elements at 0x110.
  std::uint64_t map[3];
  std::memcpy(map, bytes.data() + 0x100, sizeof map);
  EXPECT_NE(map[0], 0U);
  EXPECT_EQ(map[1], 0U);
  EXPECT_EQ(map[2], 0U);
}

TEST_F(VencStressTest, EncoderLeavesTheEightBytesAt0x88Unset) {
  alignas(Ormis::QetVenc) unsigned char memory[sizeof(Ormis::QetVenc)];
  std::memset(memory, 0xA5, sizeof memory);
  auto* encoder = new (memory) Ormis::QetVenc;
  unsigned char bytes[sizeof memory];
  std::memcpy(bytes, memory, sizeof memory);
  for (std::size_t at = 0; at <= 0xBA; ++at) {
    EXPECT_EQ(bytes[at], at >= 0x88 && at < 0x90 ? 0xA5 : 0) << "offset " << at;
  }
  EXPECT_TRUE(encoder->offset100.empty());
  encoder->~QetVenc();
}

TEST_F(VencStressTest, FrameRecordHasItsFixedValues) {
  RunCycles(2);
  const auto frames = fakePlatform::Frames();
  ASSERT_EQ(frames.size(), 2U);
  fakePlatform::ImageBytes expected{};
  const Ormis::ImageData empty{};
  std::memcpy(expected.data() + 0x08, &empty.offset08, 24);
  const std::uint32_t words[] = {1920, 1080, 3110400, 0, 2};
  std::memcpy(expected.data() + 0x20, words, sizeof words);
  for (std::size_t at = 0; at < expected.size(); ++at) {
    if (at >= 0x34 && at < 0x40) continue;  // padding, and the address of the pixels
    EXPECT_EQ(frames[0][at], expected[at]) << "byte " << at;
  }
  EXPECT_EQ(frames[0], frames[1]) << "the same frame every time";
  EXPECT_TRUE(fakePlatform::LastFrameWasZero(3110400));
}

TEST_F(VencStressTest, ACycleIsTimedFromSendingToReleasing) {
  VirtualClock clock;
  for (const char* operation : {"QetVenc::GetStream", "QetVenc::ReleaseStream"}) {
    fakePlatform::OnCall(operation, [&](int) { clock.Advance(std::chrono::milliseconds(1)); });
  }
  fakePlatform::OnCall("QetVenc::SendFrame", [&](int n) {
    clock.Advance(std::chrono::milliseconds(1));
    if (n == 334) stop_ = 1;
  });
  EXPECT_EQ(VencProcess(record_, index_, stop_), 0);
  EXPECT_EQ(record_->threadFps[3], 334 / 1002.0 * 1000.0);
}

TEST_F(VencStressTest, EveryCallUsesTheSameContextAndEncoder) {
  RunCycles(1);
  const auto calls = fakePlatform::Calls();
  const void* context = calls.front().object;
  for (const auto& call : calls) {
    const bool ofEncoder = call.name.rfind("QetVenc::", 0) == 0;
    EXPECT_EQ(call.object, ofEncoder ? calls[2].object : context) << call.name;
  }
}

TEST_F(VencStressTest, StreamRecordIsZeroedBeforeEveryFetch) {
  RunCycles(3);
  EXPECT_EQ(fakePlatform::CountOf("QetVenc::GetStream"), 3);
  EXPECT_TRUE(fakePlatform::StreamsWereZero());
}

TEST_F(VencStressTest, TestImageOutlivesTheEncoderAndIsFreed) {
  ArrayAllocations watch;
  std::size_t eventsAtTheEncodersEnd = 0;
  fakePlatform::OnCall("QetVenc::~QetVenc", [&](int) { eventsAtTheEncodersEnd = watch.Events().size(); });
  EXPECT_EQ(RunCycles(5), 0);
  EXPECT_EQ(eventsAtTheEncodersEnd, 1U) << "allocated and not yet freed";
  EXPECT_THAT(watch.Events(), ElementsAre(3110400U, ArrayAllocations::kFreed));
}

TEST_F(VencStressTest, StopFlagSetAfterSetUpSendsNoFrame) {
  stop_ = 1;
  EXPECT_EQ(VencProcess(record_, index_, stop_), 0);
  EXPECT_THAT(fakePlatform::Names(), ElementsAre("QetCreateContext", "QetSetCurrentContext", "QetVenc::Init",
                                                 "QetVenc::~QetVenc", "QetDestroyContext"));
}

TEST_F(VencStressTest, InitReturnsZeroWhenEveryStepWorks) {
  Ormis::QetContext context{};
  Ormis::QetVenc encoder;
  EXPECT_EQ(VencInit(context, 25, encoder), 0);
  EXPECT_THAT(fakePlatform::Names(),
              ElementsAre("QetCreateContext", "QetSetCurrentContext", "QetVenc::Init"));
}

TEST_F(VencStressTest, PrepareSetsEveryFieldOfTheRecordAndReturnsZero) {
  std::unique_ptr<std::uint8_t[]> image;
  Ormis::ImageData frame{};
  frame.width = frame.height = frame.dataSize = frame.bufferMode = frame.imageType = 0xA5A5A5A5;
  EXPECT_EQ(VencPrepare(image, frame), 0);
  EXPECT_NE(image, nullptr);
  EXPECT_EQ(frame.width, 1920U);
  EXPECT_EQ(frame.height, 1080U);
  EXPECT_EQ(frame.dataSize, 3110400U);
  EXPECT_EQ(frame.bufferMode, 0U);
  EXPECT_EQ(frame.imageType, 2U);
  EXPECT_EQ(frame.data, image.get());
}

TEST_F(VencStressTest, TestImageIsOfType2) {
  const ImageRequests requests;
  stop_ = 1;
  VencProcess(record_, index_, stop_);
  ASSERT_EQ(requests.All().size(), 1U);
  EXPECT_EQ(requests.All()[0].width, 1920U);
  EXPECT_EQ(requests.All()[0].height, 1080);
  EXPECT_EQ(requests.All()[0].imageType, 2U);
}

TEST_F(VencStressTest, FailedDestroyContextLogsTheFixedTextWithoutAStatusAndYieldsZero) {
  fakePlatform::Fail("QetDestroyContext", 1, 77);
  EXPECT_EQ(RunCycles(1), 0);
  EXPECT_EQ(fakePlatform::FailuresDelivered("QetDestroyContext"), 1);
  EXPECT_THAT(Errors(),
              ElementsAre("VencProcess() | [AicoreStress] AICoreStressNode QetDestroyContext failed."));
}

struct VencFault {
  const char* operation;
  const char* text;
  std::vector<std::string> calls;
};

class VencSetUpFaultTest : public VencStressTest, public testing::WithParamInterface<VencFault> {};

TEST_P(VencSetUpFaultTest, IsLoggedAndTheWorkerGoesOnToSendFrame) {
  fakePlatform::Fail(GetParam().operation, 1, 77);
  fakePlatform::Fail("QetVenc::SendFrame", 1, -5);
  EXPECT_EQ(VencProcess(record_, index_, stop_), 10);
  EXPECT_EQ(fakePlatform::FailuresDelivered(GetParam().operation), 1);
  EXPECT_THAT(Errors(), ElementsAre(std::string("VencInit() | ") + GetParam().text + ", ret = 77",
                                    "VencProcess() | venc SendFrame fail, ret = -5"));
  auto calls = GetParam().calls;
  calls.insert(calls.end(), {"QetVenc::SendFrame", "QetVenc::~QetVenc"});
  EXPECT_EQ(fakePlatform::Names(), calls);
  EXPECT_TRUE(fakePlatform::LastFrameWasZero(3110400)) << "the frame was prepared nevertheless";
}

TEST_P(VencSetUpFaultTest, ReturnsTen) {
  fakePlatform::Fail(GetParam().operation, 1, 77);
  Ormis::QetContext context{};
  Ormis::QetVenc encoder;
  EXPECT_EQ(VencInit(context, 25, encoder), 10);
  EXPECT_EQ(fakePlatform::Names(), GetParam().calls);
}

INSTANTIATE_TEST_SUITE_P(
    All, VencSetUpFaultTest,
    testing::Values(VencFault{"QetCreateContext", "QetCreateContext fail", {"QetCreateContext"}},
                    VencFault{"QetSetCurrentContext",
                              "QetSetCurrentContext fail",
                              {"QetCreateContext", "QetSetCurrentContext"}},
                    VencFault{"QetVenc::Init",
                              "venc init fail",
                              {"QetCreateContext", "QetSetCurrentContext", "QetVenc::Init"}}),
    [](const testing::TestParamInfo<VencFault>& info) { return "Fault" + std::to_string(info.index); });

class VencLoopFaultTest : public VencStressTest, public testing::WithParamInterface<VencFault> {};

TEST_P(VencLoopFaultTest, DestroysTheEncoderAndLeavesTheContext) {
  fakePlatform::Fail(GetParam().operation, 2, 77);
  ArrayAllocations watch;
  EXPECT_EQ(VencProcess(record_, index_, stop_), 10);
  EXPECT_THAT(watch.Events(), ElementsAre(3110400U, ArrayAllocations::kFreed));
  EXPECT_EQ(fakePlatform::FailuresDelivered(GetParam().operation), 1);
  EXPECT_THAT(Errors(), ElementsAre(std::string("VencProcess() | ") + GetParam().text + ", ret = 77"));
  std::vector<std::string> calls = {"QetCreateContext",   "QetSetCurrentContext", "QetVenc::Init",
                                    "QetVenc::SendFrame", "QetVenc::GetStream",   "QetVenc::ReleaseStream"};
  calls.insert(calls.end(), GetParam().calls.begin(), GetParam().calls.end());
  calls.emplace_back("QetVenc::~QetVenc");
  EXPECT_EQ(fakePlatform::Names(), calls);
}

INSTANTIATE_TEST_SUITE_P(
    All, VencLoopFaultTest,
    testing::Values(
        VencFault{"QetVenc::SendFrame", "venc SendFrame fail", {"QetVenc::SendFrame"}},
        VencFault{"QetVenc::GetStream", "venc GetStream fail", {"QetVenc::SendFrame", "QetVenc::GetStream"}},
        VencFault{"QetVenc::ReleaseStream",
                  "venc ReleaseStream fail",
                  {"QetVenc::SendFrame", "QetVenc::GetStream", "QetVenc::ReleaseStream"}}),
    [](const testing::TestParamInfo<VencFault>& info) { return "Fault" + std::to_string(info.index); });

}  // namespace
