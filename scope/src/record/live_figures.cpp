// SPDX-License-Identifier: Apache-2.0
#include "live_figures.h"

#include <algorithm>

#include "engines.h"

namespace scope {

void Figures::Add(const MeterSecond& second) {
  std::map<std::string, std::vector<const Sample*>> rows;
  for (const Sample& sample : second.samples) {
    engines_[sample.engine];
    rows[sample.engine].push_back(&sample);
  }
  for (auto& [name, engine] : engines_) {
    const std::uint64_t failures = engine.last.failures;
    engine.last = AddUp(rows[name], second.timeS - timeS_);
    engine.last.failures += failures;
    engine.history.push_back(engine.last.operationsPerS);
    const auto latencies = second.latencies.find(name);
    if (latencies == second.latencies.end()) continue;
    engine.last.p50Ns = std::min(latencies->second.Percentile(0.50), engine.last.maxNs);
    engine.last.p99Ns = std::min(latencies->second.Percentile(0.99), engine.last.maxNs);
  }
  timeS_ = second.timeS;
}

std::vector<std::pair<std::string, EngineSecond>> Figures::Last() const {
  std::vector<std::pair<std::string, EngineSecond>> rows;
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
