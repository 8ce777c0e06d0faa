// SPDX-License-Identifier: Apache-2.0

// The table of engines with one more row. It replaces the library's table.
#include "engines.h"

namespace scope {

const std::vector<EngineInfo>& Engines() {
  static const std::vector<EngineInfo> kEngines = {
#define ENGINE(symbol, id, load, section, stress, fileKey, title, colour) \
  {id, load, section, stress, fileKey, title, colour},
#include "engines.inc"
      ENGINE(Dma, "dma", true, "DMA", "dmaStress", "Program", "DMA: block moves", "#123456")
#undef ENGINE
  };
  return kEngines;
}

}  // namespace scope
