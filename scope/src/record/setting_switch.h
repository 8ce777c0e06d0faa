// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "signals.h"

namespace scope {

/// Runs `command` in a shell and waits for its end. If `show`, its standard output and standard error go to
/// this program's standard error, without what controls a terminal. True if it was done, false if a signal
/// from `signals` ended it. Throws UserError if it ends with a failure.
bool RunSwitch(const std::string& command, bool show, Signals& signals);

/// Asks the user on the terminal to make the setting `name`, and waits for Enter. False if a signal came
/// instead. Throws UserError at the end of the input.
bool AskForSwitch(const std::string& name, Signals& signals);

}  // namespace scope
