// SPDX-License-Identifier: Apache-2.0
#include "trace_file.h"

#include <cmath>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <utility>

#include "engines.h"
#include "figures.h"

namespace scope {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kBenchmark = 1;  // "processes" of the trace
constexpr int kMachine = 2;
constexpr double kUsPerS = 1e6;
constexpr double kNsPerUs = 1e3;
constexpr int kThreadsOfAnEngine = 1000;

// A fraction of a nanosecond means nothing.
double Us(double seconds) {
  return std::round(seconds * kUsPerS * kNsPerUs) / kNsPerUs;
}

int TrackOf(const Sample& sample) {
  return static_cast<int>(EngineOrder(sample.engine) + 1) * kThreadsOfAnEngine + sample.thread;
}

std::string TitleOf(const std::string& engine) {
  const EngineInfo* const info = FindEngine(&EngineInfo::id, engine);
  return info != nullptr ? info->title : engine;
}

Json Named(const char* what, int process, const std::string& name) {
  return {{"name", what}, {"ph", "M"}, {"pid", process}, {"args", {{"name", name}}}};
}

std::string Text(const Json& event) {
  return event.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

TraceFile::TraceFile(const std::string& path) : file_(path) {
  Event(Text(Named("process_name", kBenchmark, "stress_benchmark")));
  Event(Text(Named("process_name", kMachine, "machine")));
  Flush();
}

void TraceFile::Add(const MeterSecond& second) {
  const double spanS = second.timeS - timeS_;
  for (const Sample& sample : second.samples) {
    if (sample.operations == 0 && sample.failures == 0) continue;
    NameThread(sample);
    Json work = {{"operations", sample.operations},
                 {"busy_us", static_cast<double>(sample.busyNs) / kNsPerUs}};
    if (sample.bytes) work["bytes"] = *sample.bytes;
    if (sample.failures != 0) work["failures"] = sample.failures;
    if (sample.operations != 0) {
      work["p50_us"] = static_cast<double>(sample.p50Ns) / kNsPerUs;
      work["p99_us"] = static_cast<double>(sample.p99Ns) / kNsPerUs;
      work["max_us"] = static_cast<double>(sample.maxNs) / kNsPerUs;
    }
    Event(Text({{"name", sample.engine},
                {"ph", "X"},
                {"pid", kBenchmark},
                {"tid", TrackOf(sample)},
                {"ts", Us(timeS_)},
                {"dur", Us(spanS)},
                {"args", std::move(work)}}));
  }
  // A value is drawn from its time on. That of a second stands at the second's begin.
  for (EngineSample engine : second.engines) {
    if (spanS <= kShownSecondS) continue;
    SetRates(engine, spanS);
    Count(kBenchmark, timeS_, engine.engine + " op/s", engine.operationsPerS);
    if (engine.gigabytesPerS) Count(kBenchmark, timeS_, engine.engine + " GB/s", *engine.gigabytesPerS);
    Count(kBenchmark, timeS_, engine.engine + " p50 us", static_cast<double>(engine.p50Ns) / kNsPerUs);
    Count(kBenchmark, timeS_, engine.engine + " p99 us", static_cast<double>(engine.p99Ns) / kNsPerUs);
  }
  timeS_ = second.timeS;
  Flush();
}

void TraceFile::Add(double timeS, const std::vector<CounterValue>& values) {
  for (const CounterValue& value : values) {
    Count(kMachine, countersS_, value.source + " " + value.name + " " + value.unit, value.value);
  }
  countersS_ = timeS;
  Flush();
}

void TraceFile::Add(const std::vector<LatencySecond>& seconds) {
  for (const LatencySecond& second : seconds) {
    const double from = std::exchange(latencyS_, second.timeS);
    if (second.accesses == 0 || second.timeS - from <= kShownSecondS) continue;
    const auto count = [&](const char* figure, std::uint64_t ns) {
      Count(kMachine, from, std::string("memory latency ") + figure + " ns", static_cast<double>(ns));
    };
    count("p50", second.p50Ns);
    count("p99", second.p99Ns);
    count("p99.9", second.p999Ns);
    count("max", second.maxNs);
  }
  Flush();
}

void TraceFile::Close() {
  file_.Write(std::exchange(events_, {}) + "\n]\n");
  file_.Close();
}

void TraceFile::Flush() {
  file_.Write(std::exchange(events_, {}));
}

void TraceFile::NameThread(const Sample& sample) {
  if (!threads_.insert({sample.engine, sample.thread}).second) return;
  Json name = Named("thread_name", kBenchmark, TitleOf(sample.engine) + " " + std::to_string(sample.thread));
  name["tid"] = TrackOf(sample);
  Event(Text(name));
}

void TraceFile::Count(int process, double timeS, const std::string& name, double value) {
  Event(
      Text({{"name", name}, {"ph", "C"}, {"pid", process}, {"ts", Us(timeS)}, {"args", {{"value", value}}}}));
}

void TraceFile::Event(const std::string& json) {
  if (!first_) events_ += ",\n";
  first_ = false;
  events_ += json;
}

}  // namespace scope
