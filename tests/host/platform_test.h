#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "ormis/ormis.h"
#include "sanitizers.h"

namespace Ormis::test {

// Messages of more than one operation.
constexpr char kNotInitializedMessage[] = "the platform is not initialised: call QetInitialize first";
constexpr char kNoContextMessage[] =
    "no live context is bound to this thread: call QetCreateContext and QetSetCurrentContext first";
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

/// Collects what is written to standard error while it exists. Until logging is started, every record goes
/// there.
class CapturedStandardError {
 public:
  CapturedStandardError() : file_(memfd_create("stderr", MFD_CLOEXEC)), saved_(dup(STDERR_FILENO)) {
    EXPECT_GE(dup2(file_, STDERR_FILENO), 0);
  }
  ~CapturedStandardError() {
    Restore();
    (void)close(file_);
  }
  CapturedStandardError(const CapturedStandardError&) = delete;
  CapturedStandardError& operator=(const CapturedStandardError&) = delete;

  /// Ends the collection.
  std::string Text() {
    Restore();
    std::string text(std::size_t{1} << 16, '\0');
    const ssize_t length = pread(file_, text.data(), text.size(), 0);
    EXPECT_GE(length, 0);
    text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return text;
  }

 private:
  void Restore() {
    if (saved_ < 0) return;
    EXPECT_GE(dup2(saved_, STDERR_FILENO), 0);
    (void)close(saved_);
    saved_ = -1;
  }

  int file_;
  int saved_;
};

/// Expects that `call` returns `code` and logs one line: at error level, in the context "QET", with the text
/// "OPERATION: MESSAGE" and nothing more, located in the operation.
template <typename Call>
void ExpectFailure(std::int32_t code, const std::string& operation, const std::string& message, Call&& call) {
  CapturedStandardError log;
  const std::int32_t status = call();
  const std::string text = log.Text();
  EXPECT_EQ(status, code) << text;
  EXPECT_THAT(text, testing::HasSubstr("Z ERROR - QET "));
  EXPECT_THAT(text, testing::HasSubstr(" " + operation + ": " + message + " ("));
  EXPECT_THAT(text, testing::EndsWith(" " + operation + ")\n"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
}

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
