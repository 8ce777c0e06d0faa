// SPDX-License-Identifier: Apache-2.0

// The remote sink as InitLogging, the loggers and the end of the process use it, with a fake port. A process
// has one remote sink, so each test runs in a child process.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "ara/log/logging.h"
#include "fake_port.h"
#include "log_files.h"
#include "remote_port.h"

namespace {

std::function<std::unique_ptr<ara::log::RemotePort>(bool silent, std::string* reason)> makePort;
int portsMade = 0;

}  // namespace

namespace ara::log {

// Replaces the function that creates the port to the daemon.
std::unique_ptr<RemotePort> MakeDltPort(bool silent, std::string* reason) {
  ++portsMade;
  return makePort(silent, reason);
}

namespace {

using log_test::FakePort;
using log_test::Receiver;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr SourceLocation kHere{"tests/log/remote_logging_test.cpp", "Here", 7};

class RemoteLogging : public testing::Test {
 protected:
  RemoteLogging() {
    makePort = [this](bool, std::string*) { return std::make_unique<FakePort>(receiver_); };
  }

  /// Runs `body` in a child process, which then exits. A failure there is a failure of the test. Returns the
  /// child's standard error.
  std::string InChildProcess(const std::function<void()>& body) const {
    const std::string errors = folder_.File("errors");
    (void)std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      const int file = open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
      (void)dup2(file, STDERR_FILENO);
      body();
      std::exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "the child process failed, see above";
    return log_test::ReadFile(errors);
  }

  static void Init(LogMode mode = LogMode::kRemote, const std::string& appId = "STBM",
                   const std::string& description = "a test") {
    InitLogging(appId, description, LogLevel::kInfo, mode, "");
  }
  static Logger& TheLogger() { return CreateLogger("RMT", "the context", LogLevel::kVerbose); }

  log_test::TemporaryFolder folder_;
  Receiver receiver_;
};

TEST_F(RemoteLogging, ARecordCarriesItsContextLevelThreadAndText) {
  const std::string errors = InChildProcess([this] {
    InitLogging("STBM", "a test", LogLevel::kDebug, LogMode::kRemote, "");
    Logger& other = CreateLogger("OTHER", "another context", LogLevel::kVerbose);
    TheLogger().LogWarn(kHere) << "one " << 1;
    other.LogDebug(kHere) << "two";
    TheLogger().LogInfo(kHere) << "three";
    receiver_.WaitFor(3);
    EXPECT_THAT(receiver_.Texts(), ElementsAre("one 1 (tests/log/remote_logging_test.cpp:7 Here)",
                                               "two (tests/log/remote_logging_test.cpp:7 Here)",
                                               "three (tests/log/remote_logging_test.cpp:7 Here)"));
    const auto idOf = [](const RemoteRecord& record) {
      char id[sizeof record.header.contextId + 1] = {};
      std::memcpy(id, &record.header.contextId, sizeof record.header.contextId);
      return std::string(id);
    };
    EXPECT_EQ(idOf(receiver_.records[0]), "RMT");
    EXPECT_EQ(idOf(receiver_.records[1]), "OTHER");
    EXPECT_STREQ(receiver_.records[0].header.contextDescription, "the context");
    EXPECT_STREQ(receiver_.records[1].header.contextDescription, "another context");
    EXPECT_NE(receiver_.records[0].header.context, receiver_.records[1].header.context);
    EXPECT_EQ(receiver_.records[0].header.context, receiver_.records[2].header.context);
    EXPECT_EQ(receiver_.records[0].header.level, LogLevel::kWarn);
    EXPECT_EQ(receiver_.records[1].header.level, LogLevel::kDebug);
    EXPECT_EQ(receiver_.records[0].header.threadId, static_cast<std::uint32_t>(syscall(SYS_gettid)));
    EXPECT_THAT(receiver_.calls, ElementsAre("open", "application STBM a test"));
  });
  EXPECT_EQ(errors, "") << "the remote sink is the only one";
}

TEST_F(RemoteLogging, TheFirstDescriptionOfAContextIsKept) {
  InChildProcess([this] {
    Init();
    CreateLogger("RMT", "first", LogLevel::kInfo);
    CreateLogger("RMT", "second", LogLevel::kInfo).LogInfo(kHere) << "text";
    receiver_.WaitFor(1);
    EXPECT_STREQ(receiver_.records[0].header.contextDescription, "first");
  });
}

TEST_F(RemoteLogging, ADescriptionIsEscapedAndCutTo127Bytes) {
  InChildProcess([this] {
    Init();
    CreateLogger("LONG", std::string(200, 'd'), LogLevel::kInfo).LogInfo(kHere) << "text";
    CreateLogger("ODD", "two\nlines", LogLevel::kInfo).LogInfo(kHere) << "text";
    CreateLogger("NONE", "", LogLevel::kInfo).LogInfo(kHere) << "text";
    receiver_.WaitFor(3);
    EXPECT_EQ(receiver_.records[0].header.contextDescription, std::string(127, 'd'));
    EXPECT_STREQ(receiver_.records[1].header.contextDescription, "two\\nlines");
    EXPECT_STREQ(receiver_.records[2].header.contextDescription, "");
  });
}

TEST_F(RemoteLogging, TheApplicationsIdIsTheSameAsInTheLines) {
  InChildProcess([this] {
    Init(LogMode::kRemote, "MY APPLICATION'S NAME", "described");
    TheLogger().LogInfo(kHere) << "text";
    receiver_.WaitFor(1);
    EXPECT_THAT(receiver_.calls, ElementsAre("open", "application MY_APPLICATION'S described"));
  });
}

TEST_F(RemoteLogging, ASecondInitLoggingSetsTheApplicationAndKeepsThePort) {
  InChildProcess([this] {
    Init();
    TheLogger().LogInfo(kHere) << "one";
    receiver_.WaitFor(1);
    Init(LogMode::kRemote, "OTHR", "another");
    TheLogger().LogInfo(kHere) << "two";
    receiver_.WaitFor(2);
    EXPECT_EQ(portsMade, 1);
    EXPECT_THAT(receiver_.calls, ElementsAre("open", "application STBM a test", "application OTHR another"));
  });
}

TEST_F(RemoteLogging, WithoutItsModeItGetsNoRecords) {
  const std::string errors = InChildProcess([this] {
    Init(LogMode::kConsole);
    TheLogger().LogInfo(kHere) << "before";
    EXPECT_EQ(portsMade, 0);
    Init(LogMode::kRemote);
    TheLogger().LogInfo(kHere) << "text";
    receiver_.WaitFor(1);
    Init(LogMode::kConsole);
    TheLogger().LogInfo(kHere) << "after";
    EXPECT_THAT(receiver_.Texts(), ElementsAre("text"));
  });
  EXPECT_THAT(errors, HasSubstr(" before\n"));
  EXPECT_THAT(errors, HasSubstr(" after\n"));
  EXPECT_EQ(log_test::SplitLines(errors).size(), 2U) << errors;
}

TEST_F(RemoteLogging, AMissingPortIsReportedOnceAndTheOtherSinksWork) {
  const std::string errors = InChildProcess([this] {
    makePort = [](bool silent, std::string* reason) {
      EXPECT_FALSE(silent) << "the process has a standard error";
      *reason = "none here";
      return nullptr;
    };
    Init(LogMode::kRemote | LogMode::kConsole);
    Init(LogMode::kRemote | LogMode::kConsole);
    EXPECT_EQ(portsMade, 2) << "each InitLogging tries again";
    TheLogger().LogInfo(kHere) << "text";
    EXPECT_THAT(receiver_.calls, IsEmpty());
  });
  const std::vector<std::string> lines = log_test::SplitLines(errors);
  ASSERT_EQ(lines.size(), 2U) << errors;
  EXPECT_EQ(lines[0], "ara::log: the remote sink is not available: none here");
  EXPECT_EQ(log_test::ParseLine(lines[1]).text, "text");
}

TEST_F(RemoteLogging, ABuildWithoutThePortSaysSo) {
  const std::string errors = InChildProcess([] {
    makePort = [](bool, std::string*) { return nullptr; };
    Init();
  });
  EXPECT_EQ(errors, "ara::log: the remote sink is not available in this build\n");
}

TEST_F(RemoteLogging, APortThatCannotBeOpenedIsReportedAndTriedAgainByTheNextInitLogging) {
  const std::string errors = InChildProcess([this] {
    receiver_.failure = "no way";
    Init();
    TheLogger().LogInfo(kHere) << "nowhere";
    receiver_.failure = nullptr;
    Init();
    TheLogger().LogInfo(kHere) << "text";
    receiver_.WaitFor(1);
    EXPECT_THAT(receiver_.Texts(), ElementsAre("text"));
  });
  EXPECT_EQ(errors, "ara::log: the remote sink is not available: no way\n");
}

TEST_F(RemoteLogging, TheExitForwardsQueuedRecordsAndClosesThePort) {
  const std::string errors = InChildProcess([this] {
    // Registered first, so that it runs last: after the sink has been stopped.
    static Receiver* const receiver = &receiver_;
    (void)std::atexit([] {
      if (receiver->texts.size() != 100 || receiver->calls.back() != "close") _exit(2);
    });
    Init();
    for (int i = 0; i < 100; ++i) TheLogger().LogInfo(kHere) << "text";
  });
  EXPECT_EQ(errors, "") << "nothing is lost, so nothing is reported";
}

TEST_F(RemoteLogging, TheExitReportsHowManyRecordsAreLost) {
  const std::string errors = InChildProcess([this] {
    Init();
    receiver_.state = RemotePort::State::kAway;
    for (int i = 0; i < 3; ++i) TheLogger().LogInfo(kHere) << "lost";
  });
  EXPECT_EQ(errors, "ara::log: records lost on the way to the DLT daemon: 3\n");
}

TEST_F(RemoteLogging, ASingleLossIsReportedToo) {
  const std::string errors = InChildProcess([this] {
    Init();
    receiver_.refuses = true;
    TheLogger().LogInfo(kHere) << "lost";
    while (receiver_.refused < 1) std::this_thread::yield();
  });
  EXPECT_EQ(errors, "ara::log: records lost on the way to the DLT daemon: 1\n");
}

TEST_F(RemoteLogging, ACountThatMayBeTooHighSaysSo) {
  const std::string errors = InChildProcess([this] {
    Init();
    TheLogger().LogInfo(kHere) << "text";
    receiver_.leftBehindAtEnd = 2;
  });
  EXPECT_EQ(errors, "ara::log: records lost on the way to the DLT daemon: up to 2\n");
}

TEST_F(RemoteLogging, AForkedProcessLogsToStandardErrorInstead) {
  const std::string errors = InChildProcess([this] {
    Init();
    TheLogger().LogInfo(kHere) << "parent";
    receiver_.WaitFor(1);
    const pid_t child = fork();
    if (child == 0) {
      TheLogger().LogInfo(kHere) << "child";
      _exit(0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    TheLogger().LogInfo(kHere) << "parent again";
    receiver_.WaitFor(2);
    EXPECT_THAT(receiver_.Texts(), ElementsAre("parent", "parent again"));
  });
  const std::vector<std::string> lines = log_test::SplitLines(errors);
  ASSERT_EQ(lines.size(), 1U) << errors;
  EXPECT_EQ(log_test::ParseLine(lines[0]).text, "child");
}

TEST_F(RemoteLogging, TheFileGetsEachRecordToo) {
  InChildProcess([this] {
    InitLogging("STBM", "a test", LogLevel::kInfo, LogMode::kRemote | LogMode::kFile,
                folder_.Path().string());
    TheLogger().LogInfo(kHere) << "text";
    receiver_.WaitFor(1);
  });
  ASSERT_EQ(log_test::ReadLog(folder_.File("STBM.log")).size(), 1U);
}

}  // namespace
}  // namespace ara::log
