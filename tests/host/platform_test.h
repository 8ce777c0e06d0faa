// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "expect_failure.h"
#include "ormis/ormis.h"
#include "sanitizers.h"

namespace Ormis::test {

// Messages of more than one operation.
constexpr char kUnknownImageMessage[] =
    "image without memory of the platform, expected a live one from QetImageMallocAligned";
constexpr char kUnknownSourceMessage[] =
    "source without memory of the platform, expected a live one from QetImageMallocAligned";
constexpr char kUnknownDestinationMessage[] =
    "destination without memory of the platform, expected a live one from QetImageMallocAligned";

inline std::string NoChannelMessage(int channel) {
  return "no channel " + std::to_string(channel) + ", expected a live one from QetCreateChannel";
}

/// Every type that an image can have.
constexpr std::uint32_t kAllTypes[] = {0, 1, 2, 9, 10, 11, 12, 13, 14, 15};

/// A record as callers make it before QetImageMallocAligned.
inline ImageData Record(std::uint32_t width, std::uint32_t height, std::uint32_t imageType) {
  ImageData image;
  image.width = width;
  image.height = height;
  image.bufferMode = kQetBufferPlatform;
  image.imageType = imageType;
  return image;
}

/// Starts the platform and binds a context to the test's thread.
class PlatformTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(QetInitialize(process_, {}), kQetOk);
    ASSERT_EQ(QetCreateContext(context_), kQetOk);
    ASSERT_EQ(QetSetCurrentContext(context_), kQetOk);
  }
  void TearDown() override {
    if (process_.id != 0) {
      EXPECT_EQ(QetRelease(process_), kQetOk);
    }
  }

  QetContext process_;
  QetContext context_;
};

/// A context of its own for a thread of a test.
class ThreadContext {
 public:
  ThreadContext() {
    EXPECT_EQ(QetCreateContext(context_), kQetOk);
    EXPECT_EQ(QetSetCurrentContext(context_), kQetOk);
  }
  ~ThreadContext() { EXPECT_EQ(QetDestroyContext(context_), kQetOk); }
  ThreadContext(const ThreadContext&) = delete;
  ThreadContext& operator=(const ThreadContext&) = delete;

 private:
  QetContext context_;
};

}  // namespace Ormis::test
