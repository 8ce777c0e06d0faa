// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "run.h"

namespace scope {

constexpr int kRunFormat = 2;
constexpr const char* kInfoName = "run.json";

/// The text of run.json.
std::string RunInfoText(const RunInfo& info);

/// Parses `text`, the content of the run.json at `path`. Throws DamagedFolder, which names the file and what
/// was expected.
RunInfo ParseRunInfo(const std::string& text, const std::string& path);

}  // namespace scope
