// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "meter_reader.h"
#include "run.h"

namespace scope {

class MetricsPage;

/// The figures of a running benchmark as metrics, in the text format that Prometheus' node exporter reads
/// from files. Units are base units: seconds, bytes, hertz, degrees Celsius.
class Metrics {
 public:
  /// `startedS`: seconds since 1970 at the benchmark's start. `label`: the user's text for the run.
  Metrics(double startedS, std::string label);

  void Add(const MeterSecond& second);
  /// Keeps the last value of each counter. `timeS`: when they were read.
  void Add(double timeS, const std::vector<CounterValue>& values);
  /// Seconds of the latency probe, in order of time.
  void Add(const std::vector<LatencySecond>& seconds);

  /// Everything that was added so far. `running`: false after the benchmark's end.
  std::string Text(bool running) const;

 private:
  struct Engine {
    Work total;
    EngineSample last;
  };

  /// The latency of memory: of the last second, and bursts so far.
  struct Latency {
    LatencySecond last;
    double timeS = 0;  ///< end of what was added
    std::uint64_t bursts = 0;
    std::uint64_t interrupted = 0;
  };

  void AddEngines(MetricsPage& page) const;
  void AddLatency(MetricsPage& page) const;
  void AddCounters(MetricsPage& page) const;

  double startedS_;
  std::string label_;
  double timeS_ = 0;  ///< end of the last second
  double elapsedS_ = 0;
  std::map<std::string, Engine> engines_;
  std::optional<Latency> latency_;                                        ///< none without a probe
  std::map<std::pair<std::string, std::string>, CounterValue> counters_;  ///< by source and name
};

}  // namespace scope
