#pragma once

#include <CLI/CLI.hpp>

#include "record.h"

/// Each sub-command adds itself to `app` and, when it is the one chosen, runs within the parse and leaves the
/// program's exit status in `status`, which outlives the parse.
namespace scope {

void AddRecord(CLI::App& app, int& status);
void AddRates(CLI::App& app, int& status);
void AddReport(CLI::App& app, int& status);
void AddSweep(CLI::App& app, int& status);
void AddCompare(CLI::App& app, int& status);

/// The options of `record` and `sweep` that say how the benchmark is run. They exclude `excluded`, unless it
/// is null.
void AddRunSettings(CLI::App& command, RunSettings& settings, CLI::Option* excluded);

/// Records a run, and then prints where it is saved; before that its figures, if `summary`.
RecordResult RecordAndPrint(const RecordOptions& options, View& view, Signals& signals, bool summary);

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;   ///< the benchmark failed, or the recording is not complete
constexpr int kExitBadUsage = 2;  ///< wrong arguments or bad input

}  // namespace scope
