#pragma once

#include <string>

#include "run.h"

namespace scope {

constexpr int kRunFormat = 1;

/// The text of run.json.
std::string RunInfoText(const RunInfo& info);

/// What the text of the file `path`, a run.json, says. Throws DamagedFolder, which names the file and what
/// was expected there.
RunInfo ParseRunInfo(const std::string& text, const std::string& path);

}  // namespace scope
