#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace scope {

/// An engine, as its row in protocol/engines.inc has it.
struct EngineInfo {
  const char* id;
  bool load;
  const char* section;
  const char* stress;
  const char* fileKey;
  const char* title;
  const char* colour;
};

/// The table of engines: every list of engines is made from it. Its rows are in the order of enum Engine.
const std::vector<EngineInfo>& Engines();

/// The engine whose `field` has this value; null where there is none, as in a run folder of a later version.
const EngineInfo* FindEngine(const char* EngineInfo::* field, const std::string& value);

/// Place of the engine `id` in the table; for one that is not there, the place behind the last.
std::size_t EngineOrder(const std::string& id);

/// True for an engine that works while the run goes on, false for one of a worker's set-up.
bool IsLoad(const std::string& id);

/// The highest level that the benchmark takes.
constexpr int kMostLevel = 10;

}  // namespace scope
