// SPDX-License-Identifier: Apache-2.0

// Run folders and sweep folders that were changed on purpose: what cannot be is refused, with the reason, and
// takes neither endless time nor memory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <utility>

#include "error_of.h"
#include "folder_file.h"
#include "folder_lock.h"
#include "printable.h"
#include "report.h"
#include "run_reader.h"
#include "sanitizers.h"
#include "sweep_folder.h"
#include "synthetic_run.h"
#include "temporary_folder.h"

namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using namespace scope;

constexpr const char* kSamples =
    "second,time_s,engine,thread,operations,busy_ns,bytes,failures,p50_ns,p99_ns,max_ns\n";
constexpr const char* kSeconds =
    "second,time_s,engine,threads,operations,busy_ns,bytes,failures,p50_ns,p99_ns,max_ns\n";
constexpr const char* kHistogram = "engine,thread,low_ns,high_ns,count\n";

class HostileFolderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    RunInfo info = SyntheticInfo();
    info.durationS = 3;
    WriteRun(run_, {SyntheticEngine{}}, info);
    ASSERT_EQ(Error(), "no error");
  }

  std::string Error() const {
    return ErrorOf([this] { (void)ReadRun(run_); });
  }

  // A run whose samples and histogram are these rows. The rows of the engines have the same operations,
  // without latencies of their own.
  std::string ErrorWith(const std::string& samples, const std::string& histogram) const {
    std::map<std::pair<std::string, std::string>, std::uint64_t> operations;
    std::istringstream lines(samples);
    for (std::string second, timeS, engine, thread, count, rest;
         std::getline(lines, second, ',') && std::getline(lines, timeS, ',') &&
         std::getline(lines, engine, ',') && std::getline(lines, thread, ',') &&
         std::getline(lines, count, ',') && std::getline(lines, rest);) {
      operations[{second + ',' + timeS, engine}] += std::stoull(count);
    }
    std::string seconds;
    for (const auto& [row, count] : operations) {
      seconds += row.first + ',' + row.second + ",1," + std::to_string(count) + ",5,,0,0,0,0\n";
    }
    return ErrorWith(samples, histogram, seconds);
  }

  std::string ErrorWith(const std::string& samples, const std::string& histogram,
                        const std::string& seconds) const {
    folder_.Put("run/samples.csv", kSamples + samples);
    folder_.Put("run/seconds.csv", kSeconds + seconds);
    folder_.Put("run/histogram.csv", kHistogram + histogram);
    return Error();
  }

  std::string Replaced(const std::string& name) const {
    std::filesystem::remove(run_ + "/" + name);
    return run_ + "/" + name;
  }

  TemporaryFolder folder_;
  std::string run_ = folder_ / "run";
};

TEST_F(HostileFolderTest, APipeIsNotWaitedFor) {
  for (const char* const name : {"samples.csv", "run.json"}) {
    ASSERT_EQ(mkfifo(Replaced(name).c_str(), 0600), 0);
    EXPECT_THAT(Error(), HasSubstr(std::string(name) + ": not a regular file"));
  }
  ASSERT_EQ(mkfifo((folder_ / "sweep.json").c_str(), 0600), 0);
  EXPECT_THAT(ErrorOf([this] { (void)ReadSweep(folder_.Path()); }),
              HasSubstr("sweep.json: not a regular file"));
}

TEST_F(HostileFolderTest, ADeviceWithoutEndIsNotRead) {
  for (const char* const name : {"samples.csv", "run.json"}) {
    std::filesystem::create_symlink("/dev/zero", Replaced(name));
    EXPECT_THAT(Error(), HasSubstr(std::string(name) + ": not a regular file"));
  }
}

TEST_F(HostileFolderTest, AFileBeyondTheLimitIsRefused) {
  const std::string file = folder_.Put("large", "");
  std::filesystem::resize_file(file, (1 << 20) + 1);  // takes no room on the disk
  EXPECT_THAT(ErrorOf([&] { (void)ReadFolderFile(file, 1 << 20); }), HasSubstr("large: larger than 1 MiB"));
  std::filesystem::resize_file(file, 1 << 20);
  EXPECT_EQ(ReadFolderFile(file, 1 << 20)->size(), std::size_t{1} << 20);
  EXPECT_FALSE(ReadFolderFile(folder_ / "none", 1).has_value());
}

TEST_F(HostileFolderTest, DeepJsonIsRefused) {
  const auto nested = [](std::size_t levels) {
    return "{\"format\": 2, \"kind\": \"record\", \"x\": " + std::string(levels - 1, '[') +
           std::string(levels - 1, ']') + "}";
  };
  folder_.Put("run/run.json", nested(50'000));
  EXPECT_THAT(Error(), HasSubstr("run.json: more than 64 levels deep"));
  folder_.Put("run/run.json", nested(65));
  EXPECT_THAT(Error(), HasSubstr("run.json: more than 64 levels deep"));
  folder_.Put("run/run.json", nested(64));
  EXPECT_EQ(ErrorOf([this] { (void)ReadRunInfo(run_); }), "no error");
  folder_.Put("sweep.json", nested(50'000));
  EXPECT_THAT(ErrorOf([this] { (void)ReadSweep(folder_.Path()); }), HasSubstr("more than 64 levels deep"));
}

TEST_F(HostileFolderTest, ManyKeysInOneObjectAreRefused) {
  if (kSanitized) GTEST_SKIP() << "fifty million comparisons take a minute";
  std::string json = "{\"format\": 2";
  for (int i = 0; i < 200'000; ++i) json += ",\"" + std::to_string(i) + "\":0";
  folder_.Put("run/run.json", json + "}");
  EXPECT_THAT(Error(), HasSubstr("run.json: too many keys in one object"));
}

TEST_F(HostileFolderTest, ManyEnginesAreRefused) {
  std::string samples;
  std::string rates = "time_s,stress,fps\n";
  for (int i = 0; i < 4000; ++i) {
    samples += "1,1.000,engine" + std::to_string(i) + ",0,0,0,,0,0,0,0\n";
    rates += "1.000,stress" + std::to_string(i) + ",5\n";
  }
  EXPECT_THAT(ErrorWith(samples, ""),
              HasSubstr("samples.csv:66: expected at most 64 different names as engine"));
  EXPECT_EQ(ErrorWith("", ""), "no error");
  folder_.Put("run/rates.csv", rates);
  EXPECT_THAT(Error(), HasSubstr("rates.csv:66: expected at most 64 different names as stress"));
}

TEST_F(HostileFolderTest, ManyThreadsAndCountersAreReported) {
  std::string samples;
  std::string counters = "time_s,source,name,unit,value\n";
  constexpr int kMany = kSanitized ? 400 : 4000;
  for (int i = 0; i < kMany; ++i) {
    samples += "1,1.000,cpu," + std::to_string(i) + ",0,0,,0,0,0,0\n";
    counters += "1.000,thermal,zone" + std::to_string(i) + ",degC,50\n";
  }
  folder_.Put("run/counters.csv", counters);
  ASSERT_EQ(ErrorWith(samples, ""), "no error");
  EXPECT_THAT(ReportPage(ReadRuns({run_})), HasSubstr("zone" + std::to_string(kMany - 1)));
}

TEST_F(HostileFolderTest, NamesThatAreNoneAreRefused) {
  // FORMAT.md lists the characters that are refused.
  for (const std::string name :
       {"", "a b", "<script>", "caf\xc3\xa9", "a\033[31m", "a\\", "a'", "a<", "a>", "a&", "\"a\"\"b\""}) {
    EXPECT_THAT(ErrorWith("1,1.000," + name + ",0,0,0,,0,0,0,0\n", ""),
                HasSubstr("samples.csv:2: expected a short name"));
  }
}

TEST_F(HostileFolderTest, AThreadHasOneRowASecond) {
  const std::string once = "1,1.000,cpu,0,0,0,,0,0,0,0\n";
  const std::string twice = "2,2.000,cpu,0,0,0,,0,0,0,0\n";
  EXPECT_EQ(ErrorWith(once + "1,1.000,cpu,1,0,0,,0,0,0,0\n" + twice, ""), "no error");
  EXPECT_THAT(ErrorWith(once + once + twice, ""),
              HasSubstr("samples.csv:3: expected one row a second for cpu thread 0"));
  EXPECT_THAT(ErrorWith(twice + once, ""),
              HasSubstr("samples.csv:3: expected one row a second for cpu thread 0"));
  EXPECT_THAT(ErrorWith("1,-1.000,cpu,0,0,0,,0,0,0,0\n", ""),
              HasSubstr("samples.csv:2: expected a time from the start on"));
  const std::string soon = "3,2.000,cpu,0,0,0,,0,0,0,0\n";
  EXPECT_EQ(ErrorWith(once + twice + soon, ""), "no error") << "a program may end right after a second";
  EXPECT_THAT(ErrorWith(once, "", once + once),
              HasSubstr("seconds.csv:3: expected one row a second for cpu,"));
}

TEST_F(HostileFolderTest, CountsThatCannotBeAreRefused) {
  const std::string one = "cpu,0,5,6,1\n";
  EXPECT_EQ(ErrorWith("1,1.000,cpu,0,1,5,,0,5,5,5\n", one), "no error");
  EXPECT_THAT(ErrorWith("1,1.000,cpu,0,1,5,,0,6,5,7\n", one),
              HasSubstr("samples.csv:2: expected p50_ns, p99_ns and max_ns"));
  EXPECT_THAT(ErrorWith("1,1.000,cpu,0,1,5,,0,5,7,6\n", one),
              HasSubstr("samples.csv:2: expected p50_ns, p99_ns and max_ns"));
  EXPECT_THAT(ErrorWith("1,1.000,cpu,0,0,0,,0,5,5,5\n", ""),
              HasSubstr("samples.csv:2: expected latencies of 0"));
  EXPECT_THAT(ErrorWith("1,1.000,cpu,0,1,5,,0,5,5,3000000000\n", one),
              HasSubstr("samples.csv:2: an operation took longer than the run: max_ns is 3000000000"));
  EXPECT_THAT(ErrorWith("1,1.000,cpu,0,1,5,,0,5,5,5\n", "cpu,0,6,6,1\n"),
              HasSubstr("histogram.csv:2: expected low_ns below high_ns"));
}

TEST_F(HostileFolderTest, SamplesAndHistogramBelongTogether) {
  const std::string samples = "1,1.000,cpu,0,3,5,,0,5,5,5\n2,2.000,cpu,0,4,5,,0,5,5,5\n";
  EXPECT_EQ(ErrorWith(samples, "cpu,0,5,6,6\ncpu,0,6,7,1\n"), "no error");
  EXPECT_THAT(ErrorWith(samples, "cpu,0,5,6,8\n"),
              AllOf(HasSubstr("samples.csv has 7 operations of cpu thread 0, histogram.csv has 8"),
                    EndsWith("not of the same run. Copy the whole folder again, or record anew")));
  EXPECT_THAT(ErrorWith(samples, ""), HasSubstr("histogram.csv has 0"));
  EXPECT_THAT(ErrorWith(samples, "cpu,0,5,6,7\nvpc,1,5,6,1\n"),
              HasSubstr("samples.csv has 0 operations of vpc thread 1"));
  EXPECT_THAT(ErrorWith(samples, "cpu,0,5,6,18446744073709551615\ncpu,0,6,7,8\n"),
              HasSubstr("histogram.csv has 18446744073709551615"));
  EXPECT_THAT(ErrorWith(samples, "cpu,0,5,6,7\n", "1,1.000,cpu,1,6,5,,0,5,5,5\n"),
              HasSubstr("samples.csv has 7 operations of cpu, seconds.csv has 6"));
}

TEST_F(HostileFolderTest, ALockedFolderIsRefusedUntilTheLockGoes) {
  {
    const FolderLock lock(run_);
    EXPECT_THAT(ErrorOf([this] { const FolderLock second(run_); }),
                HasSubstr("run is in use: another stress_scope records into it, process " +
                          std::to_string(getpid())));
    EXPECT_THAT(ErrorOf([this] { const RunWriter writer(run_, true); }), HasSubstr("is in use"));
    EXPECT_EQ(Error(), "no error") << "readers need no lock";
  }
  EXPECT_EQ(ErrorOf([this] { const FolderLock again(run_); }), "no error");
}

TEST(Printable, ShowsWhatWouldControlATerminal) {
  EXPECT_EQ(Printable("plain text, caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x99\x82\tand\nmore"),
            "plain text, caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x99\x82\tand\nmore");
  EXPECT_EQ(Printable("\033[2J\r\b\a\x7f"), "\\x1b[2J\\x0d\\x08\\x07\\x7f");
  EXPECT_EQ(Printable("\xc2\x9b"
                      "31m"),
            "\\xc2\\x9b31m");  // the one character that begins a control sequence
  EXPECT_EQ(Printable("\xff\xc3"), "\\xff\\xc3");
  EXPECT_EQ(Printable(std::string("a\0b", 3)), "a\\x00b");
}

}  // namespace
