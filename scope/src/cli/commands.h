// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "command_line.h"
#include "sweep.h"

/// Each Add function adds a sub-command to `app`. The chosen sub-command runs during the parse and sets
/// `status` to the program's exit status. `status` must outlive the parse.
namespace scope {

void AddRecord(CLI::App& app, int& status);
void AddRates(CLI::App& app, int& status);
void AddReport(CLI::App& app, int& status);
void AddSweep(CLI::App& app, int& status);
void AddCompare(CLI::App& app, int& status);
void AddAb(CLI::App& app, int& status);

/// Adds the options of `record` and `sweep` that control the benchmark. They exclude `excluded` if it is not
/// null.
void AddRunSettings(CLI::App& command, RunSettings& settings, CLI::Option* excluded);

/// Prints the figures of the sweep in `folder`. Throws UserError.
void PrintSweep(const std::string& folder, Output output, const TextStyle& style);

/// The longest time that an option takes.
constexpr double kMostSeconds = 1e6;

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;   ///< the benchmark failed or the recording is incomplete
constexpr int kExitBadUsage = 2;  ///< wrong arguments or bad input

}  // namespace scope
