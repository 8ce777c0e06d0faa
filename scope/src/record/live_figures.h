// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "meter_reader.h"

namespace scope {

/// What one engine did in a span of time, all threads together.
struct EngineFigures {
  int threads = 0;
  double operationsPerS = 0;
  std::optional<double> gigabytesPerS;  ///< 10^9 bytes, read and written; none if unknown
  std::uint64_t p50Ns = 0;
  std::uint64_t p99Ns = 0;
  std::uint64_t maxNs = 0;
  std::uint64_t failures = 0;  ///< since the start
};

/// The last second, and each engine's rate in all seconds so far.
class Figures {
 public:
  void Add(const MeterSecond& second);

  double TimeS() const { return timeS_; }
  /// The last second, by engine, in the order in which they are shown.
  std::vector<std::pair<std::string, EngineFigures>> Last() const;
  /// Operations per second of the engine in each second so far.
  const std::vector<double>& History(const std::string& engine) const;

 private:
  struct EngineState {
    EngineFigures last;
    bool bytesKnown = true;
    std::uint64_t failures = 0;
    std::vector<double> history;
  };
  double timeS_ = 0;
  std::map<std::string, EngineState> engines_;
};

}  // namespace scope
