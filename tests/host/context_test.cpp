// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "failing_memory.h"
#include "ormis/qet_host.h"
#include "platform_test.h"

namespace Ormis::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

class ContextTest : public PlatformTest {
 protected:
  /// Ends the platform. Expects one line at info level, located in the operation. Returns its message.
  std::string MessageOfRelease() {
    CapturedStandardError log;
    EXPECT_EQ(QetRelease(process_), kQetOk);
    const std::string text = log.Text();
    EXPECT_THAT(text, HasSubstr("Z INFO - QET "));
    EXPECT_THAT(text, EndsWith(" QetRelease)\n"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    return MessageOf(text);
  }
};

TEST(PlatformNotStarted, EveryOperationSaysSo) {
  QetContext context;
  int channel = 0;
  ImageData image = Record(2, 2, kQetImageBgr888);
  const ImageData other;
  const std::string reason = kNotInitializedMessage;
  ExpectFailure(kQetNotInitialized, "QetRelease", reason, [&] { return QetRelease(context); });
  ExpectFailure(kQetNotInitialized, "QetCreateContext", reason, [&] { return QetCreateContext(context); });
  ExpectFailure(kQetNotInitialized, "QetSetCurrentContext", reason,
                [&] { return QetSetCurrentContext(context); });
  ExpectFailure(kQetNotInitialized, "QetDestroyContext", reason, [&] { return QetDestroyContext(context); });
  ExpectFailure(kQetNotInitialized, "QetCreateChannel", reason, [&] { return QetCreateChannel(channel); });
  ExpectFailure(kQetNotInitialized, "QetDestroyChannel", reason, [&] { return QetDestroyChannel(channel); });
  ExpectFailure(kQetNotInitialized, "QetImageMallocAligned", reason,
                [&] { return QetImageMallocAligned(image); });
  ExpectFailure(kQetNotInitialized, "QetMemcpyToKivu", reason, [&] { return QetMemcpyToKivu(other, image); });
  ExpectFailure(kQetNotInitialized, "QetImageResize", reason,
                [&] { return QetImageResize(channel, other, image, kQetInterpolationArea, -1); });
  ExpectFailure(kQetNotInitialized, "QetImageDestroy", reason, [&] { return QetImageDestroy(image); });
  EXPECT_EQ(image.data, nullptr);

  QetVenc venc;
  ux_venc_stream stream{};
  ExpectFailure(kQetNotInitialized, "QetVenc::Init", reason, [&] { return venc.Init(); });
  ExpectFailure(kQetNotInitialized, "QetVenc::SendFrame", reason, [&] { return venc.SendFrame(other); });
  ExpectFailure(kQetNotInitialized, "QetVenc::GetStream", reason, [&] { return venc.GetStream(stream); });
  ExpectFailure(kQetNotInitialized, "QetVenc::ReleaseStream", reason,
                [&] { return venc.ReleaseStream(stream); });

  QetDNNHandle handle;
  ExpectFailure(kQetNotInitialized, "QetDNNModelInitialize", reason,
                [&] { return QetDNNModelInitialize(handle, "model.onnx"); });
  ExpectFailure(kQetNotInitialized, "QetDNNModelCreateInput", reason,
                [&] { return QetDNNModelCreateInput(handle); });
  ExpectFailure(kQetNotInitialized, "QetDNNModelCreateOutput", reason,
                [&] { return QetDNNModelCreateOutput(handle); });
  ExpectFailure(kQetNotInitialized, "QetDNNModelProcess", reason, [&] { return QetDNNModelProcess(handle); });
  // Needs no platform: what is missing is the model.
  ExpectFailure(kQetModelNotReady, "QetDNNRelease", "the handle holds no model",
                [&] { return QetDNNRelease(handle); });
}

TEST(PlatformNotStarted, InitializeChecksItsParameters) {
  QetContext context;
  QetContextParameters parameters;
  parameters.configuration = "fast";
  ExpectFailure(kQetInvalidArgument, "QetInitialize", "cannot read fast: No such file or directory",
                [&] { return QetInitialize(context, parameters); });
  parameters = {};
  parameters.deviceId = 3;
  ExpectFailure(kQetInvalidArgument, "QetInitialize", "no device 3, expected 0",
                [&] { return QetInitialize(context, parameters); });
  EXPECT_EQ(context.id, 0U);
}

TEST_F(ContextTest, SecondInitializeIsRefusedAndChangesNothing) {
  QetContext second;
  ExpectFailure(kQetAlreadyInitialized, "QetInitialize", "the platform is initialised already",
                [&] { return QetInitialize(second, {}); });
  EXPECT_EQ(second.id, 0U);
  int channel = 0;
  EXPECT_EQ(QetCreateChannel(channel), kQetOk);
  EXPECT_EQ(QetDestroyChannel(channel), kQetOk);
}

TEST_F(ContextTest, ReleaseWantsTheContextOfInitialize) {
  ExpectFailure(kQetUnknownContext, "QetRelease", "this is not the context that QetInitialize filled",
                [&] { return QetRelease(context_); });
}

/// The message about a record that names no live context; `id` is the id in the record.
std::string NoLiveContext(std::uint64_t id) {
  return "no live context " + std::to_string(id) + ", expected one from QetCreateContext";
}

TEST_F(ContextTest, StartsAgainAfterRelease) {
  ASSERT_EQ(QetRelease(process_), kQetOk);
  EXPECT_EQ(process_.id, 0U);
  ExpectFailure(kQetNotInitialized, "QetRelease", kNotInitializedMessage,
                [&] { return QetRelease(process_); });
  ASSERT_EQ(QetInitialize(process_, {}), kQetOk);
  ExpectFailure(kQetUnknownContext, "QetSetCurrentContext", NoLiveContext(context_.id),
                [&] { return QetSetCurrentContext(context_); });
}

TEST_F(ContextTest, LaterIdsAreGreater) {
  QetContext second;
  ASSERT_EQ(QetCreateContext(second), kQetOk);
  ImageData image = Record(2, 2, kQetImageBgr888);
  ASSERT_EQ(QetImageMallocAligned(image), kQetOk);
  EXPECT_GT(process_.id, 0U);
  EXPECT_GT(context_.id, process_.id);
  EXPECT_GT(second.id, context_.id);
  EXPECT_GT(image.offset00, second.id);
}

TEST(HostVersionTest, IsOne) {
  EXPECT_EQ(QetHostVersion(), 1U);
}

TEST_F(ContextTest, CreateWantsAnEmptyRecord) {
  ExpectFailure(kQetAlreadyInitialized, "QetCreateContext",
                "the record holds context " + std::to_string(context_.id) + " already, expected an empty one",
                [&] { return QetCreateContext(context_); });
  QetContext other;
  other.deviceId = 1;
  ExpectFailure(kQetInvalidArgument, "QetCreateContext", "no device 1, expected 0",
                [&] { return QetCreateContext(other); });
}

TEST_F(ContextTest, UnknownAndDestroyedContextsAreRefused) {
  QetContext unknown;
  ExpectFailure(kQetUnknownContext, "QetSetCurrentContext", NoLiveContext(0),
                [&] { return QetSetCurrentContext(unknown); });
  ExpectFailure(kQetUnknownContext, "QetDestroyContext", NoLiveContext(0),
                [&] { return QetDestroyContext(unknown); });
  QetContext copy = context_;
  ASSERT_EQ(QetDestroyContext(context_), kQetOk);
  EXPECT_EQ(context_.id, 0U);
  ExpectFailure(kQetUnknownContext, "QetDestroyContext", NoLiveContext(copy.id),
                [&] { return QetDestroyContext(copy); });
}

TEST_F(ContextTest, OperationsWantAContextOfTheirOwnThread) {
  ImageData image = Record(2, 2, kQetImageBgr888);
  const std::string reason = kNoContextMessage;
  std::thread([&] {
    int channel = 0;
    ExpectFailure(kQetNoContext, "QetCreateChannel", reason, [&] { return QetCreateChannel(channel); });
    ExpectFailure(kQetNoContext, "QetDestroyChannel", reason, [&] { return QetDestroyChannel(channel); });
    ExpectFailure(kQetNoContext, "QetImageMallocAligned", reason,
                  [&] { return QetImageMallocAligned(image); });
    ExpectFailure(kQetNoContext, "QetMemcpyToKivu", reason, [&] { return QetMemcpyToKivu(image, image); });
    ExpectFailure(kQetNoContext, "QetImageResize", reason,
                  [&] { return QetImageResize(0, image, image, kQetInterpolationArea, -1); });
    ExpectFailure(kQetNoContext, "QetImageDestroy", reason, [&] { return QetImageDestroy(image); });
  }).join();
}

TEST_F(ContextTest, DestroyUnbindsFromEveryThread) {
  int channel = 0;
  QetContext copy = context_;
  std::thread([&] { EXPECT_EQ(QetDestroyContext(copy), kQetOk); }).join();
  ExpectFailure(kQetNoContext, "QetCreateChannel", kNoContextMessage,
                [&] { return QetCreateChannel(channel); });
}

TEST_F(ContextTest, BindingReplacesAnEarlierOne) {
  QetContext second;
  ASSERT_EQ(QetCreateContext(second), kQetOk);
  ASSERT_EQ(QetSetCurrentContext(second), kQetOk);
  ASSERT_EQ(QetDestroyContext(context_), kQetOk);
  int channel = 0;
  EXPECT_EQ(QetCreateChannel(channel), kQetOk);
  ASSERT_EQ(QetDestroyContext(second), kQetOk);
  ExpectFailure(kQetNoContext, "QetDestroyChannel", kNoContextMessage,
                [&] { return QetDestroyChannel(channel); });
}

// A worker whose resize fails does not free its images, its channel and its context.
TEST_F(ContextTest, ReleaseGivesBackWhatWorkersLeftAndSaysWhat) {
  std::vector<std::thread> workers;
  workers.reserve(3);
  for (int i = 0; i < 3; ++i) {
    workers.emplace_back([i] {
      QetContext context;
      EXPECT_EQ(QetCreateContext(context), kQetOk);
      EXPECT_EQ(QetSetCurrentContext(context), kQetOk);
      int channel = i;
      EXPECT_EQ(QetCreateChannel(channel), kQetOk);
      ImageData image = Record(100, 10, kQetImageBgr888);
      EXPECT_EQ(QetImageMallocAligned(image), kQetOk);
    });
  }
  for (std::thread& worker : workers) worker.join();

  EXPECT_EQ(MessageOfRelease(),
            "QetRelease: gave back what was left: 3 images (9000 bytes), 3 channels, 4 contexts");
}

TEST_F(ContextTest, ReleaseCountsOneOfAKindInTheSingular) {
  int channel = 0;
  ASSERT_EQ(QetCreateChannel(channel), kQetOk);
  ImageData image = Record(10, 1, kQetImageBgr888);
  ASSERT_EQ(QetImageMallocAligned(image), kQetOk);
  EXPECT_EQ(MessageOfRelease(),
            "QetRelease: gave back what was left: 1 image (30 bytes), 1 channel, 1 context");
}

// Makes each allocation fail in turn. The release succeeds all the same; only the list of what was left is
// lost.
TEST_F(ContextTest, ReleaseNeedsNoMemory) {
  if (!FailingMemory::kWorks) GTEST_SKIP() << FailingMemory::kWhyNot;
  std::size_t faults = 0;
  for (std::size_t failAt = 1;; ++failAt) {
    ASSERT_LT(failAt, 1000U);
    for (int i = 0; i < 3; ++i) {
      int channel = i;
      ASSERT_EQ(QetCreateChannel(channel), kQetOk);
      ImageData image = Record(100, 10, kQetImageBgr888);
      ASSERT_EQ(QetImageMallocAligned(image), kQetOk);
    }
    CapturedStandardError log;
    std::int32_t status = kQetOk;
    bool fired = false;
    {
      const FailingMemory memory(failAt);
      status = QetRelease(process_);
      fired = memory.Fired();
    }
    const std::string text = log.Text();
    ASSERT_EQ(status, kQetOk) << "allocation " << failAt << ": " << text;
    EXPECT_EQ(process_.id, 0U);
    EXPECT_THAT(text, HasSubstr("Z INFO - QET "));
    EXPECT_EQ(MessageOf(text),
              fired ? "QetRelease: gave back what was left; memory is too short to say what"
                    : "QetRelease: gave back what was left: 3 images (9000 bytes), 3 channels, 1 context");
    EXPECT_THAT(text, EndsWith(" QetRelease)\n"));
    context_ = QetContext{};
    SetUp();
    if (!fired) break;
    ++faults;
  }
  EXPECT_GT(faults, 0U);
}

TEST_F(ContextTest, ReleaseWithNothingLeftIsSilent) {
  ASSERT_EQ(QetDestroyContext(context_), kQetOk);
  CapturedStandardError log;
  EXPECT_EQ(QetRelease(process_), kQetOk);
  EXPECT_EQ(log.Text(), "");
}

TEST_F(ContextTest, WhatReleaseGaveBackIsUnknownAfterwards) {
  int channel = 0;
  ImageData image = Record(8, 8, kQetImageBgr888);
  ASSERT_EQ(QetCreateChannel(channel), kQetOk);
  ASSERT_EQ(QetImageMallocAligned(image), kQetOk);
  ASSERT_EQ(QetRelease(process_), kQetOk);
  ASSERT_EQ(QetInitialize(process_, {}), kQetOk);
  const ThreadContext context;
  ExpectFailure(kQetUnknownBuffer, "QetImageDestroy", kUnknownImageMessage,
                [&] { return QetImageDestroy(image); });
  ExpectFailure(kQetUnknownChannel, "QetDestroyChannel", NoChannelMessage(0),
                [&] { return QetDestroyChannel(channel); });
}

}  // namespace
}  // namespace Ormis::test
