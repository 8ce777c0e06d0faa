// SPDX-License-Identifier: Apache-2.0

// Logging in another process: log_probe, run in the test's folder.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "log_files.h"
#include "sanitizers.h"

namespace {

using log_test::Line;
using log_test::ParseLine;
using log_test::ReadFile;
using log_test::ReadLog;
using log_test::SplitLines;
using testing::HasSubstr;
using testing::MatchesRegex;

class LogProbe : public testing::Test {
 protected:
  /// Runs the probe and puts its output into out_ and its standard error into err_. The descriptors in
  /// `closed` are closed when it starts.
  void Run(const std::vector<std::string>& words, const std::vector<int>& closed = {}) {
    std::vector<std::string> arguments = {LOG_PROBE};
    arguments.insert(arguments.end(), words.begin(), words.end());
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    ASSERT_EQ(posix_spawn_file_actions_init(&actions), 0);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND;
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, folder_.File("out").c_str(), kFlags, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, folder_.File("err").c_str(), kFlags, 0644);
    for (const int descriptor : closed) posix_spawn_file_actions_addclose(&actions, descriptor);
    posix_spawn_file_actions_addchdir_np(&actions, folder_.Path().c_str());
    pid_t child = -1;
    const int result = posix_spawn(&child, LOG_PROBE, &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ASSERT_EQ(result, 0);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    out_ = ReadFile(folder_.File("out"));
    err_ = ReadFile(folder_.File("err"));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << out_ << err_;
  }

  std::vector<Line> ErrorRecords() const {
    std::vector<Line> records;
    for (const std::string& line : SplitLines(err_)) records.push_back(ParseLine(line));
    return records;
  }
  std::vector<Line> FileRecords() const { return ReadLog(folder_.File("log/STBM.log")); }

  log_test::TemporaryFolder folder_;
  std::string out_;
  std::string err_;
};

TEST_F(LogProbe, EveryRecordGoesToStandardErrorBeforeInitLogging) {
  Run({"logger", "TPW", "6", "error", "one", "debug", "two"});
  const std::vector<Line> records = ErrorRecords();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].level, "ERROR");
  EXPECT_EQ(records[0].appId, "-");
  EXPECT_EQ(records[0].contextId, "TPW");
  EXPECT_EQ(records[0].text, "one (tests/log/log_probe.cpp:7 Probe)");
  EXPECT_EQ(records[1].level, "DEBUG");
  EXPECT_EQ(out_, "");
  EXPECT_FALSE(std::filesystem::exists(folder_.Path() / "log"));
}

TEST_F(LogProbe, ALoggersOwnThresholdAppliesBeforeInitLogging) {
  Run({"logger", "TPW", "3", "warn", "one", "info", "two", "logger", "TPW", "0", "error", "three"});
  EXPECT_EQ(ErrorRecords().size(), 1U);
}

TEST_F(LogProbe, ARecordIsWrittenBeforeAnyLibraryIsInitialised) {
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  GTEST_SKIP() << "a sanitizer is not initialised that early";
#endif
  Run({"early", "loggers", "1"});
  const std::vector<Line> records = ErrorRecords();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].contextId, "EARL");
  EXPECT_EQ(records[1].contextId, "C0");
}

TEST_F(LogProbe, TheModesBitsChooseTheSinks) {
  const std::vector<std::string> record = {"logger", "STBM", "6", "error", "text"};
  // The remote sink is tested elsewhere.
  for (const int mode : {0, 2, 4, 6}) {
    std::filesystem::remove_all(folder_.Path() / "log");
    std::vector<std::string> words = {"init", "STBM", "4", std::to_string(mode), "./log"};
    words.insert(words.end(), record.begin(), record.end());
    Run(words);
    const bool file = (mode & 2) != 0;
    const bool consoleToo = (mode & 4) != 0;
    const std::vector<std::string> lines = SplitLines(err_);
    ASSERT_EQ(lines.size(), consoleToo ? 1U : 0U) << mode << "\n" << err_;
    if (consoleToo) {
      EXPECT_EQ(ParseLine(lines.back()).appId, "STBM");
    }
    EXPECT_EQ(FileRecords().size(), file ? 1U : 0U) << mode;
    EXPECT_EQ(std::filesystem::exists(folder_.Path() / "log"), file) << mode;
    EXPECT_EQ(out_, "");
  }
}

TEST_F(LogProbe, AFileInPlaceOfTheFolderIsReportedInOneLine) {
  std::ofstream(folder_.Path() / "log") << "in the way";
  Run({"init", "STBM", "4", "2", "./log", "logger", "STBM", "4", "error", "one", "error", "two"});
  EXPECT_THAT(err_, MatchesRegex("ara::log: cannot make folder ./log: [^\n]+\n"));
  EXPECT_THAT(err_, testing::AnyOf(HasSubstr("Not a directory"), HasSubstr("File exists")));
  EXPECT_EQ(ReadFile(folder_.File("log")), "in the way");

  Run({"init", "STBM", "4", "6", "./log", "logger", "STBM", "4", "error", "one"});
  ASSERT_EQ(SplitLines(err_).size(), 2U);
  EXPECT_EQ(ParseLine(SplitLines(err_)[1]).text, "one") << "the console works nevertheless";
}

TEST_F(LogProbe, AFolderInPlaceOfTheFileIsReportedInOneLine) {
  std::filesystem::create_directories(folder_.Path() / "log" / "STBM.log");
  Run({"init", "STBM", "4", "2", "./log", "logger", "STBM", "4", "error", "one", "error", "two"});
  EXPECT_EQ(err_, "ara::log: cannot open ./log/STBM.log: Is a directory\n");
}

TEST_F(LogProbe, APipeInPlaceOfTheFileDoesNotBlockInitLogging) {
  std::filesystem::create_directories(folder_.Path() / "log");
  ASSERT_EQ(mkfifo(folder_.File("log/STBM.log").c_str(), 0644), 0);
  Run({"init", "STBM", "4", "2", "./log", "logger", "STBM", "4", "error", "one"});
  EXPECT_EQ(err_, "ara::log: cannot open ./log/STBM.log: No such device or address\n");
}

TEST_F(LogProbe, APathIsReportedOnOneLine) {
  std::ofstream(folder_.Path() / "a\nb") << "in the way";
  Run({"init", "STBM", "4", "2", "a\nb"});
  EXPECT_THAT(err_, MatchesRegex("ara::log: cannot make folder a\\\\nb: [^\n]+\n"));
}

TEST_F(LogProbe, AFullDiskIsReportedOnceAndTheConsoleStillWorks) {
  std::filesystem::create_directories(folder_.Path() / "log");
  std::filesystem::create_symlink("/dev/full", folder_.Path() / "log" / "STBM.log");
  Run({"init", "STBM", "4", "2", "./log", "logger", "STBM", "4", "error", "one", "error", "two", "error",
       "three"});
  EXPECT_EQ(err_, "ara::log: cannot write ./log/STBM.log: No space left on device\n");
  Run({"init", "STBM", "4", "6", "./log", "logger", "STBM", "4", "error", "one", "error", "two"});
  EXPECT_EQ(SplitLines(err_).size(), 3U) << err_;
}

TEST_F(LogProbe, AnEmptyDirectoryIsTheWorkingDirectory) {
  Run({"init", "STBM", "4", "2", "", "logger", "STBM", "4", "error", "one"});
  EXPECT_EQ(ReadLog(folder_.File("STBM.log")).size(), 1U);
  EXPECT_EQ(err_, "");
}

TEST_F(LogProbe, MoreContextsThan64ShareTheLastOne) {
  Run({"loggers", "70"});
  const std::vector<Line> records = ErrorRecords();
  ASSERT_EQ(records.size(), 70U);
  for (int i = 0; i < 70; ++i) {
    const Line& record = records[static_cast<std::size_t>(i)];
    EXPECT_EQ(record.contextId, "C" + std::to_string(i < 64 ? i : 63));
    EXPECT_THAT(record.text, testing::StartsWith("C" + std::to_string(i) + " "));
  }
}

TEST_F(LogProbe, TheSharedContextGetsTheThresholdOfTheLastCaller) {
  Run({"loggers", "64", "logger", "MORE", "2", "error", "error of MORE", "info", "info of MORE"});
  const std::vector<Line> records = ErrorRecords();
  ASSERT_EQ(records.size(), 65U);
  EXPECT_EQ(records[64].contextId, "C63");
  EXPECT_THAT(records[64].text, testing::StartsWith("error of MORE"));
}

TEST_F(LogProbe, WithoutStandardErrorTheLogGoesToNoOtherFile) {
  Run({"open", "mine",  "logger", "TPW",  "6", "error", "before", "init",  "STBM", "4",
       "6",    "./log", "logger", "STBM", "4", "error", "after",  "write", "2",    "my own"},
      {STDERR_FILENO});
  EXPECT_EQ(out_, "2\n") << "the file should have got the descriptor of standard error";
  EXPECT_EQ(ReadFile(folder_.File("mine")), "my own");
  ASSERT_EQ(FileRecords().size(), 1U);
  EXPECT_EQ(FileRecords()[0].text, "after");
}

TEST_F(LogProbe, WithoutStandardErrorAProgramStillStartsWithoutAnError) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer's own start may leave an error";
  Run({"errno"}, {STDERR_FILENO});
  EXPECT_EQ(out_, "0\n");
}

TEST_F(LogProbe, TheLogFileNeverGetsTheDescriptorOfAStandardStream) {
  Run({"init", "STBM", "4", "6", "./log", "logger", "STBM", "4", "error", "text", "write", "0", "foreign",
       "write", "2", "foreign"},
      {STDIN_FILENO, STDERR_FILENO});
  EXPECT_EQ(out_, "not written\nnot written\n");
  EXPECT_EQ(FileRecords().size(), 1U);
}

TEST_F(LogProbe, AForkedProcessLogsToTheSameFile) {
  Run({"init", "STBM", "4", "2", "./log", "logger", "STBM", "4", "fork", "from"});
  const std::vector<Line> records = FileRecords();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_NE(records[0].threadId, records[1].threadId);
  EXPECT_NE(records[0].text, records[1].text);
}

TEST_F(LogProbe, SignalHandlersLogDuringInitLogging) {
  Run({"init-under-signals", "./log"});
  const std::vector<Line> before = ErrorRecords();
  const std::vector<Line> after = ReadLog(folder_.File("log/PROB.log"));
  EXPECT_EQ(std::to_string(before.size() + after.size()) + "\n", out_);
  EXPECT_GE(before.size(), 100U);
  EXPECT_GE(after.size(), 1U);
  std::size_t tick = 0;
  for (const std::vector<Line>* part : {&before, &after}) {
    for (const Line& record : *part) {
      EXPECT_EQ(record.text, "tick " + std::to_string(tick++) + " (tests/log/log_probe.cpp:7 Probe)");
      EXPECT_EQ(record.appId, part == &before ? "-" : "PROB");
    }
  }
}

}  // namespace
