// SPDX-License-Identifier: Apache-2.0
#include "live_figures.h"

#include <algorithm>

#include "engines.h"
#include "text_format.h"

namespace scope {

void Figures::Add(const MeterSecond& second) {
  const double spanS = second.timeS - timeS_;
  for (auto& [name, engine] : engines_) {
    engine.last = {};
    engine.last.failures = engine.failures;
  }
  std::map<std::string, std::uint64_t> operations;
  std::map<std::string, std::uint64_t> bytes;
  for (const Sample& sample : second.samples) {
    EngineState& engine = engines_[sample.engine];
    operations[sample.engine] += sample.operations;
    if (sample.bytes) {
      bytes[sample.engine] += *sample.bytes;
    } else {
      engine.bytesKnown = false;
    }
    engine.failures += sample.failures;
    engine.last.failures = engine.failures;
    engine.last.threads += sample.operations != 0 ? 1 : 0;
    engine.last.maxNs = std::max(engine.last.maxNs, sample.maxNs);
  }
  for (auto& [name, engine] : engines_) {
    if (spanS > 0) {
      engine.last.operationsPerS = static_cast<double>(operations[name]) / spanS;
      if (engine.bytesKnown)
        engine.last.gigabytesPerS = static_cast<double>(bytes[name]) / spanS / kBytesPerGigabyte;
    }
    engine.history.push_back(engine.last.operationsPerS);
    const auto latencies = second.latencies.find(name);
    if (latencies == second.latencies.end()) continue;
    engine.last.p50Ns = std::min(latencies->second.Percentile(0.50), engine.last.maxNs);
    engine.last.p99Ns = std::min(latencies->second.Percentile(0.99), engine.last.maxNs);
  }
  timeS_ = second.timeS;
}

std::vector<std::pair<std::string, EngineFigures>> Figures::Last() const {
  std::vector<std::pair<std::string, EngineFigures>> rows;
  for (const EngineInfo& engine : Engines()) {
    const auto at = engines_.find(engine.id);
    if (engine.load && at != engines_.end()) rows.emplace_back(engine.id, at->second.last);
  }
  return rows;
}

const std::vector<double>& Figures::History(const std::string& engine) const {
  return engines_.at(engine).history;
}

}  // namespace scope
