// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>

#include "record.h"

/// Each function adds a sub-command to `app`. The chosen sub-command runs during the parse and sets `status`
/// to the program's exit status. `status` must outlive the parse.
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

/// Records a run. Prints its figures if `summary` is set, and then where it is saved.
RecordResult RecordAndPrint(const RecordOptions& options, View& view, Signals& signals, bool summary);

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;   ///< the benchmark failed or the recording is incomplete
constexpr int kExitBadUsage = 2;  ///< wrong arguments or bad input

}  // namespace scope
