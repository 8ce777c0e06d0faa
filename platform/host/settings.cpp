// SPDX-License-Identifier: Apache-2.0
#include "settings.h"

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <set>
#include <utility>

#include "cache_flush.h"
#include "whole_number.h"
#include "yaml_events.h"

namespace Ormis::host {

namespace {

Settings inUse;

bool ToNumber(const std::string& text, unsigned int most, unsigned int& number) {
  return ReadWholeNumber(text, number) && number >= 1 && number <= most;
}

bool SetMemory(const std::string& value, Settings& settings) {
  settings.flushCaches = value == "device";
  return settings.flushCaches || value == "cached";
}

bool SetEncoder(const std::string& value, Settings& settings) {
  constexpr std::array kEncoders = {"auto", "libx264", "h264_nvenc", "h264_vaapi", "h264_v4l2m2m"};
  settings.encoder = value;
  return std::find(kEncoders.begin(), kEncoders.end(), value) != kEncoders.end();
}

bool SetTrialProcessor(const std::string& value, Settings& settings) {
  return ToNumber(value, 86400, settings.trialProcessorS);
}

bool SetTrialWall(const std::string& value, Settings& settings) {
  return ToNumber(value, 86400, settings.trialWallS);
}

bool SetTrialMemory(const std::string& value, Settings& settings) {
  return ToNumber(value, 100, settings.trialMemoryPercent);
}

struct SettingKey {
  const char* name;
  const char* expected;
  bool (*set)(const std::string& value, Settings& settings);
};

constexpr SettingKey kSettingKeys[] = {
    {"memory", "device or cached", SetMemory},
    {"encoder", "auto, libx264, h264_nvenc, h264_vaapi or h264_v4l2m2m", SetEncoder},
    {"trial_processor_s", "a whole number of seconds from 1 to 86400", SetTrialProcessor},
    {"trial_wall_s", "a whole number of seconds from 1 to 86400", SetTrialWall},
    {"trial_memory_percent", "a whole number from 1 to 100", SetTrialMemory},
};

std::string KeyNames() {
  std::string names;
  for (const SettingKey& key : kSettingKeys) {
    if (!names.empty()) names += &key == std::end(kSettingKeys) - 1 ? " or " : ", ";
    names += key.name;
  }
  return names;
}

/// Reads the key that is the present event, and its value. `seen`: the keys so far.
void ReadSetting(YamlEvents& events, std::set<std::string>& seen, Settings& settings) {
  const std::string name = events.Text();
  const SettingKey* const key = std::find_if(std::begin(kSettingKeys), std::end(kSettingKeys),
                                             [&](const SettingKey& one) { return one.name == name; });
  if (key == std::end(kSettingKeys)) events.Fail("unknown key '" + name + "', expected " + KeyNames());
  if (!seen.insert(name).second) events.Fail("'" + name + "' stands there twice, expected it once");
  if (events.Next() != YAML_SCALAR_EVENT)
    events.Fail(name + " has no plain value, expected " + key->expected);
  if (!key->set(events.Text(), settings)) {
    events.Fail(name + " is '" + events.Text() + "', expected " + key->expected);
  }
}

}  // namespace

std::string ReadSettings(const std::string& path, Settings& settings) {
  std::set<std::string> seen;
  return ReadYamlFile(
      path, [&](YamlEvents& events) { events.ReadDocument([&] { ReadSetting(events, seen, settings); }); });
}

std::string SettingsText(const Settings& settings) {
  return std::string(" memory=") + (settings.flushCaches ? "device" : "cached") +
         " flush=" + (settings.flushCaches ? portable::FlushRoutines().back().name : "none") +
         " encoder=" + settings.encoder + " trial_processor_s=" + std::to_string(settings.trialProcessorS) +
         " trial_wall_s=" + std::to_string(settings.trialWallS) +
         " trial_memory_percent=" + std::to_string(settings.trialMemoryPercent);
}

const Settings& CurrentSettings() {
  return inUse;
}

void UseSettings(Settings&& settings) noexcept {
  inUse = std::move(settings);
  portable::FlushCaches(inUse.flushCaches);
}

std::string PathBesideLibrary(const std::string& file) {
  Dl_info library{};
  if (dladdr(&inUse, &library) == 0) return file;
  const std::string path = library.dli_fname;
  return path.substr(0, path.rfind('/') + 1) + file;
}

}  // namespace Ormis::host
