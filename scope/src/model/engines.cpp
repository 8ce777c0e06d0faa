// SPDX-License-Identifier: Apache-2.0
#include "engines.h"

#include <algorithm>

namespace scope {

const EngineInfo* FindEngine(const char* EngineInfo::* field, const std::string& value) {
  const auto at = std::find_if(Engines().begin(), Engines().end(),
                               [&](const EngineInfo& engine) { return engine.*field == value; });
  return value.empty() || at == Engines().end() ? nullptr : &*at;
}

std::size_t EngineOrder(const std::string& id) {
  const EngineInfo* const engine = FindEngine(&EngineInfo::id, id);
  return engine == nullptr ? Engines().size() : static_cast<std::size_t>(engine - Engines().data());
}

bool IsLoad(const std::string& id) {
  const EngineInfo* const engine = FindEngine(&EngineInfo::id, id);
  return engine == nullptr || engine->load;
}

}  // namespace scope
