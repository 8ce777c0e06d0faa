// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "check.h"

// platform_checks.so: the checks, linked with the platform under test. The kit's own process never loads it,
// because loading a library runs code of it.
extern "C" {

/// Adds a line for each library that the checks run over: a tab and a text. Then a line for each check, in
/// the order in which a port is best built: its name, a tab and its contract.
void ConformanceDescribe(std::string& text);

/// Runs the check of that name in this process, whose working directory is the check's own, and leaves the
/// result there (result_file.h). Returns the exit status of the process.
int ConformanceRun(const char* name, const conformance::Settings& settings);
}
