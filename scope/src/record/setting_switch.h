// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "errors.h"
#include "run.h"
#include "signals.h"

namespace scope {

/// The command that makes a setting is not there, or cannot be executed.
class CommandMissing : public UserError {
 public:
  using UserError::UserError;
};

/// The command that makes a setting did not end.
class CommandHangs : public UserError {
 public:
  using UserError::UserError;
};

/// The same, and SIGKILL did not end it either: it still runs.
class CommandStuck : public CommandHangs {
 public:
  using CommandHangs::CommandHangs;
};

/// Runs `command` in a shell and waits for its end. If `show`, its standard output and standard error go to
/// this program's standard error, without what controls a terminal. True if it was done, false if a signal
/// from `signals` ended it. Throws UserError if it ends with a failure; CommandMissing if that is 126 or 127
/// and the first word of `command` is not a program that is there (also if a shell would change that word, so
/// that nobody knows); and CommandHangs, when it has been killed, if it takes longer than `mostS` seconds (0:
/// no limit); CommandStuck, if it was killed for that or by a second signal and has not ended after `deathS`.
bool RunSwitch(const std::string& command, bool show, Signals& signals, double mostS = 0,
               double deathS = RunSettings().deathS);

/// Asks the user on the terminal to make the setting `name`, and waits for Enter. False if a signal came
/// instead. Throws UserError at the end of the input.
bool AskForSwitch(const std::string& name, Signals& signals);

}  // namespace scope
