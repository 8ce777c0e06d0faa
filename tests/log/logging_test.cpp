// SPDX-License-Identifier: Apache-2.0
#include "ara/log/logging.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "allocation_count.h"
#include "log_files.h"
#include "system_calls.h"

namespace ara::log {
namespace {

using log_test::Line;
using log_test::ReadFile;
using log_test::ReadLog;
using log_test::SplitLines;
using log_test::TemporaryFolder;
using testing::EndsWith;
using testing::HasSubstr;

constexpr SourceLocation kHere{"stress_benchmark/src/cpu_stress.cpp", "runCpuStress", 42};
constexpr LogMode kNowhere = LogMode{0};

/// Logs to a file in the test's folder, at info level until the test calls Init again.
class Logging : public testing::Test {
 protected:
  Logging() { Init(LogLevel::kInfo); }
  ~Logging() override { InitLogging("STBM", "", LogLevel::kOff, kNowhere, ""); }

  void Init(LogLevel level, LogMode mode = LogMode::kFile) {
    InitLogging("STBM", "a test", level, mode, folder_.Path().string());
  }
  std::string Content() const { return ReadFile(folder_.File("STBM.log")); }
  std::vector<Line> Records() const { return ReadLog(folder_.File("STBM.log")); }

  TemporaryFolder folder_;
  Logger& logger_ = CreateLogger("STBM", "STBM", LogLevel::kVerbose);
};

TEST_F(Logging, WritesTimeLevelIdsThreadAndText) {
  // Not time(): its clock may lag the log's by a tick.
  const auto now = [] { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()); };
  std::time_t before = now();
  logger_.LogInfo(kHere) << ara::core::internal::StringView<char>("runCpuStress") << "() | "
                         << "CPU threadNum: " << 4U << std::string(" , memcpy Process start...");
  const std::time_t after = now();

  const std::string content = Content();
  const std::regex shape(
      R"((\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)\.\d{6}Z INFO STBM STBM (\d+) runCpuStress\(\) \| CPU threadNum: 4 , memcpy Process start\.\.\.\n)");
  std::smatch match;
  ASSERT_TRUE(std::regex_match(content, match, shape)) << content;
  EXPECT_EQ(match[2], std::to_string(syscall(SYS_gettid)));
  std::vector<std::string> possible;
  for (; before <= after; ++before) {
    std::tm fields{};
    char text[32];
    ASSERT_NE(gmtime_r(&before, &fields), nullptr);
    ASSERT_GT(std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &fields), 0U);
    possible.emplace_back(text);
  }
  EXPECT_THAT(possible, testing::Contains(match[1].str()));
}

TEST_F(Logging, EachFieldOfTheTimeHasItsWidth) {
  log_test::SystemCalls calls;
  std::timespec now{981173106, 7089};
  calls.onRealTime = [&] { return now; };
  logger_.LogInfo(kHere) << "text";
  now = {1700000000, 987654321};
  logger_.LogInfo(kHere) << "text";
  now = {-59000000000, 0};
  logger_.LogInfo(kHere) << "text";
  const std::vector<Line> records = Records();
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[0].time, "2001-02-03T04:05:06.000007Z");
  EXPECT_EQ(records[1].time, "2023-11-14T22:13:20.987654Z");
  EXPECT_EQ(records[2].time, "0100-05-13T15:06:40.000000Z");
}

TEST_F(Logging, NamesTheThreadThatWrites) {
  std::string id;
  std::thread([&] {
    id = std::to_string(syscall(SYS_gettid));
    logger_.LogInfo(kHere) << "text";
  }).join();
  ASSERT_EQ(Records().size(), 1U);
  EXPECT_EQ(Records()[0].threadId, id);
  EXPECT_NE(id, std::to_string(syscall(SYS_gettid)));
}

TEST_F(Logging, NamesTheSourceWhenTheApplicationLogsAtDebugLevel) {
  for (const LogLevel level : {LogLevel::kError, LogLevel::kInfo, LogLevel::kDebug, LogLevel::kVerbose}) {
    Init(level);
    logger_.LogError(kHere) << "text";
  }
  const std::vector<Line> records = Records();
  ASSERT_EQ(records.size(), 4U);
  EXPECT_EQ(records[0].text, "text");
  EXPECT_EQ(records[1].text, "text");
  EXPECT_EQ(records[2].text, "text (stress_benchmark/src/cpu_stress.cpp:42 runCpuStress)");
  EXPECT_EQ(records[3].text, records[2].text);
}

TEST_F(Logging, AcceptsALocationWithoutTexts) {
  Init(LogLevel::kDebug);
  logger_.LogDebug(SourceLocation{nullptr, nullptr, -1}) << "text";
  ASSERT_EQ(Records().size(), 1U);
  EXPECT_EQ(Records()[0].text, "text (?:0 ?)");
}

TEST_F(Logging, WritesNumbersOfEitherSign) {
  logger_.LogInfo(kHere) << 0 << " " << -1 << " " << INT_MIN << " " << INT_MAX << " " << 0U << " "
                         << UINT_MAX;
  ASSERT_EQ(Records().size(), 1U);
  EXPECT_EQ(Records()[0].text, "0 -1 -2147483648 2147483647 0 4294967295");
}

TEST_F(Logging, InsertsNothingForANullPointerOrAnEmptyText) {
  const char* none = nullptr;
  logger_.LogInfo(kHere) << "a" << none << ara::core::internal::StringView<char>() << std::string() << "b";
  ASSERT_EQ(Records().size(), 1U);
  EXPECT_EQ(Records()[0].text, "ab");
}

TEST_F(Logging, ARecordWithoutTextIsALine) {
  {
    const auto& stream = logger_.LogInfo(kHere);
    (void)stream;
  }
  ASSERT_EQ(SplitLines(Content()).size(), 1U);
}

TEST_F(Logging, KeepsARecordOnOneLine) {
  logger_.LogInfo(kHere) << "a\nb" << std::string("\r\n\x1b[31m") << "\x7f";
  ASSERT_EQ(Records().size(), 1U);
  EXPECT_EQ(Records()[0].text, "a\\nb\\r\\n\\x1b[31m\\x7f");
}

TEST_F(Logging, CutsAndMarksALongRecord) {
  const std::string full(LogStream::kTextCapacity, 'x');
  logger_.LogInfo(kHere) << full;
  logger_.LogInfo(kHere) << full << "y";
  logger_.LogInfo(kHere) << full.substr(1) << 12 << "dropped" << 3U << "dropped";
  logger_.LogInfo(kHere) << full.substr(1) << "\n" << "dropped, though there is room for a byte";
  const std::vector<Line> records = Records();
  ASSERT_EQ(records.size(), 4U);
  EXPECT_EQ(records[3].text, full.substr(1) + " [cut]");
  EXPECT_EQ(records[0].text, full);
  EXPECT_EQ(records[1].text, full + " [cut]");
  EXPECT_EQ(records[2].text, full.substr(1) + "1 [cut]");
}

TEST_F(Logging, KeepsTheLongestLineWithinAPipesAtomicSize) {
  const std::string longName(5000, '\x1b');
  InitLogging(std::string(200, 'A'), "", LogLevel::kDebug, LogMode::kFile, folder_.Path().string());
  const std::string path = folder_.File(std::string(200, 'A') + ".log");
  CreateLogger(std::string(100, 'L'), "", LogLevel::kVerbose)
          .LogDebug(SourceLocation{longName.c_str(), longName.c_str(), INT_MAX})
      << std::string(10000, 'x');
  const std::string content = ReadFile(path);
  EXPECT_LE(content.size(), 4096U);
  EXPECT_THAT(content, HasSubstr(" [cut] (\\x1b"));
  EXPECT_THAT(content, HasSubstr(":2147483647 \\x1b"));
  EXPECT_THAT(content, EndsWith(")\n"));
  EXPECT_THAT(content, HasSubstr(" DEBUG " + std::string(16, 'A') + " " + std::string(8, 'L') + " "));
}

TEST_F(Logging, CutsLongNamesOfTheSource) {
  Init(LogLevel::kDebug);
  const std::string file(600, 'f');
  const std::string function(600, 'g');
  logger_.LogInfo(SourceLocation{file.c_str(), function.c_str(), 3}) << "text";
  ASSERT_EQ(Records().size(), 1U);
  EXPECT_EQ(Records()[0].text, "text (" + file.substr(0, 512) + ":3 " + function.substr(0, 256) + ")");
}

TEST_F(Logging, ARecordHasToPassBothThresholds) {
  for (unsigned application = 0; application <= 6; ++application) {
    Init(static_cast<LogLevel>(application));
    for (unsigned own = 0; own <= 6; ++own) {
      const Logger& logger = CreateLogger("BOTH", "", static_cast<LogLevel>(own));
      EXPECT_FALSE(logger.IsEnabled(LogLevel::kOff));
      for (unsigned level = 1; level <= 6; ++level) {
        EXPECT_EQ(logger.IsEnabled(static_cast<LogLevel>(level)), level <= own && level <= application)
            << level << " of " << own << " and " << application;
      }
      const std::size_t before = Records().size();
      logger.LogError(kHere) << "ERROR";
      logger.LogWarn(kHere) << "WARN";
      logger.LogInfo(kHere) << "INFO";
      logger.LogDebug(kHere) << "DEBUG";
      std::string written;
      const std::vector<Line> records = Records();
      for (std::size_t i = before; i < records.size(); ++i) {
        EXPECT_EQ(records[i].level, records[i].text.substr(0, records[i].text.find(' ')));
        written += records[i].text.substr(0, 1);
      }
      const unsigned threshold = std::min(own, application);
      EXPECT_EQ(written, std::string("EWID").substr(0, threshold < 2 ? 0 : threshold - 1));
    }
  }
}

TEST_F(Logging, TheSameContextIsTheSameLoggerWithTheNewThreshold) {
  Logger& first = CreateLogger("SAME", "one", LogLevel::kError);
  EXPECT_FALSE(first.IsEnabled(LogLevel::kInfo));
  Logger& second = CreateLogger("SAME", "two", LogLevel::kInfo);
  EXPECT_EQ(&first, &second);
  EXPECT_TRUE(first.IsEnabled(LogLevel::kInfo));
  EXPECT_NE(&first, &CreateLogger("SAM", "", LogLevel::kInfo));
}

TEST_F(Logging, IdsAreCutAndContainNoBlanks) {
  CreateLogger("longerThanEight", "", LogLevel::kInfo).LogInfo(kHere) << "long";
  EXPECT_EQ(&CreateLogger("longerTh", "", LogLevel::kInfo), &CreateLogger("longerThis", "", LogLevel::kInfo));
  CreateLogger("a b\n\xc3", "", LogLevel::kInfo).LogInfo(kHere) << "odd";
  CreateLogger("", "", LogLevel::kInfo).LogInfo(kHere) << "none";
  CreateLogger("!~\x7f", "", LogLevel::kInfo).LogInfo(kHere) << "first and last of the printable ones";
  const std::vector<Line> records = Records();
  ASSERT_EQ(records.size(), 4U);
  EXPECT_EQ(records[3].contextId, "!~_");
  EXPECT_EQ(records[0].contextId, "longerTh");
  EXPECT_EQ(records[1].contextId, "a_b__");
  EXPECT_EQ(records[2].contextId, "-");
}

TEST_F(Logging, TheSettingsOfASecondCallReplaceTheFirst) {
  logger_.LogInfo(kHere) << "first";
  const TemporaryFolder other;
  InitLogging("OTHR", "", LogLevel::kWarn, LogMode::kFile, other.Path().string());
  logger_.LogInfo(kHere) << "dropped";
  logger_.LogWarn(kHere) << "second";
  ASSERT_EQ(Records().size(), 1U);
  const std::vector<Line> records = ReadLog(other.File("OTHR.log"));
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].appId, "OTHR");
  EXPECT_EQ(records[0].text, "second");

  Init(LogLevel::kInfo, kNowhere);
  logger_.LogError(kHere) << "nowhere";
  Init(LogLevel::kInfo);
  logger_.LogInfo(kHere) << "back";
  EXPECT_EQ(ReadLog(other.File("OTHR.log")).size(), 1U);
  EXPECT_EQ(Records().size(), 2U);
}

TEST_F(Logging, MakesNestedFoldersAndAppends) {
  const std::string nested = folder_.File("a/b/c");
  for (int i = 0; i < 2; ++i) {
    InitLogging("STBM", "", LogLevel::kInfo, LogMode::kFile, nested);
    logger_.LogInfo(kHere) << "text";
  }
  EXPECT_EQ(ReadLog(nested + "/STBM.log").size(), 2U);
}

TEST_F(Logging, RenamesAFileThatIsLargerThanTenMebibytes) {
  constexpr std::uintmax_t kLimit = 10485760;
  const std::string path = folder_.File("STBM.log");
  std::filesystem::resize_file(path, kLimit);
  Init(LogLevel::kInfo);
  EXPECT_FALSE(std::filesystem::exists(path + ".1"));
  logger_.LogInfo(kHere) << "past";
  testing::internal::CaptureStderr();
  Init(LogLevel::kInfo);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "nothing has failed";
  EXPECT_GT(std::filesystem::file_size(path + ".1"), kLimit);
  EXPECT_EQ(std::filesystem::file_size(path), 0U);
  logger_.LogInfo(kHere) << "text";
  EXPECT_EQ(Records().size(), 1U);

  std::filesystem::resize_file(path, kLimit + 1);
  Init(LogLevel::kInfo);
  EXPECT_EQ(std::filesystem::file_size(path + ".1"), kLimit + 1)
      << "it replaces the file that was renamed before";
}

TEST_F(Logging, AFileThatCannotBeRenamedIsReportedAndStaysInUse) {
  const std::string path = folder_.File("STBM.log");
  std::filesystem::resize_file(path, 10485761);
  std::filesystem::create_directories(path + ".1/occupied");
  testing::internal::CaptureStderr();
  Init(LogLevel::kInfo);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::AnyOf("ara::log: cannot move " + path + ": Is a directory\n",
                             "ara::log: cannot move " + path + ": Directory not empty\n"));
  logger_.LogInfo(kHere) << "text";
  EXPECT_GT(std::filesystem::file_size(path), 10485761U);
}

TEST_F(Logging, ANewFileIsReadableByAllAndWritableByItsOwner) {
  const mode_t mask = umask(0);
  InitLogging("MODE", "", LogLevel::kInfo, LogMode::kFile, folder_.Path().string());
  umask(mask);
  EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(folder_.File("MODE.log")).permissions()), 0644U);
}

TEST_F(Logging, EachFilesFirstLossIsReported) {
  testing::internal::CaptureStderr();
  std::string expected;
  for (const std::string app : {"ONE", "TWO"}) {
    std::filesystem::create_symlink("/dev/full", folder_.File(app + ".log"));
    InitLogging(app, "", LogLevel::kInfo, LogMode::kFile, folder_.Path().string());
    logger_.LogInfo(kHere) << "lost and reported";
    logger_.LogInfo(kHere) << "lost";
    expected += "ara::log: cannot write " + folder_.File(app + ".log") + ": No space left on device\n";
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
}

TEST_F(Logging, ALongPathIsReportedWithItsFirst1023Bytes) {
  std::string directory = folder_.Path().string();
  for (int i = 0; i < 5; ++i) directory += "/" + std::string(240, 'd');
  std::filesystem::create_directories(directory);
  std::filesystem::create_symlink("/dev/full", directory + "/FULL.log");
  testing::internal::CaptureStderr();
  InitLogging("FULL", "", LogLevel::kInfo, LogMode::kFile, directory);
  logger_.LogInfo(kHere) << "lost";
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ara::log: cannot write " + directory.substr(0, 1023) + ": No space left on device\n");
}

TEST_F(Logging, AMessageAboutASinkStaysWithinAPipesAtomicSize) {
  testing::internal::CaptureStderr();
  InitLogging("STBM", "", LogLevel::kInfo, LogMode::kFile, std::string(4000, '\x1b'));
  const std::string message = testing::internal::GetCapturedStderr();
  EXPECT_LE(message.size(), 4096U);
  EXPECT_THAT(message, testing::StartsWith("ara::log: cannot make folder \\x1b\\x1b"));
  EXPECT_THAT(message, EndsWith("\n"));
}

TEST_F(Logging, KeepsErrno) {
  errno = EDOM;
  logger_.LogInfo(kHere) << "text";
  EXPECT_EQ(errno, EDOM);
  logger_.LogDebug(kHere) << "dropped";
  EXPECT_EQ(errno, EDOM);

  std::filesystem::create_symlink("/dev/full", folder_.File("FULL.log"));
  InitLogging("FULL", "", LogLevel::kInfo, LogMode::kFile, folder_.Path().string());
  testing::internal::CaptureStderr();
  errno = EDOM;
  logger_.LogInfo(kHere) << "lost";
  EXPECT_EQ(errno, EDOM);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("No space left on device"));
}

TEST_F(Logging, HandsARecordOverInOneWrite) {
#if __has_feature(undefined_behavior_sanitizer)
  GTEST_SKIP() << "the sanitizer makes writes itself";
#endif
  const auto writes = [] {
    const std::string counters = ReadFile("/proc/thread-self/io");
    const std::size_t at = counters.find("syscw: ");
    return at == std::string::npos ? -1 : std::stol(counters.substr(at + std::strlen("syscw: ")));
  };
  if (writes() < 0) GTEST_SKIP() << "this kernel does not count writes";
  const long before = writes();
  logger_.LogInfo(kHere) << "a record" << 1 << std::string(2000, 'x') << 2U;
  EXPECT_EQ(writes() - before, 1);
  logger_.LogDebug(kHere) << "of a disabled level";
  EXPECT_EQ(writes() - before, 1);
}

TEST_F(Logging, AllocatesNothingForARecord) {
  if (!log_test::CountsAllocations()) GTEST_SKIP() << "a sanitizer's allocator cannot be replaced";
  const std::string longText(5000, '\n');
  long before = log_test::AllocationsOfThisThread();
  const auto probe = std::make_unique<std::string>(1000, 'x');
  ASSERT_EQ(log_test::AllocationsOfThisThread() - before, 2) << "the counter does not count";

  Init(LogLevel::kDebug, LogMode::kFile | LogMode::kConsole);
  testing::internal::CaptureStderr();
  before = log_test::AllocationsOfThisThread();
  CreateLogger("ALLO", "", LogLevel::kVerbose).LogDebug(kHere) << longText << 1 << 2U << "text";
  logger_.LogInfo(kHere) << *probe << -1;
  const long allocations = log_test::AllocationsOfThisThread() - before;
  EXPECT_EQ(allocations, 0);
  EXPECT_EQ(SplitLines(testing::internal::GetCapturedStderr()).size(), 2U);

  std::filesystem::create_symlink("/dev/full", folder_.File("FULL.log"));
  InitLogging("FULL", "", LogLevel::kInfo, LogMode::kFile, folder_.Path().string());
  testing::internal::CaptureStderr();
  before = log_test::AllocationsOfThisThread();
  logger_.LogInfo(kHere) << "lost";
  EXPECT_EQ(log_test::AllocationsOfThisThread() - before, 0) << "a lost record";
  testing::internal::GetCapturedStderr();
}

TEST_F(Logging, WithoutMemoryItSaysThatItCannotStartAndKeepsItsSettings) {
  if (!log_test::CountsAllocations()) GTEST_SKIP() << "a sanitizer's allocator cannot be replaced";
  const std::string app = "NEXT";
  const std::string none;
  testing::internal::CaptureStderr();
  log_test::FailNextAllocation();
  InitLogging(app, none, LogLevel::kOff, kNowhere, none);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ara::log: cannot start logging for NEXT: std::bad_alloc\n");
  logger_.LogInfo(kHere) << "text";
  ASSERT_EQ(Records().size(), 1U);
  EXPECT_EQ(Records()[0].appId, "STBM");
}

TEST_F(Logging, TheConsoleIsStandardErrorAndTheFileGetsTheSame) {
  Init(LogLevel::kInfo, LogMode::kFile | LogMode::kConsole);
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  logger_.LogInfo(kHere) << "both";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), Content());
  ASSERT_EQ(Records().size(), 1U);
}

const Logger* handlerLogger = nullptr;

void LogInHandler(int signal) {
  errno = 0;  // as a careless handler may do
  handlerLogger->LogError(kHere) << "inner " << signal;
}

TEST_F(Logging, AHandlerLogsInTheMiddleOfARecord) {
  handlerLogger = &logger_;
  const auto old = std::signal(SIGUSR1, LogInHandler);
  const auto interrupted = [](const char* text) {
    (void)std::raise(SIGUSR1);
    return text;
  };
  logger_.LogInfo(kHere) << "outer " << interrupted("one") << interrupted(" two");
  (void)std::signal(SIGUSR1, old);
  const std::vector<Line> records = Records();
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[0].text, "inner " + std::to_string(SIGUSR1));
  EXPECT_EQ(records[1].text, records[0].text);
  EXPECT_EQ(records[2].text, "outer one two");
}

TEST_F(Logging, ItsFileIsNotInheritedByAnotherProgram) {
  logger_.LogInfo(kHere) << "text";
  const std::string target = std::filesystem::canonical(folder_.File("STBM.log")).string();
  int found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    if (std::filesystem::read_symlink(entry.path(), error).string() != target) continue;
    ++found;
    const std::string info = ReadFile("/proc/self/fdinfo/" + entry.path().filename().string());
    std::smatch match;
    ASSERT_TRUE(std::regex_search(info, match, std::regex(R"(flags:\s+([0-7]+))"))) << info;
    const int flags = std::stoi(match[1], nullptr, 8);
    EXPECT_NE(flags & O_CLOEXEC, 0);
    EXPECT_NE(flags & O_APPEND, 0);
  }
  EXPECT_EQ(found, 1);
}

}  // namespace
}  // namespace ara::log
