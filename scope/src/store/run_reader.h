// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "run.h"

namespace scope {

/// Reads the run folder `folder`. A cut last line (the recorder was killed) is left out and noted. A file
/// that an incomplete run lacks is noted. Any other fault throws UserError, which names the file, the line
/// and what was expected.
Run ReadRun(const std::string& folder);

/// Reads only run.json of the folder `folder`. Throws UserError.
RunInfo ReadRunInfo(const std::string& folder);

/// Reads only errors.csv of the folder `folder`, as ReadRun; empty if there is none. Throws UserError.
std::vector<RunError> ReadRunErrors(const std::string& folder);

/// Which errors a run has found, as far as its folder says.
struct FoundErrors {
  SourceErrors counts;
  std::vector<std::string> unreadable;  ///< sentences
};

/// Reads run.json and errors.csv of `folder`: the run may have been cut off, and a machine that died may have
/// damaged one of the two files. Empty for a folder without a run.
FoundErrors ReadFoundErrors(const std::string& folder);

/// The counts of ReadFoundErrors. No value where nothing was found and something could not be read: what the
/// run has found is not known then.
std::optional<SourceErrors> KnownErrors(const std::string& folder);

/// True if `folder` contains a run.json, whatever its content. Throws UserError if this cannot be found out.
bool IsRunFolder(const std::string& folder);

}  // namespace scope
