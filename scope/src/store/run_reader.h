#pragma once

#include <string>

#include "run.h"

namespace scope {

/// Reads the run folder `folder`. A last line that was cut (the recorder was killed) is left out and noted,
/// and so is a file that an incomplete run does not have; anything else that is wrong throws UserError,
/// which names the file, the line and what was expected there.
Run ReadRun(const std::string& folder);

/// run.json alone, of the folder `folder`. Throws UserError.
RunInfo ReadRunInfo(const std::string& folder);

/// True where `folder` has a run.json, whatever is in it. Throws UserError where that cannot be told.
bool IsRunFolder(const std::string& folder);

}  // namespace scope
