// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "run.h"

/// Wrong results and memory errors of a run.
namespace scope {

/// RunError::source of what the memory controllers of the machine count.
constexpr const char* kMemoryController = "edac";
/// RunError::source of memory that a guard watches.
constexpr const char* kGuardSource = "guard";

/// EngineCheck::state: some of the engine's threads were judged, others not.
constexpr const char* kPartlyJudged = "partly judged";

/// How many errors the entry stands for: a counter may grow by more than one.
std::uint64_t ErrorsIn(const RunError& error);

/// The error in one sentence, without its time.
std::string ErrorText(const RunError& error);

/// How many errors each source has. If the recorder was killed, run.json has those of its first second at
/// most: then the rows of the run's table are counted.
SourceErrors ErrorCounts(const Run& run);
std::uint64_t ErrorsOf(const Run& run);

/// All of them together.
std::uint64_t AllErrors(const SourceErrors& counts);

/// Adds `more` to `counts`.
void AddErrors(const SourceErrors& more, SourceErrors& counts);

/// "2 errors (edac 2)"; empty if there are none.
std::string CountsText(const SourceErrors& counts);

/// When the first error was found; none without errors.
std::optional<double> FirstErrorS(const Run& run);

/// True if the results of each thread of each engine with a level above 0 were judged, and there was one.
bool AreResultsJudged(const RunInfo& info);

/// True if a run without errors says that memory kept its contents. With --verify all engines have to be
/// judged; without it the guard looks, or a counter of the memory controllers.
bool LooksForErrors(const RunInfo& info);

/// What was checked of an engine, in one sentence.
std::string CheckText(const EngineCheck& check);

/// For a run that was asked to check results: each engine at work whose results, or those of some of its
/// threads, nothing judged, and why. Wrong ones would not have been found.
std::vector<std::string> NotJudged(const RunInfo& info);

/// What was checked of the run, a sentence each: its engines, and the guarded memory.
std::vector<std::string> CheckTexts(const RunInfo& info);

}  // namespace scope
