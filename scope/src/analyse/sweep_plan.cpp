// SPDX-License-Identifier: Apache-2.0
#include "sweep_plan.h"

#include <algorithm>
#include <cstdlib>
#include <random>
#include <sstream>
#include <utility>

#include "engines.h"
#include "errors.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr std::size_t kMostGridRuns = 9999;

int ParseLevel(const std::string& text, const std::string& whole) {
  const bool digits =
      !text.empty() && text.size() <= 3 && text.find_first_not_of("0123456789") == std::string::npos;
  const int level = digits ? std::atoi(text.c_str()) : kMostLevel + 1;
  if (level > kMostLevel) {
    throw UserError("\"" + whole + "\": expected levels from 0 to " + std::to_string(kMostLevel) +
                    ", found \"" + text + "\"");
  }
  return level;
}

// "CPU, VPC, VENC or AIC".
std::string Sections() {
  std::vector<std::string> names;
  for (const EngineInfo& engine : Engines()) {
    if (engine.load) names.emplace_back(engine.section);
  }
  const std::string last = names.back();
  names.pop_back();
  return Joined(names, ", ") + " or " + last;
}

SweepAxis ParseAxis(const std::string& text) {
  SweepAxis axis;
  const std::size_t sign = text.find('=');
  axis.section = text.substr(0, sign);
  if (sign == std::string::npos || FindEngine(&EngineInfo::section, axis.section) == nullptr) {
    throw UserError("\"" + text + "\": expected " + Sections() +
                    ", then \"=\" and levels, as in CPU=0,1,2..4");
  }
  const auto refuse = [&text](const std::string& why) { throw UserError("\"" + text + "\": " + why); };
  std::istringstream parts(text.substr(sign + 1) + ",");
  for (std::string part; std::getline(parts, part, ',');) {
    const std::size_t dots = part.find("..");
    const int first = ParseLevel(part.substr(0, dots), text);
    const int last = dots == std::string::npos ? first : ParseLevel(part.substr(dots + 2), text);
    if (last < first) refuse("the range " + part + " goes down, expected it to rise");
    for (int level = first; level <= last; ++level) {
      if (std::find(axis.levels.begin(), axis.levels.end(), level) != axis.levels.end()) {
        refuse("level " + std::to_string(level) + " is given twice");
      }
      axis.levels.push_back(level);
    }
  }
  std::sort(axis.levels.begin(), axis.levels.end());
  return axis;
}

// Not std::shuffle: its order may differ between library versions.
void Shuffle(std::vector<std::size_t>& items, std::mt19937_64& random) {
  for (std::size_t i = items.size(); i > 1; --i) std::swap(items[i - 1], items[random() % i]);
}

}  // namespace

std::string PointText(const SweepLevels& levels, const BoardSettings& settings, double dutyPercent) {
  std::string text;
  for (const auto& [section, level] : levels) {
    text += (text.empty() ? "" : " ") + section + "=" + std::to_string(level);
  }
  for (const auto& [name, value] : settings) text += (text.empty() ? "" : " ") + name + "=" + value;
  if (dutyPercent < kWholeDuty) text += Format(" at %.3g %%", dutyPercent);
  return text;
}

std::vector<SweepAxis> ParseAxes(const std::vector<std::string>& texts) {
  std::vector<SweepAxis> axes;
  for (const std::string& text : texts) {
    SweepAxis axis = ParseAxis(text);
    for (const SweepAxis& other : axes) {
      if (other.section == axis.section) throw UserError("levels of " + axis.section + " are given twice");
    }
    axes.push_back(std::move(axis));
  }
  return axes;
}

SweepLevels ParsePoint(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream stream(text + ",");
  for (std::string part; std::getline(stream, part, ',');) parts.push_back(part);
  SweepLevels levels;
  for (const SweepAxis& axis : ParseAxes(parts)) {
    if (axis.levels.size() != 1) throw UserError("\"" + text + "\": expected one level of " + axis.section);
    levels.emplace_back(axis.section, axis.levels.front());
  }
  return levels;
}

std::vector<SweepLevels> PointsOf(const std::vector<SweepAxis>& axes) {
  std::vector<SweepLevels> points = {{}};
  for (const SweepAxis& axis : axes) {
    std::vector<SweepLevels> longer;
    for (const SweepLevels& point : points) {
      for (const int level : axis.levels) {
        longer.push_back(point);
        longer.back().emplace_back(axis.section, level);
      }
    }
    points = std::move(longer);
  }
  return points;
}

std::vector<BoardSettings> CombinationsOf(const std::vector<SettingAxis>& axes) {
  std::vector<BoardSettings> combinations = {{}};
  for (const auto& [name, values] : axes) {
    std::vector<BoardSettings> longer;
    for (const BoardSettings& combination : combinations) {
      for (const std::string& value : values) {
        longer.push_back(combination);
        longer.back().emplace_back(name, value);
      }
    }
    combinations = std::move(longer);
  }
  return combinations;
}

std::vector<std::size_t> RandomOrder(std::size_t points, int repeats, std::uint64_t seed) {
  std::vector<std::size_t> order;
  std::mt19937_64 random(seed);
  for (int repeat = 1; repeat <= repeats; ++repeat) {
    std::vector<std::size_t> shuffled(points);
    for (std::size_t i = 0; i < points; ++i) shuffled[i] = i;
    Shuffle(shuffled, random);
    order.insert(order.end(), shuffled.begin(), shuffled.end());
  }
  return order;
}

std::string RunFolder(std::size_t index) {
  return Format("run-%04zu", index + 1);
}

std::vector<SweepRun> PlanRuns(const std::vector<SweepAxis>& axes, int repeats, std::uint64_t seed,
                               const std::vector<SettingAxis>& boardAxes) {
  std::size_t count = static_cast<std::size_t>(repeats);
  for (const SweepAxis& axis : axes) count *= axis.levels.size();
  // The product of many long lists must not overflow.
  for (const SettingAxis& axis : boardAxes) count = std::min(count, kMostGridRuns + 1) * axis.second.size();
  if (count > kMostGridRuns) {
    throw UserError("the grid has " + std::to_string(count) + " runs, expected at most " +
                    std::to_string(kMostGridRuns) + ": give fewer levels, values or repeats");
  }
  const std::vector<SweepLevels> points = PointsOf(axes);
  const std::vector<BoardSettings> combinations = CombinationsOf(boardAxes);
  const std::size_t places = points.size() * combinations.size();
  std::vector<SweepRun> runs(count);
  const std::vector<std::size_t> order = RandomOrder(places, repeats, seed);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t repeat = i / places;
    const std::size_t index = order[i] * static_cast<std::size_t>(repeats) + repeat;
    runs[index].folder = RunFolder(index);
    runs[index].levels = points[order[i] / combinations.size()];
    runs[index].settings = combinations[order[i] % combinations.size()];
    runs[index].repeat = static_cast<int>(repeat) + 1;
    runs[index].order = static_cast<int>(i) + 1;
  }
  return runs;
}

}  // namespace scope
