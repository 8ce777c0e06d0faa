// SPDX-License-Identifier: Apache-2.0

// Runs stress_scope as a user does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "child_process.h"
#include "latency_buckets.h"
#include "protocol.h"
#include "run_reader.h"
#include "run_tool.h"
#include "sanitizers.h"
#include "temporary_folder.h"

namespace {

using scope::ChildProcess;
using ::testing::_;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::Pair;

class ProgramTest : public ::testing::Test {
 protected:
  static ChildProcess::Options Tool(std::vector<std::string> arguments) {
    return ProgramOptions(STRESS_SCOPE, std::move(arguments));
  }

  std::string Script(const std::string& body) const {
    const std::string path = folder_.Put("benchmark", "#!/bin/bash\n" + body + "\n");
    (void)chmod(path.c_str(), 0755);
    return path;
  }

  std::string Config() const { return folder_.Put("config.yaml", "CPU:\n  Level: 1\n"); }

  // Records a script, which has no meter.
  ToolResult RecordScript(const std::string& body, std::vector<std::string> more = {}) const {
    std::vector<std::string> arguments = {"record",      Config(),     "-o",        folder_ / "run",
                                          "--benchmark", Script(body), "--no-meter"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return RunTool(arguments);
  }

  TemporaryFolder folder_;
};

constexpr const char* kRateLine = "cpuStress : 5.000000 fps. ispStress : 30.0 fps.";

TEST_F(ProgramTest, RecordsTheRealBenchmarkUntilSigint) {
  const std::string config =
      folder_.Put("all.yaml",
                  "logMode: 4\nlogLevel: 4\nrunTimes: 600\nCPU:\n  Level: 1\nVPC:\n  Level: 2\n"
                  "VENC:\n  Level: 1\nAIC:\n  Level: 1\n  File: " EXAMPLE_NETWORK "\n");
  ChildProcess child(Tool({"record", config, "-o", folder_ / "run", "--label", "a label", "--grace", "120"}));
  // Waits until every engine has worked for a second, even on a slow machine.
  const std::string samples = "run/samples.csv";
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(240);
  while (folder_.Get(samples).find("\n2,") == std::string::npos ||
         folder_.Get(samples).find(",aic,") == std::string::npos ||
         folder_.Get("run/rates.csv").find("aicStress") == std::string::npos) {
    ASSERT_LT(std::chrono::steady_clock::now(), giveUp) << folder_.Get(samples);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  child.Signal(SIGINT);
  const ToolResult result = WaitFor(child);
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(result.output, HasSubstr("saved in " + (folder_ / "run")));
  EXPECT_THAT(result.output, Not(HasSubstr("\033")));
  EXPECT_THAT(result.output, AllOf(HasSubstr("printed fps"), HasSubstr("\n  all ")));

  const scope::Run run = scope::ReadRun(folder_ / "run");
  EXPECT_TRUE(run.info.complete) << run.info.incompleteReason;
  EXPECT_TRUE(run.info.conditions.meter);
  EXPECT_EQ(run.info.label, "a label");
  EXPECT_EQ(run.info.signal, 0);
  EXPECT_EQ(run.info.counters.size(), 10U);
  std::map<std::string, std::uint64_t> operations;
  std::map<std::string, std::uint64_t> bytes;
  std::map<std::string, std::uint64_t> counted;
  for (const scope::Sample& sample : run.samples) {
    operations[sample.engine] += sample.operations;
    ASSERT_TRUE(sample.bytes.has_value()) << sample.engine;
    bytes[sample.engine] += *sample.bytes;
    EXPECT_EQ(sample.failures, 0U);
    EXPECT_LE(sample.p50Ns, sample.p99Ns);
    EXPECT_LE(sample.p99Ns, sample.maxNs);
  }
  for (const scope::HistogramRow& row : run.histogram) counted[row.engine] += row.count;
  EXPECT_EQ(counted, operations);
  counted.clear();
  for (const scope::EngineSample& row : run.seconds) counted[row.engine] += row.operations;
  EXPECT_EQ(counted, operations) << "the rows of the engines";
  EXPECT_GT(operations["venc"], 0U);
  EXPECT_EQ(bytes["cpu"], operations["cpu"] * 2 * 8294400);
  EXPECT_EQ(bytes["vpc"], operations["vpc"] * 3 * (1920 * 1080 + 416 * 234));
  EXPECT_EQ(operations["vpc_copy"], 2U);
  // The frame plus the stream, and the model's file plus weights, input and output.
  EXPECT_GT(bytes["venc"], operations["venc"] * 3110400);
  EXPECT_GT(bytes["aic"], operations["aic"] * std::filesystem::file_size(EXAMPLE_NETWORK));
  bool platformKnown = false;
  for (const auto& [library, version] : run.info.conditions.libraryVersions) {
    platformKnown = platformKnown || (library == "libormis" && version == "1.0.0");
  }
  EXPECT_TRUE(platformKnown);
  EXPECT_THAT(run.info.conditions.platformSettings, Contains(Pair("memory", "device")));
  EXPECT_THAT(run.info.conditions.platformSettings, Contains(Pair("encoder", "auto")));
  EXPECT_THAT(run.info.conditions.encoderEngines, ElementsAre(Pair("25", _)));
}

// The script's meter says that 9 of 300 operations were late. An option takes one word: CONFIG may follow.
TEST_F(ProgramTest, EndsWithStatus1IfTooManyOperationsMissTheirDeadline) {
  const std::string script = folder_.Put("script", "sample 0 0 900 300\ndeadline 0 300 9\nsecond 1000\n");
  const auto record = [&](const char* share) {
    return RunTool({"record", "--deadline", "cpu=5us", Config(), "-o", folder_ / "run", "--force",
                    "--benchmark", SCRIPTED_METER, "--meter", IDLE_LIBRARY, "--fail-over", share, "--",
                    script});
  };
  const ToolResult late = record("2%");
  EXPECT_EQ(late.status, 1);
  EXPECT_THAT(late.errors, HasSubstr("deadline missed too often (--fail-over 2 %): cpu 5.00 us: 3 %"));
  EXPECT_TRUE(scope::ReadRun(folder_ / "run").info.complete) << "the run is whole";
  const ToolResult good = record("3%");
  EXPECT_EQ(good.status, 0) << good.errors;
  EXPECT_THAT(good.errors, Not(HasSubstr("deadline missed")));
}

TEST_F(ProgramTest, KeepsTheLinesAndTheirRates) {
  const ToolResult result =
      RecordScript(std::string("echo '") + kRateLine + "'; echo \"$2\"", {"--", "more words"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(result.errors, HasSubstr("not a rate line: character 5: expected \" : \""));
  const scope::Run run = scope::ReadRun(folder_ / "run");
  EXPECT_TRUE(run.info.complete);
  EXPECT_FALSE(run.info.conditions.meter);
  ASSERT_EQ(run.rates.size(), 1U);
  EXPECT_DOUBLE_EQ(run.rates[0].fps, 5);
  EXPECT_EQ(folder_.Get("run/rates.txt"), std::string(kRateLine) + "\nmore words\n");
}

TEST_F(ProgramTest, SaysWhichSignalABenchmarkDiedOf) {
  const ToolResult result = RecordScript(std::string("echo '") + kRateLine + "'; kill -SEGV $$");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("the benchmark was ended by SIGSEGV"));
  const scope::Run run = scope::ReadRun(folder_ / "run");
  EXPECT_FALSE(run.info.complete);
  EXPECT_EQ(run.info.signal, SIGSEGV);
  EXPECT_EQ(run.rates.size(), 1U);
}

TEST_F(ProgramTest, SaysWhichStatusABenchmarkEndedWith) {
  const ToolResult result = RecordScript("exit 255");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("ended with status 255"));
  EXPECT_EQ(scope::ReadRun(folder_ / "run").info.exitStatus, 255);
}

TEST_F(ProgramTest, ErrorsComeBeforeTheStatusOfAnIncompleteRun) {
  const std::string count = folder_.Put("system/sys/devices/system/edac/mc/mc0/ce_count", "7\n");
  const ToolResult result =
      RecordScript("echo 10 >" + count + "; exit 255", {"--sysfs-root", folder_ / "system"});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.errors, HasSubstr("ended with status 255"));
  const scope::RunInfo info = scope::ReadRunInfo(folder_ / "run");
  EXPECT_FALSE(info.complete);
  EXPECT_THAT(info.errors, ElementsAre(Pair("edac", 3)));
}

TEST_F(ProgramTest, EndsABenchmarkThatHangsPastItsRunTime) {
  const ToolResult result = RecordScript("sleep 60", {"--run-time", "1", "--grace", "1"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("the benchmark hangs: its run time of 1 s is over"));
  EXPECT_FALSE(scope::ReadRun(folder_ / "run").info.complete);
}

// SIGINT would break it off before that.
TEST_F(ProgramTest, StopsABenchmarkOnlyWhenItCatchesSigint) {
  // A shell catches SIGINT by itself, and python does.
  const ToolResult result = RecordScript(
      "exec perl -e 'sub pause { select(undef, undef, undef, shift) } pause(0.6); $SIG{INT} = sub { exit }; "
      "pause(0.05) while 1'",
      {"--stop-after", "0.2"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(scope::ReadRunInfo(folder_ / "run").signal, 0);
}

TEST_F(ProgramTest, KillsABenchmarkThatDoesNotEndAtSigint) {
  ChildProcess child(Tool({"record", Config(), "-o", folder_ / "run", "--benchmark",
                           Script("trap '' INT\ntouch \"$0.up\"\nwhile :; do sleep 0.1; done"), "--no-meter",
                           "--grace", "1"}));
  while (!std::filesystem::exists(folder_ / "benchmark.up"))
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  child.Signal(SIGTERM);
  const ToolResult result = WaitFor(child);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("did not end within 1 s of SIGINT and was killed"));
  EXPECT_EQ(scope::ReadRun(folder_ / "run").info.signal, SIGKILL);
}

TEST_F(ProgramTest, SaysWhenTheMeterDoesNotAnswer) {
  if (kSanitized) GTEST_SKIP() << "another program cannot load a meter that is built with a sanitizer";
  const ToolResult result = RunTool({"record", Config(), "-o", folder_ / "run", "--benchmark", "/bin/true"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("the meter did not answer"));
}

TEST_F(ProgramTest, SaysWhenTheMetersLastSamplesAreMissing) {
  if (kSanitized) GTEST_SKIP() << "another program cannot load a meter that is built with a sanitizer";
  scope::HelloPacket hello{};
  hello.header = {scope::kMeterMagic, scope::kMeterVersion, scope::PacketType::kHello, 1, 0};
  hello.bucketCount = scope::kBucketCount;
  folder_.Put("benchmark.hello", std::string(reinterpret_cast<const char*>(&hello), sizeof(hello)));
  const ToolResult result = RunTool({"record", Config(), "-o", folder_ / "run", "--benchmark",
                                     Script("cat \"$0.hello\" >&$STRESS_SCOPE_FD")});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("its last samples are missing"));
  EXPECT_FALSE(scope::ReadRunInfo(folder_ / "run").complete);
}

TEST_F(ProgramTest, RefusesAMeterOfAnotherVersion) {
  if (kSanitized) GTEST_SKIP() << "another program cannot load a meter that is built with a sanitizer";
  const ToolResult result =
      RunTool({"record", Config(), "-o", folder_ / "run", "--benchmark",
               Script("printf 'STSC\\143\\0\\0\\0\\0\\0\\0\\0\\1\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0' "
                      ">&$STRESS_SCOPE_FD\nsleep 5")});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors,
              HasSubstr("built for another version: it sends version 99, this program reads version "));
  EXPECT_FALSE(scope::ReadRunInfo(folder_ / "run").complete);
}

TEST_F(ProgramTest, AFullDiskEndsTheRunAndKeepsWhatWasRecorded) {
  const ToolResult result = RecordScript("ln -s /dev/full \"$(dirname \"$0\")/run/rates.txt\"\necho '" +
                                         std::string(kRateLine) + "'\nsleep 20");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, AllOf(HasSubstr("rates.txt: No space left on device"), HasSubstr("is kept in")));
  const scope::RunInfo info = scope::ReadRunInfo(folder_ / "run");
  EXPECT_FALSE(info.complete);
  EXPECT_THAT(info.incompleteReason, HasSubstr("No space left"));
}

TEST_F(ProgramTest, MetricsThatCannotBeWrittenAreToldAndTheRunIsWhole) {
  const ToolResult result =
      // The recorder may be about to write there.
      RecordScript("until mkdir -p \"$0.prom.new/full\" 2>/dev/null; do sleep 0.01; done",
                   {"--metrics", folder_ / "benchmark.prom"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, AllOf(HasSubstr("cannot write " + (folder_ / "benchmark.prom.new")),
                                   HasSubstr("; the run went on\n")));
  EXPECT_TRUE(scope::ReadRunInfo(folder_ / "run").complete);
}

TEST_F(ProgramTest, AnExportThatIsRefusedLeavesTheOldRun) {
  folder_.Put("run/run.json", "old");
  const ToolResult result = RunTool({"record", Config(), "-o", folder_ / "run", "--force", "--no-meter",
                                     "--trace", folder_ / "none/run.trace"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(folder_.Get("run/run.json"), "old");
}

TEST_F(ProgramTest, RefusesBadInputBeforeAnythingRuns) {
  const std::string run = folder_ / "run";
  const auto refused = [&run](std::vector<std::string> arguments, const std::string& words) {
    const ToolResult result = RunTool(std::move(arguments));
    EXPECT_EQ(result.status, 2) << words;
    EXPECT_THAT(result.errors, HasSubstr(words));
    EXPECT_FALSE(std::filesystem::exists(run)) << words;
  };
  refused({}, "a command is missing");
  refused({"record"}, "CONFIG is missing");
  refused({"record", "--bogus", Config()}, "--bogus");
  refused({"record", folder_ / "none.yaml", "-o", run}, "cannot read " + (folder_ / "none.yaml"));
  refused({"record", folder_.Put("bad.yaml", "CPU: [1"), "-o", run}, "bad.yaml:");
  refused({"record", Config(), "-o", run, "--benchmark", folder_ / "none"}, "cannot run the benchmark");
  refused({"record", Config(), "-o", run, "--meter", folder_ / "none.so"}, "cannot read the meter");
  refused({"record", Config(), "-o", "/proc/none/run"}, "cannot make the folder /proc/none/run");
  refused({"record", Config(), "-o", run, "--metrics", Config()},
          "is the configuration: name a file of its own");
  refused({"record", Config(), "-o", run, "--trace", "/dev/null"}, "/dev/null is no regular file");
  for (const std::string file : {"./a", "a.new"}) {
    refused({"record", Config(), "-o", run, "--trace", folder_ / file, "--metrics", folder_ / "a"},
            "--metrics and --trace name the same file");
  }
  refused({"record", Config(), "-o", run, "--metrics", run + "/seconds.csv"}, "is in the run folder");
  refused({"record", Config(), "-o", run, "--metrics", folder_ / "none/a.prom"},
          "cannot write " + (folder_ / "none/a.prom"));
  refused({"rates", folder_ / "none.txt", "-o", run}, "none.txt: No such file");
  refused({"rates", folder_.Put("empty.txt", ""), "-o", run}, "empty.txt has no rate line");
}

TEST_F(ProgramTest, DoesNotTouchAFolderThatIsInUse) {
  folder_.Put("run/precious", "mine");
  const ToolResult refused = RecordScript("exit 0");
  EXPECT_EQ(refused.status, 2);
  EXPECT_THAT(refused.errors, HasSubstr("--force"));
  EXPECT_FALSE(std::filesystem::exists(folder_ / "run/run.json"));
  EXPECT_EQ(RecordScript("exit 0", {"--force"}).status, 0);
  EXPECT_EQ(folder_.Get("run/precious"), "mine");
}

TEST_F(ProgramTest, SavesRateLinesOfAFile) {
  const std::string file = folder_.Put("lines", std::string(kRateLine) + "\r\n" + kRateLine + "\n");
  const ToolResult result = RunTool({"rates", file, "-o", folder_ / "run"});
  EXPECT_EQ(result.status, 0) << result.errors;
  const scope::Run run = scope::ReadRun(folder_ / "run");
  EXPECT_EQ(run.info.kind, "rates");
  EXPECT_TRUE(run.info.complete);
  ASSERT_EQ(run.rates.size(), 2U);
  EXPECT_DOUBLE_EQ(run.rates[1].timeS, 2);
}

TEST_F(ProgramTest, SavesRateLinesOfAPipeAsTheyCome) {
  ChildProcess::Options options;
  options.program = "/bin/sh";
  // The second line comes one second after the first one is saved.
  options.arguments = {"-c", std::string("(echo '") + kRateLine + "'; until grep -qs cpu '" +
                                 (folder_ / "run/rates.csv") + "'; do sleep 0.1; done; sleep 1; echo '" +
                                 kRateLine + "') | " + STRESS_SCOPE + " rates -o '" + (folder_ / "run") +
                                 "'"};
  ChildProcess child(options);
  while (!child.HasEnded()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(child.ExitStatus(), 0);
  const scope::Run run = scope::ReadRun(folder_ / "run");
  ASSERT_EQ(run.rates.size(), 2U);
  EXPECT_GE(run.rates[1].timeS - run.rates[0].timeS, 0.9);
}

TEST_F(ProgramTest, NamesTheLineThatIsNoRateLineAndKeepsWhatCameBefore) {
  const std::string file = folder_.Put("lines", std::string(kRateLine) + "\nhello\n" + kRateLine + "\n");
  const ToolResult result = RunTool({"rates", file, "-o", folder_ / "run"});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.errors, HasSubstr(file + ":2: character 6: expected \" : \""));
  const scope::Run run = scope::ReadRun(folder_ / "run");
  EXPECT_FALSE(run.info.complete);
  EXPECT_EQ(run.rates.size(), 1U);
}

}  // namespace
