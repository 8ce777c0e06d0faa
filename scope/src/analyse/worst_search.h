// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

/// Which mix of aggressors slows a victim most: a search that decides from results alone which mix to try
/// next. It has no input and output, and no memory, as the search for the edge of settings: it can go on
/// after an interruption.
///
/// It assumes that mixes one level apart are alike. It does not assume that more load disturbs more:
/// aggressors may slow each other down.
namespace scope {

/// The mixes: each combination of the levels of all aggressors. A mix's number counts the levels of the last
/// aggressor fastest.
struct WorstGrid {
  std::vector<std::size_t> counts;  ///< how many levels each aggressor has, in rising order
  bool hasNone = false;             ///< mix 0 is no aggressor at all, which is not tried
  std::size_t repeats = 3;          ///< most runs of a mix
};

/// How slow the victim was in each run of a mix: any figure above 0 that grows with it, such as time per
/// operation. None where the run could not measure it: such a run counts, but says nothing of the mix.
using Slowness = std::vector<std::optional<double>>;

/// The runs of a search over all mixes.
std::size_t ExhaustiveRuns(const WorstGrid& grid);

/// The runs that the search may take: a fifth of those, but enough for the extreme mixes and a step from
/// there.
std::size_t WorstBudget(const WorstGrid& grid);

/// The mix to try next; none when `budget` runs were made, or nothing is left to find out. `tried` has an
/// entry for each mix. One whose runs measured nothing is not tried again.
std::optional<std::size_t> NextMix(const WorstGrid& grid, const std::vector<Slowness>& tried,
                                   std::size_t budget);

/// What the logarithm of one run is off by: the scatter of the runs of each mix around their mean, over all
/// mixes. Few runs say little of it: 2 % count as much as four more.
double ScatterOfRuns(const std::vector<Slowness>& tried);

/// The mixes with a measured run, the one that slowed the victim most first. A mix with few runs is drawn to
/// the others, by as much as ScatterOfRuns makes its mean uncertain: of mixes that are nearly alike, that
/// which is known best is first.
std::vector<std::size_t> WorstMixes(const WorstGrid& grid, const std::vector<Slowness>& tried);

}  // namespace scope
