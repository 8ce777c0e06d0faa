// SPDX-License-Identifier: Apache-2.0
#include "metrics.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <iterator>
#include <optional>
#include <utility>

#include "figures.h"
#include "printable.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr double kNsPerS = 1e9;
constexpr double kMebibyte = 1024.0 * 1024;

std::string Number(double value) {
  char digits[32];
  return {digits, std::to_chars(digits, digits + sizeof digits, value).ptr};
}

// A reader refuses the whole file for one byte that is no UTF-8.
std::string LabelValue(const std::string& text) {
  std::string quoted = "\"";
  for (const char character : Printable(text)) {
    if (character == '\\' || character == '"') quoted += '\\';
    if (character == '\n') {
      quoted += "\\n";
    } else {
      quoted += character;
    }
  }
  return quoted + '"';
}

/// Counters of one source that have a family of their own. `scale` makes base units. `unit`: only counters in
/// this unit; null: all.
struct Family {
  const char* source;
  const char* name;
  const char* type;
  const char* help;
  const char* label;
  double scale;
  const char* unit = nullptr;

  bool Has(const CounterValue& counter) const {
    return counter.source == source && (unit == nullptr || counter.unit == unit);
  }
};
constexpr Family kFamilies[] = {
    {"thermal", "stress_temperature_celsius", "gauge", "Temperature of a thermal zone.", "zone", 1},
    {"cpufreq", "stress_cpu_frequency_hertz", "gauge", "Frequency of a CPU.", "cpu", 1e6},
    {"devfreq", "stress_memory_frequency_hertz", "gauge", "Frequency of a memory controller.", "device", 1},
    {"edac", "stress_memory_errors_total", "counter", "Memory errors that a controller has counted.",
     "counter", 1},
    {"throttle", "stress_cpu_throttle_events_total", "counter", "How often a CPU was throttled.", "cpu", 1},
    {"resctrl", "stress_memory_bandwidth_bytes_per_second", "gauge", "Memory traffic of a domain.", "domain",
     1},
    {"perf", "stress_memory_traffic_bytes_per_second", "gauge", "Memory traffic that a controller counts.",
     "event", kMebibyte, "MiB/s"},
    {"load", "stress_machine_cpus", "gauge", "CPUs that others use (others) or that were taken away (steal).",
     "use", 1},
    {"pressure", "stress_machine_pressure_ratio", "gauge",
     "Share of the last second in which some process waited.", "resource", 1e-2},
};

bool HasFamily(const CounterValue& counter) {
  return std::any_of(std::begin(kFamilies), std::end(kFamilies),
                     [&](const Family& family) { return family.Has(counter); });
}

}  // namespace

/// The text under construction.
class MetricsPage {
 public:
  void Family(const std::string& name, const char* type, const char* help) {
    name_ = name;
    head_ = "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
  }

  /// `labels`: "engine=\"cpu\"", or nothing. A family without values is left out.
  void Value(const std::string& labels, double value) {
    text_ += head_ + name_ + (labels.empty() ? labels : "{" + labels + "}") + " " + Number(value) + "\n";
    head_.clear();
  }

  const std::string& Text() const { return text_; }

 private:
  std::string name_;
  std::string head_;
  std::string text_;
};

Metrics::Metrics(double startedS, std::string label) : startedS_(startedS), label_(std::move(label)) {}

void Metrics::Add(const MeterSecond& second) {
  const double spanS = second.timeS - timeS_;
  const bool whole = spanS > kShownSecondS;
  for (auto& [name, engine] : engines_) {
    if (whole) engine.last = {};
  }
  for (const EngineSample& row : second.engines) {
    Engine& engine = engines_[row.engine];
    if (whole) {
      engine.last = row;
      SetRates(engine.last, spanS);
    }
    engine.total.operations += row.operations;
    engine.total.failures += row.failures;
    engine.total.busyNs += row.busyNs;
    if (row.bytes) engine.total.bytes = engine.total.bytes.value_or(0) + *row.bytes;
  }
  timeS_ = second.timeS;
  elapsedS_ = std::max(elapsedS_, timeS_);
}

void Metrics::Add(double timeS, const std::vector<CounterValue>& values) {
  elapsedS_ = std::max(elapsedS_, timeS);
  for (const CounterValue& value : values) counters_[{value.source, value.name}] = value;
}

void Metrics::Add(const std::vector<LatencySecond>& seconds) {
  for (const LatencySecond& second : seconds) {
    if (!latency_) latency_.emplace();
    if (second.timeS - std::exchange(latency_->timeS, second.timeS) > kShownSecondS) latency_->last = second;
    latency_->bursts += second.bursts;
    latency_->interrupted += second.interrupted;
    elapsedS_ = std::max(elapsedS_, second.timeS);
  }
}

std::string Metrics::Text(bool running) const {
  MetricsPage page;
  page.Family("stress_run_info", "gauge", "The run that these figures are of.");
  page.Value("label=" + LabelValue(label_) + ",tool=" + LabelValue(kToolVersion), 1);
  page.Family("stress_run_start_time_seconds", "gauge", "Start of the run since 1970.");
  page.Value("", startedS_);
  page.Family("stress_run_running", "gauge", "1 while the benchmark runs, 0 after its end.");
  page.Value("", running ? 1 : 0);
  page.Family("stress_run_elapsed_seconds", "gauge", "Time from the start of the run to its last figures.");
  page.Value("", elapsedS_);
  AddEngines(page);
  AddLatency(page);
  AddCounters(page);
  return page.Text();
}

void Metrics::AddEngines(MetricsPage& page) const {
  const auto each = [&](const char* name, const char* type, const char* help,
                        const std::function<std::optional<double>(const Engine&)>& figure) {
    page.Family(name, type, help);
    for (const auto& [id, engine] : engines_) {
      if (const std::optional<double> value = figure(engine)) page.Value("engine=" + LabelValue(id), *value);
    }
  };
  each("stress_engine_operations_total", "counter", "Operations that succeeded.",
       [](const Engine& engine) { return static_cast<double>(engine.total.operations); });
  each("stress_engine_failed_operations_total", "counter", "Operations that failed.",
       [](const Engine& engine) { return static_cast<double>(engine.total.failures); });
  each("stress_engine_busy_seconds_total", "counter", "Time in operations, of all threads.",
       [](const Engine& engine) { return static_cast<double>(engine.total.busyNs) / kNsPerS; });
  each("stress_engine_bytes_total", "counter", "Bytes that operations read and wrote.",
       [](const Engine& engine) -> std::optional<double> {
         if (!engine.total.bytes) return {};
         return static_cast<double>(*engine.total.bytes);
       });
  each("stress_engine_operations_per_second", "gauge", "Operations in the last second.",
       [](const Engine& engine) { return engine.last.operationsPerS; });
  each("stress_engine_bandwidth_bytes_per_second", "gauge",
       "Bytes that were read and written in the last second.",
       [](const Engine& engine) -> std::optional<double> {
         if (!engine.last.gigabytesPerS) return {};
         return *engine.last.gigabytesPerS * kBytesPerGigabyte;
       });
  each("stress_engine_threads", "gauge", "Worker threads that completed an operation in the last second.",
       [](const Engine& engine) { return engine.last.threads; });
  const auto latency = [&](const char* name, const char* help, std::uint64_t Work::* field) {
    each(name, "gauge", help, [field](const Engine& engine) -> std::optional<double> {
      if (engine.last.operations == 0) return {};
      return static_cast<double>(engine.last.*field) / kNsPerS;
    });
  };
  latency("stress_engine_latency_median_seconds", "Median latency of the last second's operations.",
          &Work::p50Ns);
  latency("stress_engine_latency_p99_seconds", "99th percentile of the last second's latencies.",
          &Work::p99Ns);
  latency("stress_engine_latency_max_seconds", "Longest operation of the last second.", &Work::maxNs);
}

void Metrics::AddLatency(MetricsPage& page) const {
  if (!latency_) return;
  const auto latency = [&](const char* name, const char* help, std::uint64_t LatencySecond::* field) {
    page.Family(name, "gauge", help);
    // Without an access in this second there is no value, and not 0.
    if (latency_->last.accesses != 0) page.Value("", static_cast<double>(latency_->last.*field) / kNsPerS);
  };
  latency("stress_memory_latency_median_seconds", "Median of the last second's accesses to memory.",
          &LatencySecond::p50Ns);
  latency("stress_memory_latency_p99_seconds", "99th percentile of the last second's accesses to memory.",
          &LatencySecond::p99Ns);
  latency("stress_memory_latency_p999_seconds", "99.9th percentile of the last second's accesses to memory.",
          &LatencySecond::p999Ns);
  latency("stress_memory_latency_max_seconds", "Longest access to memory of the last second.",
          &LatencySecond::maxNs);
  page.Family("stress_memory_latency_bursts_total", "counter", "Bursts of accesses that the probe has made.");
  page.Value("", static_cast<double>(latency_->bursts));
  page.Family("stress_memory_latency_interrupted_bursts_total", "counter",
              "Bursts in which the probe lost its processor; their accesses are not counted.");
  page.Value("", static_cast<double>(latency_->interrupted));
}

void Metrics::AddCounters(MetricsPage& page) const {
  for (const Family& family : kFamilies) {
    page.Family(family.name, family.type, family.help);
    for (const auto& [key, counter] : counters_) {
      if (!family.Has(counter)) continue;
      page.Value(std::string(family.label) + "=" + LabelValue(key.second), counter.value * family.scale);
    }
  }
  page.Family("stress_machine_reading", "gauge", "Another figure of the machine, in the unit that it has.");
  for (const auto& [key, counter] : counters_) {
    if (HasFamily(counter)) continue;
    page.Value("source=" + LabelValue(key.first) + ",name=" + LabelValue(key.second) +
                   ",unit=" + LabelValue(counter.unit),
               counter.value);
  }
}

}  // namespace scope
