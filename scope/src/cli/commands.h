#pragma once

#include <CLI/CLI.hpp>

/// Each sub-command adds itself to `app` and, when it is the one chosen, runs within the parse and leaves the
/// program's exit status in `status`, which outlives the parse.
namespace scope {

void AddRecord(CLI::App& app, int& status);
void AddRates(CLI::App& app, int& status);
void AddReport(CLI::App& app, int& status);
void AddSweep(CLI::App& app, int& status);
void AddCompare(CLI::App& app, int& status);

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;   ///< the benchmark failed, or the recording is not complete
constexpr int kExitBadUsage = 2;  ///< wrong arguments or bad input

}  // namespace scope
