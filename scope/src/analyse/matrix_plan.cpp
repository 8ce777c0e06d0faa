// SPDX-License-Identifier: Apache-2.0
#include "matrix_plan.h"

#include <algorithm>
#include <utility>

#include "engines.h"
#include "errors.h"
#include "matrix_folder.h"
#include "sweep_plan.h"

namespace scope {
namespace {

constexpr std::size_t kMostMatrixRuns = 9999;

SweepLevels WithoutZeros(const SweepLevels& levels) {
  SweepLevels mix;
  for (const auto& level : levels) {
    if (level.second != 0) mix.push_back(level);
  }
  return mix;
}

std::vector<SweepAxis> AggressorsOf(const std::vector<SweepAxis>& axes, const std::string& victim) {
  std::vector<SweepAxis> others;
  for (const SweepAxis& axis : axes) {
    if (axis.section != victim) others.push_back(axis);
  }
  return others;
}

std::vector<SweepLevels> RequireMixes(const std::vector<SweepAxis>& axes, const std::string& victim) {
  std::vector<SweepLevels> mixes = MixesFor(axes, victim);
  if (!mixes.empty()) return mixes;
  throw UserError("nothing disturbs " + victim + ": give levels above 0 of another section, as in --levels " +
                  (victim == "CPU" ? "VPC" : "CPU") + "=0,1");
}

// The runs of each mix within the search's budget. Those that come after it are of the mix that it has found.
std::vector<Slowness> WithinBudget(const Matrix& matrix, std::vector<Slowness> slowness) {
  const WorstGrid grid = WorstGridOf(matrix);
  const std::vector<SweepLevels> mixes = MixesFor(matrix.axes, matrix.victims.front().section);
  std::vector<std::size_t> counts(slowness.size());
  std::size_t left = WorstBudget(grid);
  for (const MatrixRun& run : matrix.runs) {
    if (run.part != MatrixPart::kWith || run.state != SweepState::kDone || left == 0) continue;
    const auto mix = std::find(mixes.begin(), mixes.end(), run.mix);
    if (mix != mixes.end()) ++counts[static_cast<std::size_t>(mix - mixes.begin()) + (grid.hasNone ? 1 : 0)];
    --left;
  }
  for (std::size_t mix = 0; mix < slowness.size(); ++mix)
    slowness[mix].resize(std::min(slowness[mix].size(), counts[mix]));
  return slowness;
}

// How many runs of this kind there are, and whether one of them is not done.
struct Count {
  int runs = 0;
  bool isOpen = false;
};

Count CountOf(const Matrix& matrix, MatrixPart part, const SweepLevels& mix) {
  Count count;
  for (const MatrixRun& run : matrix.runs) {
    if (run.part != part || run.mix != mix) continue;
    ++count.runs;
    count.isOpen = count.isOpen || run.state != SweepState::kDone;
  }
  return count;
}

void Append(std::vector<MatrixRun>& runs, MatrixPart part, const std::string& victim, const SweepLevels& mix,
            int repeat) {
  MatrixRun run;
  run.folder = MatrixRunFolder(runs.size());
  run.part = part;
  run.victim = victim;
  run.mix = mix;
  run.repeat = repeat;
  runs.push_back(std::move(run));
}

}  // namespace

std::vector<MatrixVictim> ParseVictims(const std::vector<std::string>& texts) {
  std::vector<MatrixVictim> victims;
  for (const std::string& text : texts) {
    MatrixVictim victim;
    if (text == kLatencyVictim) {
      victim = {text, 0};
    } else {
      const SweepLevels levels = ParsePoint(text.find('=') == std::string::npos ? text + "=1" : text);
      victim = {levels.front().first, levels.front().second};
      if (levels.size() != 1 || victim.level == 0)
        throw UserError("\"" + text + "\": expected one section and a level from 1 to " +
                        std::to_string(kMostLevel));
    }
    const bool isTwice = std::any_of(victims.begin(), victims.end(),
                                     [&](const MatrixVictim& one) { return one.section == victim.section; });
    if (isTwice) throw UserError("the victim " + victim.section + " is given twice");
    victims.push_back(std::move(victim));
  }
  return victims;
}

std::vector<std::string> UsualVictims(const std::vector<SweepAxis>& axes,
                                      const std::vector<std::string>& sections) {
  std::vector<std::string> victims;
  for (const std::string& section : sections) {
    if (!MixesFor(axes, section).empty()) victims.push_back(section);
  }
  victims.emplace_back(kLatencyVictim);
  return victims;
}

std::string VictimText(const MatrixVictim& victim) {
  return victim.section == kLatencyVictim ? victim.section : PointText({{victim.section, victim.level}});
}

std::vector<SweepLevels> MixesFor(const std::vector<SweepAxis>& axes, const std::string& victim) {
  std::vector<SweepLevels> mixes;
  for (const SweepLevels& point : PointsOf(AggressorsOf(axes, victim))) {
    SweepLevels mix = WithoutZeros(point);
    if (!mix.empty()) mixes.push_back(std::move(mix));
  }
  return mixes;
}

std::vector<MatrixRun> PlanMatrix(const Matrix& matrix) {
  std::vector<SweepLevels> loads;
  std::vector<MatrixRun> round;
  for (const MatrixVictim& victim : matrix.victims) {
    const std::vector<SweepLevels> mixes = RequireMixes(matrix.axes, victim.section);
    Append(round, MatrixPart::kAlone, victim.section, {}, 1);
    for (const SweepLevels& mix : mixes) {
      Append(round, MatrixPart::kWith, victim.section, mix, 1);
      Append(round, MatrixPart::kControl, victim.section, mix, 1);
      if (std::find(loads.begin(), loads.end(), mix) == loads.end()) loads.push_back(mix);
    }
    if (round.size() > kMostMatrixRuns) break;
  }
  const auto repeats = static_cast<std::size_t>(matrix.settings.repeats);
  if (loads.size() + round.size() * repeats > kMostMatrixRuns) {
    throw UserError("the matrix has more than " + std::to_string(kMostMatrixRuns) +
                    " runs: give fewer victims, levels or repeats, or look for the worst mix with --worst");
  }
  std::vector<MatrixRun> runs;
  for (const std::size_t load : RandomOrder(loads.size(), 1, matrix.settings.seed))
    Append(runs, MatrixPart::kLoad, "", loads[load], 1);
  const std::vector<std::size_t> order =
      RandomOrder(round.size(), matrix.settings.repeats, matrix.settings.seed);
  for (std::size_t i = 0; i < order.size(); ++i) {
    const MatrixRun& next = round[order[i]];
    Append(runs, next.part, next.victim, next.mix, static_cast<int>(i / round.size()) + 1);
  }
  return runs;
}

void RequireSearch(const Matrix& matrix) {
  (void)RequireMixes(matrix.axes, matrix.victims.front().section);
  // Its own runs; then the victim alone, the mix that it found, and its control.
  const auto repeats = static_cast<std::size_t>(matrix.settings.repeats);
  const std::size_t most = WorstBudget(WorstGridOf(matrix)) + 3 * repeats + 1;
  if (most <= kMostMatrixRuns) return;
  throw UserError("the search may take " + std::to_string(most) + " runs, expected at most " +
                  std::to_string(kMostMatrixRuns) + ": give fewer levels or repeats");
}

SweepLevels LevelsOf(const Matrix& matrix, const MatrixRun& run, const std::vector<std::string>& sections) {
  SweepLevels levels;
  for (const std::string& section : sections) levels.emplace_back(section, 0);
  const auto set = [&levels](const std::string& section, int level) {
    const auto at = std::find_if(levels.begin(), levels.end(),
                                 [&section](const auto& one) { return one.first == section; });
    if (at == levels.end()) {
      levels.emplace_back(section, level);
    } else {
      at->second = level;
    }
  };
  const MatrixVictim* const victim = VictimOf(matrix, run);
  if (victim != nullptr && victim->section != kLatencyVictim) set(victim->section, victim->level);
  if (run.part == MatrixPart::kControl) return levels;
  for (const auto& [section, level] : run.mix) set(section, level);
  return levels;
}

const MatrixVictim* VictimOf(const Matrix& matrix, const MatrixRun& run) {
  for (const MatrixVictim& victim : matrix.victims) {
    if (victim.section == run.victim) return &victim;
  }
  return nullptr;
}

WorstGrid WorstGridOf(const Matrix& matrix) {
  WorstGrid grid;
  grid.hasNone = true;
  grid.repeats = static_cast<std::size_t>(matrix.settings.repeats);
  for (const SweepAxis& axis : AggressorsOf(matrix.axes, matrix.victims.front().section)) {
    grid.counts.push_back(axis.levels.size());
    // Levels rise, and the first mix has the lowest of all.
    if (axis.levels.front() != 0) grid.hasNone = false;
  }
  return grid;
}

std::optional<std::size_t> MixNumber(const Matrix& matrix, const SweepLevels& mix) {
  const std::vector<SweepLevels> mixes = MixesFor(matrix.axes, matrix.victims.front().section);
  const auto at = std::find(mixes.begin(), mixes.end(), mix);
  if (at == mixes.end()) return std::nullopt;
  return static_cast<std::size_t>(at - mixes.begin()) + (WorstGridOf(matrix).hasNone ? 1 : 0);
}

std::vector<SweepLevels> FoundWorst(const Matrix& matrix, const std::vector<Slowness>& slowness) {
  const WorstGrid grid = WorstGridOf(matrix);
  const std::vector<SweepLevels> mixes = MixesFor(matrix.axes, matrix.victims.front().section);
  std::vector<SweepLevels> found;
  for (const std::size_t mix : WorstMixes(grid, WithinBudget(matrix, slowness)))
    found.push_back(mixes[mix - (grid.hasNone ? 1 : 0)]);
  return found;
}

std::optional<MatrixRun> NextOfWorst(const Matrix& matrix, const std::vector<Slowness>& slowness) {
  const std::string& victim = matrix.victims.front().section;
  const auto open = std::find_if(matrix.runs.begin(), matrix.runs.end(),
                                 [](const MatrixRun& run) { return run.state != SweepState::kDone; });
  if (open != matrix.runs.end()) return *open;
  std::vector<MatrixRun> runs = matrix.runs;
  const auto next = [&](MatrixPart part, const SweepLevels& mix) {
    Append(runs, part, part == MatrixPart::kLoad ? "" : victim, mix, CountOf(matrix, part, mix).runs + 1);
    return runs.back();
  };
  const int repeats = matrix.settings.repeats;
  if (CountOf(matrix, MatrixPart::kAlone, {}).runs < repeats) return next(MatrixPart::kAlone, {});
  const WorstGrid grid = WorstGridOf(matrix);
  if (const std::optional<std::size_t> mix = NextMix(grid, slowness, WorstBudget(grid)))
    return next(MatrixPart::kWith, MixesFor(matrix.axes, victim)[*mix - (grid.hasNone ? 1 : 0)]);
  const std::vector<SweepLevels> found = FoundWorst(matrix, slowness);
  if (found.empty()) return std::nullopt;
  const SweepLevels& worst = found.front();
  if (CountOf(matrix, MatrixPart::kLoad, worst).runs == 0) return next(MatrixPart::kLoad, worst);
  for (const MatrixPart part : {MatrixPart::kWith, MatrixPart::kControl}) {
    if (CountOf(matrix, part, worst).runs < repeats) return next(part, worst);
  }
  return std::nullopt;
}

bool IsComplete(const Matrix& matrix, const std::vector<Slowness>& slowness) {
  const bool isDone = std::all_of(matrix.runs.begin(), matrix.runs.end(),
                                  [](const MatrixRun& run) { return run.state == SweepState::kDone; });
  return isDone && (!matrix.worst || !NextOfWorst(matrix, slowness));
}

}  // namespace scope
