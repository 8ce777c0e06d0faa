// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "command_line.h"
#include "compare.h"
#include "compare_conditions.h"
#include "pages.h"
#include "sweep.h"

/// Each Add function adds a sub-command to `app`. The chosen sub-command runs during the parse and sets
/// `status` to the program's exit status. `status` must outlive the parse.
namespace scope {

void AddRecord(CLI::App& app, int& status);
void AddRates(CLI::App& app, int& status);
void AddReport(CLI::App& app, int& status);
void AddSweep(CLI::App& app, int& status);
void AddCurve(CLI::App& app, int& status);
void AddCompare(CLI::App& app, int& status);
void AddAb(CLI::App& app, int& status);
void AddPlan(CLI::App& app, int& status);
void AddCell(CLI::App& app, int& status);
void AddCollect(CLI::App& app, int& status);
void AddFleet(CLI::App& app, int& status);
void AddMatrix(CLI::App& app, int& status);

/// Add options that control the benchmark, which exclude `excluded` if it is not null: the programs and
/// folders of this machine, how long and how a run is measured, and both.
void AddPrograms(CLI::App& command, RunSettings& settings, CLI::Option* excluded);
void AddRunLimits(CLI::App& command, RunSettings& settings, CLI::Option* excluded);
void AddRunSettings(CLI::App& command, RunSettings& settings, CLI::Option* excluded);
/// Adds --fill, --verify and --duty, which need the meter, and --guard. Call it after AddRunLimits.
void AddChecks(CLI::App& command, RunSettings& settings, CLI::Option* excluded);

/// Adds --latency, --latency-cpu and --latency-size.
void AddLatency(CLI::App& command, RunSettings& settings);
/// Adds --latency-size, which excludes `excluded` if it is not null.
CLI::Option* AddLatencySize(CLI::App& command, RunSettings& settings, CLI::Option* excluded);
/// Adds the last two, which exclude `excluded` and need `needed` where these are not null.
void AddLatencyPlace(CLI::App& command, RunSettings& settings, CLI::Option* excluded, CLI::Option* needed);

/// Adds --levels, --repeat, --warmup and --seed, which exclude `excluded` if it is not null. `point` is what
/// the runs are repeated for, in the help. Returns --seed: without it the caller chooses one.
CLI::Option* AddGrid(CLI::App& command, std::vector<std::string>& levels, SweepSettings& settings,
                     const std::string& point, CLI::Option* excluded);

/// Prints the figures of the sweep in `folder`, and writes their page. Throws
/// UserError.
void ShowSweep(const std::string& folder, Output output, const TextStyle& style, const PageFile& file);

/// Prints the curves in `folders`, and writes a page that all share. Throws UserError.
void ShowCurves(const std::vector<std::string>& folders, Output output, const TextStyle& style,
                const PageFile& file);

/// Prints what slows each victim of the matrix in `folder`, and writes its page. Throws UserError.
void ShowMatrix(const std::string& folder, Output output, const TextStyle& style, const PageFile& file);

/// Two sides and how they compare.
struct ComparedSides {
  Side a;
  Side b;
  Comparison comparison;
  std::vector<ConditionDifference> differences;
  CompareOptions options;
};

/// Prints the comparison, and writes its page. Throws UserError.
void ShowComparison(const ComparedSides& sides, Output output, const TextStyle& style, const PageFile& file);

/// The longest time that an option takes.
constexpr double kMostSeconds = 1e6;

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  ///< the benchmark failed, the recording is incomplete, or a board stands out
constexpr int kExitBadUsage = 2;  ///< wrong arguments or bad input
constexpr int kExitNotYet = 3;    ///< `collect`: nothing failed, but not all cells are done
/// `record`, `sweep`, `curve`, `matrix`, `cell`: results were wrong, or memory had errors. A cell is then
/// done all the same.
constexpr int kExitErrors = 3;
constexpr int kExitBoardAway = 4;  ///< `cell --on`: the board cannot be reached, was lost, or is in use

}  // namespace scope
