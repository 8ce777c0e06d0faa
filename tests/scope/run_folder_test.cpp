// SPDX-License-Identifier: Apache-2.0

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <map>

#include "engine_rows.h"
#include "errors.h"
#include "run_reader.h"
#include "run_writer.h"
#include "temporary_folder.h"

namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using namespace scope;

// While it exists, files cannot have more than a few bytes.
class NoRoom {
 public:
  NoRoom() : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    (void)getrlimit(RLIMIT_FSIZE, &before_);
    rlimit few = before_;
    few.rlim_cur = 16;
    (void)setrlimit(RLIMIT_FSIZE, &few);
  }
  ~NoRoom() {
    (void)setrlimit(RLIMIT_FSIZE, &before_);
    (void)std::signal(SIGXFSZ, handler_);
  }
  NoRoom(const NoRoom&) = delete;
  NoRoom& operator=(const NoRoom&) = delete;

 private:
  rlimit before_{};
  void (*handler_)(int);
};

class RunFolderTest : public ::testing::Test {
 protected:
  static RunInfo SomeInfo() {
    RunInfo info;
    info.tool = "stress_scope 0.1.0";
    info.kind = "record";
    info.started = "2026-11-21T04:00:00Z";
    info.complete = true;
    info.durationS = 4.5;
    info.exitStatus = 3;
    info.signal = 2;
    info.label = "four \"threads\"\n\xff";
    info.config = {"c.yaml", "CPU:\n  Level: 1\n", {{"cpu", 1}, {"venc", 10}}, {{"AIC.File", "m.onnx"}}};
    info.conditions.cpuModel = "a CPU";
    info.conditions.cpuCount = 2;
    info.conditions.caches = {{1, "Data", 49152, 2}};
    info.conditions.libraryVersions = {{"libormis", "1.0.0"}};
    info.conditions.loadAverage = {0.5, 1, 2};
    info.conditions.meter = true;
    info.counters = {{"edac", false, "no driver"}};
    return info;
  }

  static Sample SampleAt(double timeS, const std::string& engine = "cpu", int thread = 0) {
    Sample sample;
    sample.second = static_cast<int>(timeS);
    sample.timeS = timeS;
    sample.engine = engine;
    sample.thread = thread;
    sample.operations = 100;
    sample.busyNs = 900'000'000;
    sample.bytes = 18'446'744'073'709'551'615U;
    sample.failures = 1;
    sample.p50Ns = 9'000'000;
    sample.p99Ns = 9'900'000;
    sample.maxNs = 10'000'000;
    return sample;
  }

  void WriteWhole(const RunInfo& info, const std::vector<Sample>& samples) const {
    RunWriter writer(run_, false);
    writer.WriteInfo(info);
    writer.Add(samples);
    writer.Add(EngineRows(samples));
    writer.Add(std::vector<Rate>{{1.25, "cpuStress", 431.034483}});
    writer.AddRateLines("cpuStress : 431.034483 fps. ispStress : 30.0 fps.\n");
    std::map<std::pair<std::string, int>, std::uint64_t> operations;
    for (const Sample& sample : samples) operations[{sample.engine, sample.thread}] += sample.operations;
    std::vector<HistogramRow> rows;
    for (const auto& [thread, count] : operations)
      rows.push_back({thread.first, thread.second, 1000, 1008, count});
    writer.WriteHistogram(rows);
  }

  std::string ErrorOfRead() const {
    try {
      (void)ReadRun(run_);
    } catch (const UserError& error) {
      return error.what();
    }
    return "no error";
  }

  TemporaryFolder folder_;
  std::string run_ = folder_ / "a/run";
};

TEST_F(RunFolderTest, ReadsWhatItWrote) {
  Sample unknown = SampleAt(2, "aic", 3);
  unknown.bytes.reset();
  WriteWhole(SomeInfo(), {SampleAt(1.0005), unknown});
  const scope::Run run = ReadRun(run_);
  EXPECT_TRUE(run.notes.empty()) << run.notes.front();
  EXPECT_EQ(run.info.kind, "record");
  EXPECT_TRUE(run.info.complete);
  EXPECT_DOUBLE_EQ(run.info.durationS, 4.5);
  EXPECT_EQ(run.info.exitStatus, 3);
  EXPECT_EQ(run.info.signal, 2);
  EXPECT_EQ(run.info.label, "four \"threads\"\n\xef\xbf\xbd");  // invalid UTF-8 is replaced
  EXPECT_EQ(run.info.config.text, "CPU:\n  Level: 1\n");
  EXPECT_THAT(run.info.config.levels, ElementsAre(std::pair("cpu", 1), std::pair("venc", 10)));
  EXPECT_THAT(run.info.config.settings, ElementsAre(std::pair("AIC.File", "m.onnx")));
  EXPECT_EQ(run.info.conditions.caches.at(0).bytes, 49152U);
  EXPECT_THAT(run.info.conditions.loadAverage, ElementsAre(0.5, 1, 2));
  EXPECT_EQ(run.info.counters.at(0).reason, "no driver");
  ASSERT_EQ(run.samples.size(), 2U);
  EXPECT_NEAR(run.samples[0].timeS, 1.0005, 0.001);
  EXPECT_EQ(run.samples[0].bytes, SampleAt(0).bytes);
  EXPECT_EQ(run.samples[0].maxNs, 10'000'000U);
  EXPECT_FALSE(run.samples[1].bytes.has_value());
  EXPECT_EQ(run.samples[1].thread, 3);
  EXPECT_EQ(run.samples[1].second, 2);
  ASSERT_EQ(run.seconds.size(), 2U);
  EXPECT_EQ(run.seconds[0].second, 1);
  EXPECT_NEAR(run.seconds[0].timeS, 1.0005, 0.001);
  EXPECT_EQ(run.seconds[0].threads, 1);
  EXPECT_EQ(run.seconds[1].engine, "aic");
  EXPECT_EQ(run.seconds[1].operations, 100U);
  EXPECT_FALSE(run.seconds[1].bytes.has_value());
  ASSERT_EQ(run.rates.size(), 1U);
  EXPECT_DOUBLE_EQ(run.rates[0].fps, 431.034483);
  ASSERT_EQ(run.histogram.size(), 2U);
  EXPECT_EQ(run.histogram[0].highNs, 1008U);
}

TEST_F(RunFolderTest, ReadsTheLatencyOfMemory) {
  RunInfo info = SomeInfo();
  info.latency.bytes = 65536;
  WriteWhole(info, {SampleAt(1)});
  EXPECT_THAT(ErrorOfRead(), HasSubstr("latency.csv: the file is missing, although the run is complete"));
  const std::string header = TableHeader<LatencySecond>() + "\n";
  const auto put = [&](const std::string& rows) { folder_.Put("a/run/latency.csv", header + rows); };
  put("1,1.000,5,150.5,140,300,400,500,8,1,,17,2\n2,2.000,0,0.0,0,0,0,0,8,8,10,,3\n");
  const scope::Run run = ReadRun(run_);
  ASSERT_EQ(run.latency.size(), 2U);
  EXPECT_EQ(run.latency[0].accesses, 5U);
  EXPECT_DOUBLE_EQ(run.latency[0].meanNs, 150.5);
  EXPECT_EQ(run.latency[0].p999Ns, 400U);
  EXPECT_FALSE(run.latency[0].stealMs.has_value());
  EXPECT_EQ(run.latency[0].interrupts, 17U);
  EXPECT_EQ(run.latency[1].stealMs, 10U);
  EXPECT_EQ(run.latency[1].interrupted, 8U);
  put("1,1.000,5,150.5,140,300,200,500,8,1,,17,2\n");
  EXPECT_THAT(ErrorOfRead(),
              HasSubstr("latency.csv:2: expected p50_ns, p99_ns, p999_ns and max_ns in rising order"));
  put("2,1.000,0,0,0,0,0,0,8,8,,,2\n2,2.000,0,0,0,0,0,0,8,8,,,2\n");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("latency.csv:3: expected one row a second, after second 2"));
}

TEST_F(RunFolderTest, ReadsNamesThatTheMachineMade) {
  const std::vector<std::string> names = {"zone0/cpu,gpu", "a \"b\", c", "\"", ",", "a\nb", "12\" rack", ""};
  {
    RunWriter writer(run_, false);
    RunInfo info = SomeInfo();
    info.conditions.meter = false;
    writer.WriteInfo(info);
    writer.Add(std::vector<Rate>());
    for (const std::string& name : names)
      writer.Add(std::vector<CounterValue>{{1, "thermal", name, "a,b", 2.5}});
  }
  const scope::Run run = ReadRun(run_);
  ASSERT_EQ(run.counters.size(), names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(run.counters[i].name, names[i] == "a\nb" ? "a b" : names[i]);
    EXPECT_EQ(run.counters[i].unit, "a,b");
    EXPECT_DOUBLE_EQ(run.counters[i].value, 2.5);
  }
  EXPECT_THAT(folder_.Get("a/run/counters.csv"), HasSubstr("1.000,thermal,\"zone0/cpu,gpu\",\"a,b\",2.5\n"));
}

TEST_F(RunFolderTest, KeepsAbsurdRatesAsTheyAre) {
  RunInfo info = SomeInfo();
  info.conditions.meter = false;
  RunWriter writer(run_, false);
  writer.WriteInfo(info);
  writer.Add(std::vector<Rate>{{1, "cpuStress", 1e300}});
  EXPECT_DOUBLE_EQ(ReadRun(run_).rates.at(0).fps, 1e300);
}

TEST_F(RunFolderTest, RefusesAFolderWithSomethingInIt) {
  folder_.Put("a/run/notes.txt", "mine");
  EXPECT_THROW(RunWriter(run_, false), UserError);
  EXPECT_EQ(folder_.Get("a/run/notes.txt"), "mine");
  EXPECT_THROW(RunWriter(folder_.Put("file", ""), true), UserError);
}

TEST_F(RunFolderTest, ForceReplacesARunAndNothingElse) {
  WriteWhole(SomeInfo(), {SampleAt(1)});
  folder_.Put("a/run/notes.txt", "mine");
  folder_.Put("a/run/report.html", "of the run that goes");
  RunWriter writer(run_, true);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "a/run/report.html"));
  EXPECT_EQ(folder_.Get("a/run/notes.txt"), "mine");
  EXPECT_FALSE(IsRunFolder(run_));
  EXPECT_FALSE(std::filesystem::exists(folder_ / "a/run/samples.csv"));
}

TEST_F(RunFolderTest, TakesAnEmptyFolder) {
  std::filesystem::create_directories(run_);
  EXPECT_NO_THROW(RunWriter(run_, false));
}

TEST_F(RunFolderTest, AFullDiskIsSaidAndKeepsWhatIsThere) {
  RunWriter writer(run_, false);
  writer.WriteInfo(SomeInfo());
  std::filesystem::create_symlink("/dev/full", run_ + "/samples.csv");
  try {
    writer.Add(std::vector<Sample>{SampleAt(1)});
    FAIL() << "no error";
  } catch (const UserError& error) {
    EXPECT_THAT(
        error.what(),
        EndsWith(
            "samples.csv: No space left on device; free some space, or choose a folder on another disk"));
  }
  EXPECT_NO_THROW(writer.Add(std::vector<Rate>{{1, "cpuStress", 5}}));
  EXPECT_EQ(ReadRunInfo(run_).kind, "record");
}

TEST_F(RunFolderTest, AFileThatIsReplacedStaysWhereTheDiskIsFull) {
  RunWriter writer(run_, false);
  writer.WriteInfo(SomeInfo());
  writer.WriteHistogram({{"cpu", 0, 1000, 1008, 100}});
  for (const char* name : {"run.json", "histogram.csv"}) {
    const std::string before = folder_.Get(std::string("a/run/") + name);
    RunInfo info = SomeInfo();
    info.label = "another";
    try {
      const NoRoom noRoom;
      if (std::string(name) == "run.json") {
        writer.WriteInfo(info);
      } else {
        writer.WriteHistogram({});
      }
      FAIL() << name << ": no error";
    } catch (const UserError& error) {
      EXPECT_THAT(error.what(), HasSubstr("File too large"));
    }
    EXPECT_EQ(folder_.Get(std::string("a/run/") + name), before);
    EXPECT_FALSE(std::filesystem::exists(run_ + "/" + name + ".new")) << "nothing is left behind";
  }
}

TEST_F(RunFolderTest, AFileThatCannotBeReadIsNotAnEmptyOne) {
  WriteWhole(SomeInfo(), {SampleAt(1)});
  std::filesystem::remove(run_ + "/samples.csv");
  std::filesystem::create_directory(run_ + "/samples.csv");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("samples.csv: Is a directory"));
}

TEST_F(RunFolderTest, ALineThatWasCutIsLeftOutAndNoted) {
  WriteWhole(SomeInfo(), {SampleAt(1), SampleAt(2)});
  const std::string whole = folder_.Get("a/run/samples.csv");
  folder_.Put("a/run/samples.csv", whole.substr(0, whole.size() - 9));
  const scope::Run run = ReadRun(run_);
  EXPECT_EQ(run.samples.size(), 1U);
  EXPECT_THAT(run.notes, ElementsAre("samples.csv: line 3 is cut and was left out"));
}

TEST_F(RunFolderTest, SamplesThatEndBeforeTheRunAreNoted) {
  RunInfo info = SomeInfo();
  info.durationS = 41.5;
  WriteWhole(info, {SampleAt(19), SampleAt(20)});
  EXPECT_THAT(ReadRun(run_).notes, ElementsAre("no sample after 20.000 s of 41.500 s"));
}

TEST_F(RunFolderTest, SecondsWithoutASampleAreNotedOnce) {
  WriteWhole(SomeInfo(), {SampleAt(1), SampleAt(2), SampleAt(5), SampleAt(9), SampleAt(9, "vpc"),
                          SampleAt(9, "vpc_copy"), SampleAt(20, "vpc_copy")});
  EXPECT_THAT(ReadRun(run_).notes, ElementsAre("no sample of cpu thread 0 between 2.000 s and 5.000 s"));
}

TEST_F(RunFolderTest, ThreadsWithTheSameGapShareANote) {
  WriteWhole(SomeInfo(), {SampleAt(1), SampleAt(1, "cpu", 1), SampleAt(1, "vpc"), SampleAt(4),
                          SampleAt(4, "cpu", 1), SampleAt(4, "vpc")});
  EXPECT_THAT(ReadRun(run_).notes,
              ElementsAre("no sample of cpu thread 0 and 2 more between 1.000 s and 4.000 s"));
}

TEST_F(RunFolderTest, AnIncompleteRunMayLackItsLastFiles) {
  RunInfo info = SomeInfo();
  info.complete = false;
  info.incompleteReason = "the power went";
  RunWriter(run_, false).WriteInfo(info);
  const scope::Run run = ReadRun(run_);
  EXPECT_EQ(run.notes.size(), 5U);
  EXPECT_EQ(run.notes[0], "the run is incomplete: the power went");
}

TEST_F(RunFolderTest, ACompleteRunMayNot) {
  WriteWhole(SomeInfo(), {SampleAt(1)});
  std::filesystem::remove(folder_ / "a/run/histogram.csv");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("histogram.csv: the file is missing"));
}

TEST_F(RunFolderTest, RefusesForeignFolders) {
  EXPECT_THAT(ErrorOfRead(), HasSubstr("there is no such folder"));
  std::filesystem::create_directories(run_);
  EXPECT_THAT(ErrorOfRead(), HasSubstr("not a run folder"));
  folder_.Put("a/run/run.json", "[1, 2]");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("not the description of a run"));
  folder_.Put("a/run/run.json", "{\"format\": 2, \"kind\":");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("run.json: "));
  folder_.Put("a/run/run.json", "{\"format\": 1, \"tool\": \"stress_scope 0.1.0\"}");
  EXPECT_EQ(ErrorOfRead(),
            run_ + ": a run folder of format 1, and " + kToolVersion +
                " reads format 2. Record the run again, or read it with the version that wrote it: "
                "stress_scope 0.1.0.");
  folder_.Put("a/run/run.json", "{\"format\": 3}");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("a run folder of format 3, and "));
  folder_.Put("a/run/run.json", "{\"format\": 2, \"kind\": \"sweep\"}");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("found \"sweep\""));
  folder_.Put("a/run/run.json", "{\"format\": 2, \"kind\": \"record\", \"complete\": \"yes\"}");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("must be boolean"));
  folder_.Put("a/run/run.json", "{\"format\": 2, \"kind\": \"record\", \"config\": []}");
  EXPECT_NE(ErrorOfRead(), "no error");
}

TEST_F(RunFolderTest, RefusesForeignTables) {
  WriteWhole(SomeInfo(), {SampleAt(1)});
  const std::string header =
      "second,time_s,engine,thread,operations,busy_ns,bytes,failures,p50_ns,p99_ns,max_ns\n";
  folder_.Put("a/run/samples.csv", "time,rate\n1,2\n");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("samples.csv:1: expected the header"));
  folder_.Put("a/run/samples.csv", header + "1,1,cpu,0\n");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("samples.csv:2: expected 11 fields"));
  folder_.Put("a/run/samples.csv", header + "1,1,cpu,0,-5,6,7,8,9,10,11\n");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("samples.csv:2: expected a whole number as operations, found \"-5\""));
  folder_.Put("a/run/samples.csv", header + "1,nan,cpu,0,5,6,7,8,9,10,11\n");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("expected a number as time_s, found \"nan\""));
  folder_.Put("a/run/samples.csv", header + "1,1,cpu,99999999999999999999,5,6,7,8,9,10,11\n");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("as thread"));
  folder_.Put("a/run/samples.csv", header + "1,1,cpu,1000001,5,6,7,8,9,10,11\n");
  EXPECT_THAT(ErrorOfRead(), HasSubstr("expected at most 1000000 as thread, found \"1000001\""));
  folder_.Put("a/run/samples.csv", header + "1,1,cpu,1000000,5,6,7,8,9,10,11\n");
  folder_.Put("a/run/histogram.csv", "engine,thread,low_ns,high_ns,count\ncpu,1000000,9,10,5\n");
  folder_.Put("a/run/seconds.csv", "second,time_s,engine,threads" +
                                       header.substr(header.find(",operations")) +
                                       "1,1,cpu,1,5,6,7,8,9,10,11\n");
  EXPECT_EQ(ReadRun(run_).samples.at(0).thread, 1'000'000);
}

}  // namespace
