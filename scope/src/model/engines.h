// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace scope {

/// One engine: its row in protocol/engines.inc, which explains the fields.
struct EngineInfo {
  const char* id;
  bool load;
  const char* section;
  const char* stress;
  const char* fileKey;
  const char* title;
  const char* colour;
};

/// The table of engines, in the order of enum Engine. Every list of engines is made from it.
const std::vector<EngineInfo>& Engines();

/// The engine whose `field` has this value. Null if there is none: a later version may know more engines.
const EngineInfo* FindEngine(const char* EngineInfo::* field, const std::string& value);

/// The row of the engine `id` in the table; the number of rows if it is not there.
std::size_t EngineOrder(const std::string& id);

/// False for an engine that works only in a worker's set-up; true for all others and for unknown ones.
bool IsLoad(const std::string& id);

/// The highest level that the benchmark accepts.
constexpr int kMostLevel = 10;

}  // namespace scope
