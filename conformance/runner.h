// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "check.h"

namespace conformance {

struct Outcome {
  enum class Kind { kPassed, kFailed, kSkipped };
  Kind kind = Kind::kFailed;
  std::string text;                 ///< what was found, why it was skipped, or a remark on the pass
  std::vector<std::string> output;  ///< last lines that the check's process wrote
  double seconds = 0;
};

/// After this call, SIGINT, SIGTERM and SIGHUP end the running check, and Interrupted returns the signal.
void CatchInterrupts();

/// The signal that has interrupted the run; 0: none.
int Interrupted();

/// Ends this process by the signal.
[[noreturn]] void EndBy(int signal);

/// Runs the check in its own process and returns the result. The check fails if that process crashes, exits,
/// runs for more than `timeoutS` seconds or is interrupted. The calling process never calls the platform.
Outcome RunApart(const Check& check, const Settings& settings, unsigned int timeoutS);

/// Runs the check in this process and writes the result into the working directory.
/// Returns the exit status of the process.
int RunHere(const Check& check, const Settings& settings);

}  // namespace conformance
