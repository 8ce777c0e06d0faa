// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "check.h"
#include "check_text.h"

namespace conformance {

struct Outcome {
  enum class Kind { kPassed, kFailed, kSkipped };
  Kind kind = Kind::kFailed;
  std::string text;                 ///< what was found, why it was skipped, or a remark on the pass
  std::vector<std::string> output;  ///< last lines that the check's process wrote
  double seconds = 0;
};

/// What the checks' library says of itself.
struct Description {
  std::vector<std::string> libraries;  ///< a line for each that the checks run over
  std::vector<CheckText> checks;       ///< in the order in which a port is best built
};

// Both functions load the platform under test only in a new process. A crash of that process, an exit, a hang
// of more than `timeoutS` seconds and an interrupt are failures.

/// Loads the checks and what they run over. `outcome` says whether that went well.
Description Describe(unsigned int timeoutS, Outcome& outcome);

/// Runs the check and tells how that went.
Outcome RunCheck(const CheckText& check, const Settings& settings, unsigned int timeoutS);

}  // namespace conformance
