// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "matrix.h"
#include "worst_search.h"

namespace scope {

/// Parses --victim: "VPC", "VPC=2", "latency". Throws UserError for a section that is unknown or given twice,
/// and for a level that is not 1 to 10.
std::vector<MatrixVictim> ParseVictims(const std::vector<std::string>& texts);

/// The victims where none is named: those of the sections that have an aggressor, and the latency of memory.
std::vector<std::string> UsualVictims(const std::vector<SweepAxis>& axes,
                                      const std::vector<std::string>& sections);

/// "VPC=1", "latency".
std::string VictimText(const MatrixVictim& victim);

/// Each mix of aggressors for `victim`: the combinations of the axes without the victim's own, and without
/// the one in which all levels are 0. Levels of 0 are left out.
std::vector<SweepLevels> MixesFor(const std::vector<SweepAxis>& axes, const std::string& victim);

/// All runs. The aggressors' own runs come first, because the controls need them; then everything else
/// `repeats` times, each time in random order. Throws UserError if there is no mix, or for more than 9999
/// runs.
std::vector<MatrixRun> PlanMatrix(const Matrix& matrix);

/// Throws UserError if there is no mix to look for, or if the search may take more than 9999 runs.
void RequireSearch(const Matrix& matrix);

/// The levels of each of `sections` in this run: 0 for those that are neither victim nor aggressor.
SweepLevels LevelsOf(const Matrix& matrix, const MatrixRun& run, const std::vector<std::string>& sections);

/// The victim that `run` is for; none for kLoad.
const MatrixVictim* VictimOf(const Matrix& matrix, const MatrixRun& run);

/// The grid of a search for the worst mix.
WorstGrid WorstGridOf(const Matrix& matrix);

/// The number of the mix in that grid; none if it is not one of the victim's.
std::optional<std::size_t> MixNumber(const Matrix& matrix, const SweepLevels& mix);

/// The next run of a search for the worst mix; none if all is known. First the victim alone; then what the
/// search asks for; then what tells memory from processor time for the mix that it has found. `slowness` has
/// the results of the finished runs of kWith, by the number of the mix, in the order of recording.
std::optional<MatrixRun> NextOfWorst(const Matrix& matrix, const std::vector<Slowness>& slowness);

/// The mixes that the search has tried, the one that slowed the victim most first. Only the runs of its
/// budget decide: what is recorded of the first one afterwards does not make it another one.
std::vector<SweepLevels> FoundWorst(const Matrix& matrix, const std::vector<Slowness>& slowness);

/// True if every run is done and, in a search, the search has ended.
bool IsComplete(const Matrix& matrix, const std::vector<Slowness>& slowness);

}  // namespace scope
