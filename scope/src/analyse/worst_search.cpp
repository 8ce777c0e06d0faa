// SPDX-License-Identifier: Apache-2.0
#include "worst_search.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "margin_search.h"

namespace scope {
namespace {

// This share of the runs goes to mixes far from each other, the rest to what they have shown.
constexpr double kSpreadShare = 0.4;
// What one run of a mix is off by where nothing is known, and how many runs that knowledge is worth.
constexpr double kUsualError = 0.02;
constexpr double kUsualFreedom = 4;

/// The places of a mix's levels, from 0 (the lowest) to 1 (the highest).
using Place = std::vector<double>;

class Mixes {
 public:
  explicit Mixes(const WorstGrid& grid) : counts_(grid.counts), first_(grid.hasNone ? 1 : 0) {
    const MarginGrid all{counts_, 0};
    for (std::size_t mix = 0; mix < PointCount(all); ++mix) {
      values_.push_back(ValuesOfPoint(all, mix));
      Place place;
      for (std::size_t i = 0; i < counts_.size(); ++i) {
        const double steps = static_cast<double>(counts_[i]) - 1;
        place.push_back(steps > 0 ? static_cast<double>(values_.back()[i]) / steps : 0);
      }
      places_.push_back(std::move(place));
    }
  }

  std::size_t First() const { return first_; }
  std::size_t End() const { return values_.size(); }

  bool AreNeighbours(std::size_t a, std::size_t b) const {
    std::size_t steps = 0;
    for (std::size_t i = 0; i < counts_.size(); ++i) {
      steps += values_[a][i] > values_[b][i] ? values_[a][i] - values_[b][i] : values_[b][i] - values_[a][i];
    }
    return steps == 1;
  }

  double Distance(std::size_t a, std::size_t b) const {
    double sum = 0;
    for (std::size_t i = 0; i < counts_.size(); ++i)
      sum += (places_[a][i] - places_[b][i]) * (places_[a][i] - places_[b][i]);
    return std::sqrt(sum);
  }

  /// Every aggressor at its highest level, each one alone, and all but one.
  std::vector<std::size_t> Extremes() const {
    std::vector<std::size_t> extremes = {End() - 1};
    std::size_t stride = 1;
    std::vector<std::size_t> allBut;
    for (std::size_t i = counts_.size(); i-- > 0; stride *= counts_[i]) {
      const std::size_t highest = (counts_[i] - 1) * stride;
      if (highest == 0) continue;
      extremes.push_back(highest);
      allBut.push_back(End() - 1 - highest);
    }
    extremes.insert(extremes.end(), allBut.begin(), allBut.end());
    std::vector<std::size_t> distinct;
    for (const std::size_t mix : extremes) {
      if (mix >= first_ && std::find(distinct.begin(), distinct.end(), mix) == distinct.end())
        distinct.push_back(mix);
    }
    return distinct;
  }

 private:
  std::vector<std::size_t> counts_;
  std::size_t first_;
  std::vector<std::vector<std::size_t>> values_;
  std::vector<Place> places_;
};

std::size_t MeasuredRuns(const Slowness& runs) {
  return static_cast<std::size_t>(std::count_if(
      runs.begin(), runs.end(), [](const std::optional<double>& slowness) { return slowness.has_value(); }));
}

// Of the runs that measured it: one at least.
double LogMean(const Slowness& runs) {
  double sum = 0;
  for (const std::optional<double>& slowness : runs) sum += slowness ? std::log(*slowness) : 0;
  return sum / static_cast<double>(MeasuredRuns(runs));
}

std::size_t RunsOf(const std::vector<Slowness>& tried) {
  std::size_t runs = 0;
  for (const Slowness& mix : tried) runs += mix.size();
  return runs;
}

// The one that is farthest from all that were tried.
std::optional<std::size_t> Farthest(const Mixes& mixes, const std::vector<Slowness>& tried) {
  std::optional<std::size_t> farthest;
  double greatest = 0;
  for (std::size_t mix = mixes.First(); mix < mixes.End(); ++mix) {
    double nearest = 1e9;
    for (std::size_t other = mixes.First(); other < mixes.End(); ++other) {
      if (!tried[other].empty()) nearest = std::min(nearest, mixes.Distance(mix, other));
    }
    if (nearest <= greatest) continue;
    greatest = nearest;
    farthest = mix;
  }
  return farthest;
}

// The mean of the logarithms of what was tried, weighted by nearness.
double Expected(const Mixes& mixes, const std::vector<Slowness>& tried, std::size_t mix) {
  double sum = 0;
  double weights = 0;
  for (std::size_t other = mixes.First(); other < mixes.End(); ++other) {
    if (MeasuredRuns(tried[other]) == 0) continue;
    const double distance = mixes.Distance(mix, other);
    const double weight = 1 / (distance * distance * distance * distance);
    sum += weight * LogMean(tried[other]);
    weights += weight;
  }
  return sum / weights;
}

std::optional<std::size_t> Slowest(const Mixes& mixes, const std::vector<Slowness>& tried) {
  std::optional<std::size_t> slowest;
  for (std::size_t mix = mixes.First(); mix < mixes.End(); ++mix) {
    if (MeasuredRuns(tried[mix]) == 0) continue;
    if (!slowest || LogMean(tried[mix]) > LogMean(tried[*slowest])) slowest = mix;
  }
  return slowest;
}

// The untried neighbour of `of` that is expected to be the slowest.
std::optional<std::size_t> BestNeighbour(const Mixes& mixes, const std::vector<Slowness>& tried,
                                         std::size_t of) {
  std::optional<std::size_t> best;
  double greatest = 0;
  for (std::size_t mix = mixes.First(); mix < mixes.End(); ++mix) {
    if (!tried[mix].empty() || !mixes.AreNeighbours(mix, of)) continue;
    const double expected = Expected(mixes, tried, mix);
    if (best && expected <= greatest) continue;
    best = mix;
    greatest = expected;
  }
  return best;
}

// Successive halving: the slower half of what was tried gets a second run, the slower half of these all runs
// that a mix may have. The slowest that has fewer than it is to get.
std::optional<std::size_t> LeastKnown(const WorstGrid& grid, const Mixes& mixes,
                                      const std::vector<Slowness>& tried) {
  std::vector<std::size_t> ranked;
  for (std::size_t mix = mixes.First(); mix < mixes.End(); ++mix) {
    if (MeasuredRuns(tried[mix]) != 0) ranked.push_back(mix);
  }
  std::sort(ranked.begin(), ranked.end(),
            [&tried](std::size_t a, std::size_t b) { return LogMean(tried[a]) > LogMean(tried[b]); });
  for (const std::size_t runs : {std::min<std::size_t>(grid.repeats, 2), grid.repeats}) {
    ranked.resize((ranked.size() + 1) / 2);
    for (const std::size_t mix : ranked) {
      if (tried[mix].size() < runs) return mix;
    }
  }
  return std::nullopt;
}

}  // namespace

std::size_t ExhaustiveRuns(const WorstGrid& grid) {
  return (PointCount({grid.counts, 0}) - (grid.hasNone ? 1 : 0)) * grid.repeats;
}

std::size_t WorstBudget(const WorstGrid& grid) {
  const std::size_t least = Mixes(grid).Extremes().size() + 2 * grid.counts.size() + grid.repeats;
  return std::min(ExhaustiveRuns(grid), std::max(ExhaustiveRuns(grid) / 5, least));
}

std::optional<std::size_t> NextMix(const WorstGrid& grid, const std::vector<Slowness>& tried,
                                   std::size_t budget) {
  const Mixes mixes(grid);
  const std::size_t runs = RunsOf(tried);
  if (runs >= budget) return std::nullopt;
  for (const std::size_t mix : mixes.Extremes()) {
    if (tried[mix].empty()) return mix;
  }
  if (static_cast<double>(runs) < kSpreadShare * static_cast<double>(budget)) {
    if (const auto farthest = Farthest(mixes, tried)) return farthest;
  }
  const std::optional<std::size_t> slowest = Slowest(mixes, tried);
  if (!slowest) return Farthest(mixes, tried);
  // A mix that was slow by chance must not be climbed from for long.
  if (tried[*slowest].size() == 1 && grid.repeats > 1) return slowest;
  if (const auto neighbour = BestNeighbour(mixes, tried, *slowest)) return neighbour;
  if (const auto known = LeastKnown(grid, mixes, tried)) return known;
  return Farthest(mixes, tried);
}

double ScatterOfRuns(const std::vector<Slowness>& tried) {
  double squares = kUsualFreedom * kUsualError * kUsualError;
  double freedom = kUsualFreedom;
  for (const Slowness& runs : tried) {
    const std::size_t measured = MeasuredRuns(runs);
    if (measured < 2) continue;
    const double mean = LogMean(runs);
    for (const std::optional<double>& slowness : runs)
      squares += slowness ? (std::log(*slowness) - mean) * (std::log(*slowness) - mean) : 0;
    freedom += static_cast<double>(measured - 1);
  }
  return std::sqrt(squares / freedom);
}

std::vector<std::size_t> WorstMixes(const WorstGrid& grid, const std::vector<Slowness>& tried) {
  const double error = ScatterOfRuns(tried);
  std::vector<std::pair<double, std::size_t>> ranked;
  for (std::size_t mix = grid.hasNone ? 1 : 0; mix < tried.size(); ++mix) {
    const std::size_t measured = MeasuredRuns(tried[mix]);
    if (measured == 0) continue;
    const double worth = LogMean(tried[mix]) - error / std::sqrt(static_cast<double>(measured));
    ranked.emplace_back(-worth, mix);
  }
  std::sort(ranked.begin(), ranked.end());
  std::vector<std::size_t> mixes;
  for (const auto& [worth, mix] : ranked) mixes.push_back(mix);
  return mixes;
}

}  // namespace scope
