// SPDX-License-Identifier: Apache-2.0
#include "curve_plan.h"

#include <algorithm>
#include <numeric>
#include <sstream>
#include <tuple>
#include <vector>

#include "engines.h"
#include "errors.h"
#include "sweep_plan.h"
#include "text_format.h"

namespace scope {
namespace {

// Workers of copies pause for longer than they copy where memory is fast. With fewer threads the processors
// would wait.
constexpr int kThreadsPerCpu = 5;
// Each of these loads its file first, and takes more processor time for it than a short run has.
constexpr int kLoadersPerCpu = 2;

int GreatestShare(const SweepLevels& mix) {
  int greatest = 1;
  for (const auto& [section, share] : mix) greatest = std::max(greatest, share);
  return greatest;
}

}  // namespace

SweepLevels ParseMix(const std::string& text) {
  SweepLevels mix;
  std::istringstream parts(text + ",");
  for (std::string part; std::getline(parts, part, ',');) {
    const std::size_t colon = part.find(':');
    const std::string share = colon == std::string::npos ? "1" : part.substr(colon + 1);
    // As levels: sections are known and given once, shares are whole numbers from 1 to 10.
    const std::string level = part.substr(0, colon) + "=" + share;
    try {
      mix.push_back(ParsePoint(level).front());
    } catch (const UserError& error) {
      throw UserError("--mix " + text + ": expected sections and their shares, as in CPU,VPC:2; " +
                      error.what());
    }
    if (mix.back().second == 0) throw UserError("--mix " + text + ": expected shares from 1, found 0");
    const auto isSame = [&mix](const auto& other) { return other.first == mix.back().first; };
    if (std::any_of(mix.begin(), mix.end() - 1, isSame))
      throw UserError("--mix " + text + ": " + mix.back().first + " is given twice");
  }
  return mix;
}

int ReduceMix(SweepLevels& mix) {
  int divisor = 0;
  for (const auto& [section, share] : mix) divisor = std::gcd(divisor, share);
  for (auto& [section, share] : mix) share /= std::max(divisor, 1);
  return divisor;
}

int GreatestMost(const SweepLevels& mix) {
  return kMostLevel / GreatestShare(mix);
}

int UsualMost(const SweepLevels& mix, int cpus) {
  int threads = 0;
  int most = GreatestMost(mix);
  for (const auto& [section, share] : mix) {
    threads += share;
    const EngineInfo* const engine = FindEngine(&EngineInfo::section, section);
    if (share > 0 && engine != nullptr && *engine->fileKey != '\0')
      most = std::min(most, std::max(kLoadersPerCpu * cpus / share, 1));
  }
  return std::clamp((kThreadsPerCpu * cpus + threads - 1) / std::max(threads, 1), 1, most);
}

void PlanRunsOf(Curve& curve) {
  Sweep& sweep = curve.sweep;
  const auto repeats = static_cast<std::size_t>(sweep.settings.repeats);
  const auto points = static_cast<std::size_t>(curve.points);
  sweep.runs.assign(points * repeats, {});
  const std::vector<std::size_t> order = RandomOrder(points, sweep.settings.repeats, sweep.settings.seed);
  for (std::size_t i = 0; i < order.size(); ++i) {
    const std::size_t repeat = i / points;
    const std::size_t index = order[i] * repeats + repeat;
    SweepRun& run = sweep.runs[index];
    run.folder = RunFolder(index);
    std::tie(run.levels, run.dutyPercent) = LevelsOf(curve, static_cast<int>(order[i]));
    run.repeat = static_cast<int>(repeat) + 1;
    run.order = static_cast<int>(i) + 1;
  }
}

std::string MixText(const SweepLevels& mix) {
  std::vector<std::string> parts;
  for (const auto& [section, share] : mix) {
    if (share != 0) parts.push_back(share == 1 ? section : section + ":" + std::to_string(share));
  }
  return Joined(parts, ",");
}

}  // namespace scope
