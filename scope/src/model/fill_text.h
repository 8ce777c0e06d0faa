// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "run.h"

/// What was filled with a pattern, in words. What was asked for is a condition of the run.
namespace scope {

/// What was filled of each engine's sources, a sentence each; empty if nothing was asked for.
std::vector<std::string> FillTexts(const RunInfo& info);

struct FillDoubt {
  std::string engine;
  std::string text;  ///< a sentence that names the engine
};

/// The engines of whose sources nothing, or not all, was filled although it was asked for.
std::vector<FillDoubt> FillDoubts(const RunInfo& info);

}  // namespace scope
