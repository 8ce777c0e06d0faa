// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "check.h"

namespace conformance {

struct Outcome {
  enum class Kind { kPassed, kFailed, kSkipped };
  Kind kind = Kind::kFailed;
  std::string text;  ///< found instead of the contract, reason of the skip, or note of the pass
  std::vector<std::string> output;  ///< last lines that the check's process wrote
  double seconds = 0;
};

/// From here on SIGINT, SIGTERM and SIGHUP end the check that RunApart is at, and are kept for Interrupted.
void CatchInterrupts();

/// The signal that is to end the run; 0: none.
int Interrupted();

/// Ends this process as the signal would have.
[[noreturn]] void EndBy(int signal);

/// Runs the check in a process of its own and tells how that ended: a crash, an end of its own and a hang of
/// more than `timeoutS` seconds are failures of the check, and so is an interrupt. The calling process never
/// calls the platform.
Outcome RunApart(const Check& check, const Settings& settings, unsigned int timeoutS);

/// Runs the check in this process, whose working directory is the check's own, and leaves the result there.
/// Returns the exit status of the process.
int RunHere(const Check& check, const Settings& settings);

}  // namespace conformance
