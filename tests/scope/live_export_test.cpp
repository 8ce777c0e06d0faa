// SPDX-License-Identifier: Apache-2.0
#include "live_export.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "errors.h"
#include "temporary_folder.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::StartsWith;

scope::MeterSecond Second(int number, double timeS, std::uint64_t operations) {
  scope::MeterSecond second;
  second.second = number;
  second.timeS = timeS;
  scope::Sample thread;
  thread.engine = "cpu";
  thread.second = number;
  thread.timeS = timeS;
  thread.operations = operations;
  thread.busyNs = operations * 1'000'000;
  thread.bytes = operations * 4096;
  thread.failures = 1;
  thread.p50Ns = 1'500'000;
  thread.p99Ns = 2'500'000;
  thread.maxNs = 3'250'000;
  thread.thread = 3;
  second.samples = {thread};
  scope::EngineSample engine;
  static_cast<scope::SecondWork&>(engine) = thread;
  engine.threads = 1;
  second.engines = {engine};
  return second;
}

scope::CounterValue Counter(const char* source, const char* name, const char* unit, double value) {
  return {1.5, source, name, unit, value};
}

TEST(MetricsTest, AddsUpAndShowsTheLastSecondInBaseUnits) {
  scope::Metrics metrics(1'700'000'000.5, "tRFC \"350\"\n");
  metrics.Add(Second(1, 1, 500));
  metrics.Add(Second(2, 3, 1000));
  metrics.Add(3.5,
              {Counter("thermal", "zone0", "degC", 47.25), Counter("cpufreq", "cpu0", "MHz", 2500),
               Counter("edac", "mc0/ue_count", "errors", 2), Counter("perf", "imc0/reads", "MiB/s", 12.5),
               Counter("perf", "arm_cmn/read", "events/s", 7)});
  EXPECT_EQ(
      metrics.Text(true),
      "# HELP stress_run_info The run that these figures are of.\n"
      "# TYPE stress_run_info gauge\n"
      "stress_run_info{label=\"tRFC \\\"350\\\"\\n\",tool=\"stress_scope " STRESS_VERSION
      "\"} 1\n"
      "# HELP stress_run_start_time_seconds Start of the run since 1970.\n"
      "# TYPE stress_run_start_time_seconds gauge\n"
      "stress_run_start_time_seconds 1700000000.5\n"
      "# HELP stress_run_running 1 while the benchmark runs, 0 after its end.\n"
      "# TYPE stress_run_running gauge\n"
      "stress_run_running 1\n"
      "# HELP stress_run_elapsed_seconds Time from the start of the run to its last figures.\n"
      "# TYPE stress_run_elapsed_seconds gauge\n"
      "stress_run_elapsed_seconds 3.5\n"
      "# HELP stress_engine_operations_total Operations that succeeded.\n"
      "# TYPE stress_engine_operations_total counter\n"
      "stress_engine_operations_total{engine=\"cpu\"} 1500\n"
      "# HELP stress_engine_failed_operations_total Operations that failed.\n"
      "# TYPE stress_engine_failed_operations_total counter\n"
      "stress_engine_failed_operations_total{engine=\"cpu\"} 2\n"
      "# HELP stress_engine_busy_seconds_total Time in operations, of all threads.\n"
      "# TYPE stress_engine_busy_seconds_total counter\n"
      "stress_engine_busy_seconds_total{engine=\"cpu\"} 1.5\n"
      "# HELP stress_engine_bytes_total Bytes that operations read and wrote.\n"
      "# TYPE stress_engine_bytes_total counter\n"
      "stress_engine_bytes_total{engine=\"cpu\"} 6144000\n"
      "# HELP stress_engine_operations_per_second Operations in the last second.\n"
      "# TYPE stress_engine_operations_per_second gauge\n"
      "stress_engine_operations_per_second{engine=\"cpu\"} 500\n"
      "# HELP stress_engine_bandwidth_bytes_per_second Bytes that were read and written in the last second.\n"
      "# TYPE stress_engine_bandwidth_bytes_per_second gauge\n"
      "stress_engine_bandwidth_bytes_per_second{engine=\"cpu\"} 2048000\n"
      "# HELP stress_engine_threads Worker threads that completed an operation in the last second.\n"
      "# TYPE stress_engine_threads gauge\n"
      "stress_engine_threads{engine=\"cpu\"} 1\n"
      "# HELP stress_engine_latency_median_seconds Median latency of the last second's operations.\n"
      "# TYPE stress_engine_latency_median_seconds gauge\n"
      "stress_engine_latency_median_seconds{engine=\"cpu\"} 0.0015\n"
      "# HELP stress_engine_latency_p99_seconds 99th percentile of the last second's latencies.\n"
      "# TYPE stress_engine_latency_p99_seconds gauge\n"
      "stress_engine_latency_p99_seconds{engine=\"cpu\"} 0.0025\n"
      "# HELP stress_engine_latency_max_seconds Longest operation of the last second.\n"
      "# TYPE stress_engine_latency_max_seconds gauge\n"
      "stress_engine_latency_max_seconds{engine=\"cpu\"} 0.00325\n"
      "# HELP stress_temperature_celsius Temperature of a thermal zone.\n"
      "# TYPE stress_temperature_celsius gauge\n"
      "stress_temperature_celsius{zone=\"zone0\"} 47.25\n"
      "# HELP stress_cpu_frequency_hertz Frequency of a CPU.\n"
      "# TYPE stress_cpu_frequency_hertz gauge\n"
      "stress_cpu_frequency_hertz{cpu=\"cpu0\"} 2.5e+09\n"
      "# HELP stress_memory_errors_total Memory errors that a controller has counted.\n"
      "# TYPE stress_memory_errors_total counter\n"
      "stress_memory_errors_total{counter=\"mc0/ue_count\"} 2\n"
      "# HELP stress_memory_traffic_bytes_per_second Memory traffic that a controller counts.\n"
      "# TYPE stress_memory_traffic_bytes_per_second gauge\n"
      "stress_memory_traffic_bytes_per_second{event=\"imc0/reads\"} 13107200\n"
      "# HELP stress_machine_reading Another figure of the machine, in the unit that it has.\n"
      "# TYPE stress_machine_reading gauge\n"
      "stress_machine_reading{source=\"perf\",name=\"arm_cmn/read\",unit=\"events/s\"} 7\n");
}

TEST(MetricsTest, TheRestOfASecondIsCountedButIsNoRate) {
  scope::Metrics metrics(0, "");
  metrics.Add(Second(1, 1, 500));
  metrics.Add(Second(2, 1.25, 7));
  const std::string text = metrics.Text(false);
  EXPECT_THAT(text, HasSubstr("operations_total{engine=\"cpu\"} 507\n"));
  EXPECT_THAT(text, HasSubstr("operations_per_second{engine=\"cpu\"} 500\n"));
  EXPECT_THAT(text, HasSubstr("stress_run_running 0\n"));
}

scope::LatencySecond Latency(double timeS, std::uint64_t accesses) {
  scope::LatencySecond second;
  second.timeS = timeS;
  second.accesses = accesses;
  second.bursts = 8;
  second.interrupted = accesses == 0 ? 8 : 1;
  if (accesses == 0) return second;
  second.p50Ns = 160;
  second.p99Ns = 250;
  second.p999Ns = 1500;
  second.maxNs = 32'000;
  return second;
}

TEST(MetricsTest, TheLatencyOfMemoryIsInSeconds) {
  scope::Metrics metrics(0, "");
  EXPECT_THAT(metrics.Text(true), Not(HasSubstr("memory_latency"))) << "without a probe";
  metrics.Add({Latency(1, 0)});
  EXPECT_THAT(metrics.Text(true), AllOf(HasSubstr("\nstress_memory_latency_interrupted_bursts_total 8\n"),
                                        Not(HasSubstr("latency_median"))))
      << "no access, so no latency";
  // The last one is a rest.
  metrics.Add({Latency(2, 900), Latency(2.1, 0)});
  const std::string text = metrics.Text(true);
  EXPECT_THAT(text, HasSubstr("stress_run_elapsed_seconds 2.1\n"));
  EXPECT_EQ(
      text.substr(text.find("# HELP stress_memory")),
      "# HELP stress_memory_latency_median_seconds Median of the last second's accesses to memory.\n"
      "# TYPE stress_memory_latency_median_seconds gauge\n"
      "stress_memory_latency_median_seconds 1.6e-07\n"
      "# HELP stress_memory_latency_p99_seconds 99th percentile of the last second's accesses to memory.\n"
      "# TYPE stress_memory_latency_p99_seconds gauge\n"
      "stress_memory_latency_p99_seconds 2.5e-07\n"
      "# HELP stress_memory_latency_p999_seconds 99.9th percentile of the last second's accesses to "
      "memory.\n"
      "# TYPE stress_memory_latency_p999_seconds gauge\n"
      "stress_memory_latency_p999_seconds 1.5e-06\n"
      "# HELP stress_memory_latency_max_seconds Longest access to memory of the last second.\n"
      "# TYPE stress_memory_latency_max_seconds gauge\n"
      "stress_memory_latency_max_seconds 3.2e-05\n"
      "# HELP stress_memory_latency_bursts_total Bursts of accesses that the probe has made.\n"
      "# TYPE stress_memory_latency_bursts_total counter\n"
      "stress_memory_latency_bursts_total 24\n"
      "# HELP stress_memory_latency_interrupted_bursts_total Bursts in which the probe lost its processor; "
      "their accesses are not counted.\n"
      "# TYPE stress_memory_latency_interrupted_bursts_total counter\n"
      "stress_memory_latency_interrupted_bursts_total 17\n");
}

TEST(MetricsTest, UnknownBytesHaveNoValue) {
  scope::MeterSecond second = Second(1, 1, 500);
  second.engines[0].bytes.reset();
  scope::Metrics metrics(0, "");
  metrics.Add(second);
  EXPECT_THAT(metrics.Text(true), Not(HasSubstr("bytes")));
}

// Prometheus refuses a file for such a byte.
TEST(MetricsTest, ALabelThatIsNoUtf8IsWritten) {
  EXPECT_THAT(scope::Metrics(0, "gr\xfc\xdf").Text(true), HasSubstr("label=\"gr\\\\xfc\\\\xdf\""));
}

class LiveExportTest : public testing::Test {
 protected:
  scope::LiveExport Make() {
    return {{folder_ / "stress.prom", folder_ / "run.trace"}, "", [this](const std::string& fault) {
              faults_.push_back(fault);
            }};
  }
  nlohmann::json Trace() const { return nlohmann::json::parse(folder_.Get("run.trace")); }

  TemporaryFolder folder_;
  std::vector<std::string> faults_;
};

// The format's documentation: which members an event of each phase has.
TEST_F(LiveExportTest, ATraceHasASliceForEachSecondOfAThreadAndCounters) {
  scope::LiveExport exports = Make();
  exports.Add(Second(1, 1, 500));
  exports.Add(1.5, {Counter("thermal", "zone0", "degC", 47.25)});
  exports.Add(2.5, {Counter("thermal", "zone0", "degC", 48.25)});
  exports.Add(Second(2, 2, 400));
  exports.End();
  std::set<std::string> names;
  std::vector<double> starts;
  std::vector<double> rates;
  std::vector<std::pair<double, double>> temperatures;
  for (const nlohmann::json& event : Trace()) {
    const std::string phase = event.at("ph");
    ASSERT_TRUE(event.at("name").is_string() && event.at("pid").is_number_integer()) << event;
    if (phase == "M") {
      names.insert(event["name"].get<std::string>() + " " + event.at("args").at("name").get<std::string>());
      continue;
    }
    ASSERT_GE(event.at("ts").get<double>(), 0) << event;
    if (phase == "X") {
      ASSERT_TRUE(event.at("tid").is_number_integer()) << event;
      EXPECT_EQ(event.at("dur"), 1e6);
      starts.push_back(event["ts"]);
    } else {
      ASSERT_EQ(phase, "C") << event;
      for (const auto& [key, value] : event.at("args").items()) ASSERT_TRUE(value.is_number()) << event;
      names.insert(event["name"]);
      if (event["pid"] == 2) temperatures.emplace_back(event["ts"], event["args"]["value"]);
      if (event["name"] == "cpu op/s") rates.push_back(event["args"]["value"]);
    }
  }
  EXPECT_THAT(starts, ElementsAre(0, 1e6));
  EXPECT_THAT(rates, ElementsAre(500, 400));
  // Of the time before they were read.
  EXPECT_THAT(temperatures, ElementsAre(Pair(0, 47.25), Pair(1.5e6, 48.25)));
  EXPECT_THAT(names, ElementsAre("cpu GB/s", "cpu op/s", "cpu p50 us", "cpu p99 us", "process_name machine",
                                 "process_name stress_benchmark", "thermal zone0 degC",
                                 "thread_name CPU: memory copies 3"));
  EXPECT_THAT(faults_, IsEmpty());
}

TEST_F(LiveExportTest, TheLatencyOfMemoryIsATrackOfEachFigure) {
  scope::LiveExport exports = Make();
  exports.Add({Latency(1, 900), Latency(2, 0)});
  exports.Add({Latency(3, 900), Latency(3.05, 900)});
  exports.End();
  std::vector<std::pair<double, double>> tails;
  std::set<std::string> names;
  for (const nlohmann::json& event : Trace()) {
    if (event["ph"] != "C") continue;
    names.insert(event["name"]);
    EXPECT_EQ(event["pid"], 2);
    if (event["name"] == "memory latency p99.9 ns") tails.emplace_back(event["ts"], event["args"]["value"]);
  }
  EXPECT_THAT(names, ElementsAre("memory latency max ns", "memory latency p50 ns", "memory latency p99 ns",
                                 "memory latency p99.9 ns"));
  EXPECT_THAT(tails, ElementsAre(Pair(0, 1500), Pair(2e6, 1500)))
      << "no value without an access, or of a rest";
  EXPECT_THAT(folder_.Get("stress.prom"), HasSubstr("stress_memory_latency_p999_seconds 1.5e-06\n"));
}

// A viewer opens what was written before a crash.
TEST_F(LiveExportTest, ATraceWithoutItsEndLacksOnlyTheBracket) {
  scope::LiveExport exports = Make();
  exports.Add(Second(1, 1, 500));
  const std::string text = folder_.Get("run.trace");
  EXPECT_THAT(text, StartsWith("[\n{"));
  EXPECT_GT(nlohmann::json::parse(text + "]").size(), 3U);
}

TEST_F(LiveExportTest, AFileThatCannotBeWrittenIsToldOnceAndTheOtherGoesOn) {
  scope::LiveExport exports = Make();
  std::filesystem::create_directory(folder_ / "stress.prom.new");
  std::filesystem::create_directory(folder_ / "stress.prom.new/full");
  exports.Add(1.5, {});
  exports.Add(2.5, {});
  exports.End();
  EXPECT_THAT(faults_, ElementsAre(HasSubstr("cannot write " + (folder_ / "stress.prom.new"))));
  EXPECT_EQ(Trace().size(), 2U);
  EXPECT_THAT(folder_.Get("stress.prom"), HasSubstr("stress_run_running 1\n")) << "the last whole file stays";
}

// Without the meter there are no seconds.
TEST_F(LiveExportTest, CountersAloneAreWrittenAtOnce) {
  scope::LiveExport exports = Make();
  exports.Add(1.5, {Counter("thermal", "zone0", "degC", 47.25)});
  EXPECT_THAT(folder_.Get("stress.prom"),
              AllOf(HasSubstr("celsius{zone=\"zone0\"} 47.25\n"), HasSubstr("elapsed_seconds 1.5\n")));
  EXPECT_EQ(nlohmann::json::parse(folder_.Get("run.trace") + "]").size(), 3U);
}

// A recording that cannot go on ends with an exception.
TEST_F(LiveExportTest, TheEndIsSaidWhateverHappens) {
  {
    const scope::LiveExport exports = Make();
  }
  EXPECT_THAT(folder_.Get("stress.prom"), HasSubstr("stress_run_running 0\n"));
  EXPECT_EQ(Trace().size(), 2U);
}

TEST_F(LiveExportTest, AFileThatCannotBeMadeIsRefused) {
  EXPECT_THROW(scope::LiveExport({folder_ / "none/stress.prom", ""}, "", nullptr), scope::UserError);
  EXPECT_THROW(scope::LiveExport({"", folder_ / "none/run.trace"}, "", nullptr), scope::UserError);
}

}  // namespace
