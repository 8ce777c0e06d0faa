// SPDX-License-Identifier: Apache-2.0
#include "engines.h"

// Keep this file to the table: a test links another table in its place.
namespace scope {

const std::vector<EngineInfo>& Engines() {
  static const std::vector<EngineInfo> kEngines = {
#define ENGINE(symbol, id, load, section, stress, fileKey, title, colour) \
  {id, load, section, stress, fileKey, title, colour},
#include "engines.inc"
#undef ENGINE
  };
  return kEngines;
}

}  // namespace scope
