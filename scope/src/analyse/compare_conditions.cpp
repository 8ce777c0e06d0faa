// SPDX-License-Identifier: Apache-2.0
#include "compare_conditions.h"

#include <algorithm>
#include <map>
#include <set>

#include "run_keys.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr const char* kComplete = "complete";
constexpr const char* kMeter = "meter";
constexpr const char* kLibraries = "library_versions";
constexpr const char* kSettings = "config";
constexpr const char* kPlatform = "platform_settings";
constexpr const char* kEncoders = "encoder_engines";

// A value of the configuration, or "unset".
std::string SettingOf(const Run& run, const std::string& name) {
  const auto& settings = run.info.config.settings;
  const auto at = std::find_if(settings.begin(), settings.end(),
                               [&name](const auto& entry) { return entry.first == name; });
  return name + "=" + (at == settings.end() ? "unset" : at->second);
}

// What a run learns while it goes. One that broke off before that does not know it, and one without a channel
// has no engine of the encoder.
bool IsUnknown(const Run& run, const std::string& name) {
  const Conditions& known = run.info.conditions;
  if (name == kEncoders) return known.encoderEngines.empty();
  if (run.info.complete) return false;
  return name == kPlatform ? known.platformSettings.empty()
                           : (name == kMeter || name == kLibraries) && !known.meter;
}

// Without the channels: a higher level has more of them.
std::string EncodersOf(const Run& run) {
  std::set<std::string> engines;
  for (const auto& [channel, engine] : run.info.conditions.encoderEngines) engines.insert(engine);
  return Joined(engines, ", ");
}

// Adds a difference unless all runs that know it have the same `text`. Incomplete runs differ from each
// other, too.
template <typename TextOf>
void AddUnlessSame(const std::string& name, const std::vector<Run>& a, const std::vector<Run>& b,
                   const TextOf& text, std::vector<ConditionDifference>& differences) {
  const auto texts = [&](const std::vector<Run>& runs) {
    std::set<std::string> all;
    for (const Run& run : runs) {
      if (!IsUnknown(run, name)) all.insert(text(run));
    }
    return all;
  };
  const std::set<std::string> ofA = texts(a);
  const std::set<std::string> ofB = texts(b);
  std::set<std::string> all = ofA;
  all.insert(ofB.begin(), ofB.end());
  const bool incomplete = name == kComplete && all.count("no") != 0;
  if (all.size() > 1 || incomplete) {
    differences.push_back({name, Joined(ofA, " or "), Joined(ofB, " or ")});
  }
}

}  // namespace

std::vector<std::string> ConditionNames() {
  std::vector<std::string> names;
  for (const RunText& row : RunTexts({})) {
    if (row.key.mustAgree) names.emplace_back(row.key.name);
  }
  names.emplace_back(kSettings);
  return names;
}

std::vector<ConditionDifference> DifferentConditions(const std::vector<Run>& a, const std::vector<Run>& b) {
  std::vector<ConditionDifference> differences;
  std::map<const Run*, std::vector<RunText>> texts;
  std::set<std::string> settings;
  for (const std::vector<Run>* side : {&a, &b}) {
    for (const Run& run : *side) {
      texts[&run] = RunTexts(run.info);
      for (const auto& [name, value] : run.info.config.settings) settings.insert(name);
    }
  }
  const std::vector<RunText> rows = RunTexts({});
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (!rows[i].key.mustAgree) continue;
    const auto text = [&](const Run& run) {
      if (rows[i].key.name == std::string(kEncoders)) return EncodersOf(run);
      const std::string& value = texts.at(&run)[i].text;
      return value.empty() ? std::string("unknown") : value;
    };
    AddUnlessSame(rows[i].key.name, a, b, text, differences);
  }
  for (const std::string& name : settings) {
    AddUnlessSame(
        kSettings, a, b, [&name = name](const Run& run) { return SettingOf(run, name); }, differences);
  }
  return differences;
}

void NoteConditions(const std::vector<Run>& runs, const std::set<std::string>& planned,
                    std::vector<std::string>& notes) {
  for (const ConditionDifference& difference : DifferentConditions(runs, runs)) {
    if (planned.count(difference.name) != 0) continue;
    notes.push_back("the runs differ in " + difference.name + ": " + difference.a);
  }
}

}  // namespace scope
