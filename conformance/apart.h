// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace conformance {

/// How a process that RunApart started has ended.
struct Ending {
  enum class Kind { kEnded, kTimedOut, kInterrupted, kNotStarted };
  Kind kind = Kind::kNotStarted;
  int status = 0;                   ///< of waitpid, where it ended
  std::string error;                ///< why it was not started
  std::vector<std::string> output;  ///< the last lines that it wrote, long ones cut
  unsigned int leftBehind = 0;      ///< processes that it left and that were ended
};

/// From here on SIGINT, SIGTERM and SIGHUP end the process that RunApart waits for, and are kept for
/// Interrupted.
void CatchInterrupts();

/// The signal that is to end the run; 0: none.
int Interrupted();

/// Ends this process as the signal would have.
[[noreturn]] void EndBy(int signal);

/// From here on, a process that a check leaves behind becomes a child of this one, even if it has a session
/// of its own. RunApart can then end it. Existing children are left alone.
void AdoptLeftovers();

/// Runs `body` in a new process in the folder `folder` and waits for its end, at most `timeoutS` seconds.
/// Reads its output while it runs and keeps only the end of it. Kills every process that it leaves behind.
Ending RunApart(const std::string& folder, unsigned int timeoutS, const std::function<int()>& body);

}  // namespace conformance
