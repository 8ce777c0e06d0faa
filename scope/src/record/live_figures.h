// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "figures.h"
#include "meter_reader.h"

namespace scope {

/// The last second, and each engine's rate in all seconds so far.
class Figures {
 public:
  void Add(const MeterSecond& second);

  void SetLatency(const LatencySecond& second) { latency_ = second; }
  /// The last second of the latency probe; none without one.
  const std::optional<LatencySecond>& Latency() const { return latency_; }

  double TimeS() const { return timeS_; }
  /// The last second, by engine, in the order in which they are shown. Failures are those since the start.
  std::vector<std::pair<std::string, EngineSample>> Last() const;
  /// Operations per second of the engine in each second so far.
  const std::vector<double>& History(const std::string& engine) const;

 private:
  struct EngineState {
    EngineSample last;
    std::uint64_t failures = 0;
    std::vector<double> history;
  };
  double timeS_ = 0;
  std::map<std::string, EngineState> engines_;
  std::optional<LatencySecond> latency_;
};

/// Shows a recording while it runs. This base class shows nothing. Threads: one.
class View {
 public:
  virtual ~View() = default;
  /// A second has passed. `runTimeS` is the configured run time.
  virtual void Second(const Figures& /*figures*/, double /*timeS*/, double /*runTimeS*/) {}
  /// Stops drawing and restores the screen, so that others may write to it.
  virtual void End() {}
};

}  // namespace scope
