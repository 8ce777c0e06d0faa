// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>

namespace Ormis::test {

// Messages of more than one operation.
constexpr char kNotInitializedMessage[] = "the platform is not initialised: call QetInitialize first";
constexpr char kNoContextMessage[] =
    "no live context is bound to this thread: call QetCreateContext and QetSetCurrentContext first";

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

/// The message of a line of the platform's log: what stands between the thread id and the location.
inline std::string MessageOf(const std::string& line) {
  const std::size_t context = line.find(" QET ");
  const std::size_t location = line.rfind(" (");
  if (context == std::string::npos || location == std::string::npos) return "not a line of the log: " + line;
  const std::size_t begin = line.find(' ', context + 5) + 1;
  return line.substr(begin, location - begin);
}

/// A log without the lines that say that a model is tried.
inline std::string WithoutTrials(std::string log) {
  for (std::size_t found = log.find(": trying model "); found != std::string::npos;) {
    const std::size_t begin = log.rfind('\n', found) + 1;  // npos + 1 is 0
    log.erase(begin, log.find('\n', found) + 1 - begin);
    found = log.find(": trying model ", begin);
  }
  return log;
}

/// Expects that `call` returns `code` and logs one line: at error level, in the context "QET", with the text
/// "OPERATION: MESSAGE" and nothing more, located in the operation. A line about a trial may precede it.
template <typename Call>
void ExpectFailure(std::int32_t code, const std::string& operation, const std::string& message, Call&& call) {
  CapturedStandardError log;
  const std::int32_t status = call();
  const std::string text = WithoutTrials(log.Text());
  EXPECT_EQ(status, code) << text;
  EXPECT_THAT(text, testing::HasSubstr("Z ERROR - QET "));
  EXPECT_EQ(MessageOf(text), operation + ": " + message);
  EXPECT_THAT(text, testing::EndsWith(" " + operation + ")\n"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
}

}  // namespace Ormis::test
