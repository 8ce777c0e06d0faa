// SPDX-License-Identifier: Apache-2.0
#include "live_figures.h"

#include "engines.h"

namespace scope {

void Figures::Add(const MeterSecond& second) {
  for (auto& [name, engine] : engines_) engine.last = {};
  for (const EngineSample& row : second.engines) {
    EngineState& engine = engines_[row.engine];
    engine.last = row;
    SetRates(engine.last, second.timeS - timeS_);
    engine.failures += row.failures;
  }
  for (auto& [name, engine] : engines_) {
    engine.last.failures = engine.failures;
    engine.history.push_back(engine.last.operationsPerS);
  }
  timeS_ = second.timeS;
}

std::vector<std::pair<std::string, EngineSample>> Figures::Last() const {
  std::vector<std::pair<std::string, EngineSample>> rows;
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
