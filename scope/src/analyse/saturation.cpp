// SPDX-License-Identifier: Apache-2.0
#include "saturation.h"

#include <algorithm>

#include "engines.h"
#include "ratio.h"

namespace scope {
namespace {

constexpr double kCloseShare = kSaturatedPercent / 100;
constexpr double kFromBestError = 0.05;
// Fewer repeats cannot tell most points from the best, and would name them all.
constexpr std::size_t kLeastRepeats = 4;

/// A point that is looked at, with the values of its runs.
struct Candidate {
  std::size_t point = 0;
  int threads = 0;
  double median = 0;
  const std::vector<double>* values = nullptr;
};

// None with fewer repeats, and for values of 0, which have no ratio.
std::optional<RatioEstimate> RatioToBest(const Candidate& best, const Candidate& other, std::size_t repeats) {
  for (const Candidate* const each : {&best, &other}) {
    const auto isPositive = [](double value) { return value > 0; };
    if (each->values->size() < repeats) return std::nullopt;
    if (!std::all_of(each->values->begin(), each->values->end(), isPositive)) return std::nullopt;
  }
  return EstimateRatio(*best.values, *other.values, kFromBestError);
}

std::optional<Saturation> FindIn(const std::vector<Candidate>& candidates) {
  if (candidates.empty()) return std::nullopt;
  const auto hasLessBandwidth = [](const Candidate& a, const Candidate& b) { return a.median < b.median; };
  const auto hasFewerThreads = [](const Candidate& a, const Candidate& b) { return a.threads < b.threads; };
  const auto hasRepeats = [](const Candidate& each) { return each.values->size() > 1; };
  const Candidate best = *std::max_element(candidates.begin(), candidates.end(), hasLessBandwidth);
  if (best.median <= 0) return std::nullopt;
  Candidate lowest = best;
  for (const Candidate& each : candidates) {
    if (each.median >= (1 - kCloseShare) * best.median && hasFewerThreads(each, lowest)) lowest = each;
  }
  std::optional<Candidate> indistinct;
  for (const Candidate& each : candidates) {
    if (!hasFewerThreads(each, indistinct.value_or(lowest))) continue;
    const std::optional<RatioEstimate> ratio = RatioToBest(best, each, kLeastRepeats);
    if (ratio && ratio->low <= 1 && ratio->high >= 1) indistinct = each;
  }
  Saturation saturation;
  saturation.best = best.point;
  saturation.lowest = lowest.point;
  saturation.reached =
      lowest.threads < std::max_element(candidates.begin(), candidates.end(), hasFewerThreads)->threads;
  saturation.hasRepeats = std::all_of(candidates.begin(), candidates.end(), hasRepeats);
  if (indistinct) saturation.indistinct = indistinct->point;
  if (lowest.point != best.point) {
    if (const auto ratio = RatioToBest(best, lowest, 2)) saturation.fromBest = PercentOf(*ratio);
  }
  return saturation;
}

int LevelOf(const SweepPoint& point, const std::string& section) {
  const auto isSection = [&section](const auto& level) { return level.first == section; };
  return std::find_if(point.levels.begin(), point.levels.end(), isSection)->second;
}

bool DiffersInOneSection(const SweepPoint& a, const SweepPoint& b, const std::string& section) {
  return std::equal(
      a.levels.begin(), a.levels.end(), b.levels.begin(),
      [&section](const auto& left, const auto& right) { return left.first == section || left == right; });
}

// The points that have the figure. `threadsOf` counts the threads of a point.
template <typename Threads>
std::vector<Candidate> CandidatesOf(const SweepTable& table, const FigureKey& key, Threads threadsOf) {
  std::vector<Candidate> candidates;
  for (std::size_t i = 0; i < table.points.size(); ++i) {
    const SweepPoint& point = table.points[i];
    const auto values = point.values.find(key);
    if (values == point.values.end()) continue;
    candidates.push_back({i, threadsOf(point), *MedianOf(point, key), &values->second});
  }
  return candidates;
}

}  // namespace

std::optional<Saturation> FindSaturation(const SweepTable& table) {
  if (!table.boardAxes.empty()) return std::nullopt;
  return FindIn(CandidatesOf(table, {kAllEngines, Figure::kBandwidth}, [](const SweepPoint& point) {
    int sum = 0;
    for (const auto& [section, level] : point.levels) sum += level;
    return sum;
  }));
}

std::vector<EngineSaturation> EngineSaturations(const SweepTable& table) {
  std::vector<EngineSaturation> saturations;
  if (table.engines.size() < 2 || !table.boardAxes.empty()) return saturations;
  for (const SweepAxis& axis : table.axes) {
    const EngineInfo* const engine = FindEngine(&EngineInfo::section, axis.section);
    if (engine == nullptr) continue;
    const std::string& section = axis.section;
    std::vector<Candidate> candidates =
        CandidatesOf(table, {engine->id, Figure::kBandwidth},
                     [&section](const SweepPoint& point) { return LevelOf(point, section); });
    const std::optional<Saturation> anywhere = FindIn(candidates);
    if (!anywhere) continue;
    const SweepPoint& best = table.points[anywhere->best];
    candidates.erase(std::remove_if(candidates.begin(), candidates.end(),
                                    [&](const Candidate& each) {
                                      return !DiffersInOneSection(table.points[each.point], best, section);
                                    }),
                     candidates.end());
    saturations.push_back({engine->id, section, *FindIn(candidates)});
  }
  return saturations;
}

}  // namespace scope
