// SPDX-License-Identifier: Apache-2.0
#include "margin_search.h"

#include <algorithm>
#include <cstdlib>
#include <tuple>

namespace scope {
namespace {

/// For each setting, how many values a point is from the chosen one, and in which direction.
using Offsets = std::vector<long>;

std::vector<Offsets> AllOffsets(const MarginGrid& grid) {
  const std::vector<std::size_t> origin = ValuesOfPoint(grid, grid.chosen);
  std::vector<Offsets> all(PointCount(grid));
  for (std::size_t point = 0; point < all.size(); ++point) {
    const std::vector<std::size_t> values = ValuesOfPoint(grid, point);
    for (std::size_t i = 0; i < values.size(); ++i)
      all[point].push_back(static_cast<long>(values[i]) - static_cast<long>(origin[i]));
  }
  return all;
}

/// True if the first point is farther out than the other one, or the same.
bool IsFarther(const Offsets& offsets, const Offsets& others) {
  for (std::size_t i = 0; i < offsets.size(); ++i) {
    if (others[i] > 0 && offsets[i] < others[i]) return false;
    if (others[i] < 0 && offsets[i] > others[i]) return false;
  }
  return true;
}

long StepsOf(const Offsets& offsets) {
  long steps = 0;
  for (const long offset : offsets) steps += std::abs(offset);
  return steps;
}

std::vector<Judgement> JudgeAt(const std::vector<Offsets>& offsets, const std::vector<Trials>& trials) {
  std::vector<Judgement> judgements(trials.size());
  for (std::size_t i = 0; i < trials.size(); ++i) {
    if (trials[i].failures == 0) continue;
    for (std::size_t j = 0; j < trials.size(); ++j) {
      if (IsFarther(offsets[j], offsets[i])) judgements[j].fails = true;
    }
  }
  for (std::size_t i = 0; i < trials.size(); ++i) {
    // The passes of a point that fails sometimes are no clean runs: counting them alone would flatter.
    if (trials[i].passes == 0 || judgements[i].fails) continue;
    for (std::size_t j = 0; j < trials.size(); ++j) {
      if (IsFarther(offsets[i], offsets[j])) judgements[j].cleanRuns += trials[i].passes;
    }
  }
  return judgements;
}

// The one that leaves the fewest points open, whether it passes or fails. Of equal ones the nearest: it is
// the least likely to hang the board.
std::size_t Halving(const std::vector<Offsets>& offsets, const std::vector<std::size_t>& open) {
  std::size_t best = open.front();
  std::tuple<std::size_t, long> greatest{0, 0};
  for (const std::size_t point : open) {
    std::size_t nearer = 0;
    std::size_t farther = 0;
    for (const std::size_t other : open) {
      if (IsFarther(offsets[point], offsets[other])) ++nearer;
      if (IsFarther(offsets[other], offsets[point])) ++farther;
    }
    const std::tuple<std::size_t, long> worth{std::min(nearer, farther), -StepsOf(offsets[point])};
    if (point != open.front() && worth <= greatest) continue;
    best = point;
    greatest = worth;
  }
  return best;
}

// A point at the edge: there are no others to be tried farther out. The one with the most clean runs.
std::size_t Outermost(const std::vector<Offsets>& offsets, const std::vector<Judgement>& judgements,
                      const std::vector<std::size_t>& open) {
  std::optional<std::size_t> best;
  for (const std::size_t point : open) {
    if (best && judgements[point].cleanRuns <= judgements[*best].cleanRuns) continue;
    const bool isInside = std::any_of(open.begin(), open.end(), [&](std::size_t other) {
      return other != point && IsFarther(offsets[other], offsets[point]);
    });
    if (!isInside) best = point;
  }
  return best.value_or(open.front());
}

// True if `farther` cannot well fail as often as `nearer`, which has failed.
bool Contradicts(const Trials& nearer, const Trials& farther, std::size_t repeats) {
  if (farther.failures != 0 || farther.passes == 0) return false;
  // Three failures were to be expected: none comes with 5 %.
  if (farther.passes * nearer.failures >= 3 * (nearer.passes + nearer.failures)) return true;
  // At the edge, one run each says little. Without repeats there is no more.
  const std::size_t enough = std::min<std::size_t>(repeats, 2);
  return nearer.passes == 0 && nearer.failures >= enough && farther.passes >= enough;
}

}  // namespace

std::size_t PointCount(const MarginGrid& grid) {
  std::size_t count = 1;
  for (const std::size_t values : grid.counts) count *= values;
  return count;
}

std::vector<std::size_t> ValuesOfPoint(const MarginGrid& grid, std::size_t point) {
  std::vector<std::size_t> values(grid.counts.size());
  for (std::size_t i = values.size(); i-- > 0;) {
    values[i] = point % grid.counts[i];
    point /= grid.counts[i];
  }
  return values;
}

std::vector<Judgement> Judge(const MarginGrid& grid, const std::vector<Trials>& trials) {
  return JudgeAt(AllOffsets(grid), trials);
}

std::vector<Judgement> JudgeAlone(const std::vector<Trials>& trials) {
  std::vector<Judgement> judgements;
  judgements.reserve(trials.size());
  for (const Trials& at : trials) judgements.push_back({at.failures != 0, at.failures == 0 ? at.passes : 0});
  return judgements;
}

std::vector<std::size_t> Neighbours(const MarginGrid& grid) {
  const std::vector<Offsets> offsets = AllOffsets(grid);
  std::vector<std::size_t> neighbours;
  for (std::size_t point = 0; point < offsets.size(); ++point) {
    if (StepsOf(offsets[point]) == 1) neighbours.push_back(point);
  }
  return neighbours;
}

std::optional<std::size_t> NextPoint(const MarginGrid& grid, const std::vector<Trials>& trials,
                                     std::size_t repeats) {
  const auto runsAt = [&trials](std::size_t point) { return trials[point].passes + trials[point].failures; };
  if (runsAt(grid.chosen) == 0) return grid.chosen;
  const std::vector<Offsets> offsets = AllOffsets(grid);
  const std::vector<Judgement> judgements = JudgeAt(offsets, trials);
  std::vector<std::size_t> unknown;
  std::vector<std::size_t> doubtful;
  std::size_t runs = 0;
  for (std::size_t point = 0; point < trials.size(); ++point) {
    runs += runsAt(point);
    if (judgements[point].fails || judgements[point].cleanRuns >= repeats) continue;
    (judgements[point].cleanRuns == 0 ? unknown : doubtful).push_back(point);
  }
  if (!unknown.empty()) return Halving(offsets, unknown);
  if (!doubtful.empty()) return Outermost(offsets, judgements, doubtful);
  if (judgements[grid.chosen].fails || runs * 4 >= trials.size() * repeats) return std::nullopt;
  if (runsAt(grid.chosen) < repeats) return grid.chosen;
  for (const std::size_t point : Neighbours(grid)) {
    // What fails has been seen to fail, or fails for sure: a repeat may hang the board again.
    if (!judgements[point].fails && runsAt(point) < repeats) return point;
  }
  return std::nullopt;
}

std::vector<std::pair<std::size_t, std::size_t>> Contradictions(const MarginGrid& grid,
                                                                const std::vector<Trials>& trials,
                                                                std::size_t repeats, std::size_t most) {
  const std::vector<Offsets> offsets = AllOffsets(grid);
  std::vector<std::pair<std::size_t, std::size_t>> pairs;
  for (std::size_t failing = 0; failing < trials.size(); ++failing) {
    if (trials[failing].failures == 0) continue;
    for (std::size_t passing = 0; passing < trials.size() && pairs.size() < most; ++passing) {
      if (Contradicts(trials[failing], trials[passing], repeats) &&
          IsFarther(offsets[passing], offsets[failing])) {
        pairs.emplace_back(failing, passing);
      }
    }
  }
  return pairs;
}

}  // namespace scope
