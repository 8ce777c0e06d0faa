// SPDX-License-Identifier: Apache-2.0
#include "configuration.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <utility>

#include "engines.h"
#include "errors.h"
#include "ormis/qet_yaml.h"
#include "regular_file.h"
#include "system_files.h"

namespace scope {
namespace {

using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

std::string Quoted(const std::string& text) {
  return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool IsLevel(const std::string& name) {
  return std::any_of(Engines().begin(), Engines().end(), [&](const EngineInfo& engine) {
    return engine.load && name == std::string(engine.section) + ".Level";
  });
}

// Adds all values except the levels. A name is the keys joined by dots.
void AddSettings(const Ormis::QetYamlNode& node, const std::string& prefix,
                 std::vector<std::pair<std::string, std::string>>& settings) {
  for (const auto& [key, child] : node.children) {
    const std::string name = prefix + key;
    std::string value;
    if (!child.children.empty()) {
      AddSettings(child, name + ".", settings);
    } else if (!IsLevel(name) && node.GetValue<std::string>(key, value)) {
      settings.emplace_back(name, value);
    }
  }
}

}  // namespace

Configuration ReadConfiguration(const std::string& path, unsigned int& runTimesS) {
  // The benchmark's defaults and its shortest run time.
  constexpr unsigned int kLeastRunTimesS = 40;
  Configuration config;
  config.path = path;
  RequireRegularFile(path);
  try {
    const Ormis::QetYamlNode root(path);
    runTimesS = kLeastRunTimesS;
    (void)root.GetValue<unsigned int>("runTimes", runTimesS);
    runTimesS = std::max(runTimesS, kLeastRunTimesS);
    for (const EngineInfo& engine : Engines()) {
      unsigned int level = 0;
      if (!engine.load || root.children.count(engine.section) == 0) continue;
      if (!root[engine.section].GetValue<unsigned int>("Level", level)) continue;
      config.levels.emplace_back(engine.id, static_cast<int>(std::min(level, 1'000'000U)));
    }
    AddSettings(root, "", config.settings);
  } catch (const std::exception& error) {
    throw UserError(error.what());
  }
  // Read after the parser, which refuses files that are too large.
  const std::optional<std::string> text = ReadText(path);
  if (!text) throw UserError("cannot read " + path + ": " + std::strerror(errno));
  config.text = *text + "\n";
  return config;
}

std::vector<std::string> UnreadSections(const std::string& path) {
  std::vector<std::string> names;
  for (const EngineInfo& engine : Engines()) {
    if (engine.load) names.emplace_back(engine.section);
  }
  std::string expected;
  for (const std::string& name : names) expected += (expected.empty() ? "" : ", ") + name;
  for (const char* const name : {"logMode", "logLevel", "runTimes"}) names.emplace_back(name);
  std::vector<std::string> sentences;
  try {
    const Ormis::QetYamlNode root(path);
    for (const auto& [key, child] : root.children) {
      if (std::find(names.begin(), names.end(), key) != names.end()) continue;
      const auto meant = std::find_if(names.begin(), names.end(), [&name = key](const std::string& known) {
        return strcasecmp(known.c_str(), name.c_str()) == 0;
      });
      std::string value;
      // Any other value is the user's own note.
      if (meant == names.end() && root.GetValue<std::string>(key, value)) continue;
      sentences.push_back("nothing reads " + Quoted(key) + " in " + path + ": " +
                          (meant == names.end() ? "the sections are " + expected : "write " + *meant));
    }
  } catch (const std::exception& error) {
    throw UserError(error.what());
  }
  return sentences;
}

std::string PointConfiguration(const std::string& path, const SweepLevels& levels, const std::string& model) {
  std::string text;
  RequireRegularFile(path);
  try {
    const Ormis::QetYamlNode root(path);
    for (const char* const key : {"logMode", "logLevel", "runTimes"}) {
      if (root.children.count(key) == 0) continue;
      // The benchmark reads a value that does not parse as 0.
      unsigned int value = 0;
      (void)root.GetValue<unsigned int>(key, value);
      text += std::string(key) + ": " + std::to_string(value) + "\n";
    }
    for (const EngineInfo& engine : Engines()) {
      if (!engine.load) continue;
      const std::string section = engine.section;
      const bool has = root.children.count(section) != 0;
      const auto swept = std::find_if(levels.begin(), levels.end(),
                                      [&](const auto& level) { return level.first == section; });
      if (swept == levels.end() && !has) continue;
      unsigned int level = 0;
      if (swept != levels.end()) {
        level = static_cast<unsigned int>(swept->second);
      } else if (!root[section].GetValue<unsigned int>("Level", level) || level > kMostLevel) {
        throw UserError(path + ": expected a \"Level\" from 0 to 10 in the section " + section);
      }
      text += section + ":\n  Level: " + std::to_string(level) + "\n";
      const std::string key = engine.fileKey;
      if (key.empty()) continue;
      std::string file;
      if (!has || !root[section].GetValue<std::string>(key, file)) {
        throw UserError(path + ": levels of " + section + " need a section " + section +
                        " with a model as \"" + key + "\"");
      }
      if (!model.empty()) file = model;
      text += "  " + key + ": " +
              Quoted(file.empty() ? file : fs::absolute(file).lexically_normal().string()) + "\n";
    }
  } catch (const UserError&) {
    throw;
  } catch (const std::exception& error) {
    throw UserError(error.what());
  }
  return text;
}

std::vector<NamedModel> ModelsOf(const std::string& path) {
  unsigned int runTimeS = 0;
  const Configuration config = ReadConfiguration(path, runTimeS);
  std::vector<NamedModel> models;
  for (const EngineInfo& engine : Engines()) {
    const std::string name = std::string(engine.section) + "." + engine.fileKey;
    for (const auto& [key, file] : config.settings) {
      if (key != name || file.empty()) continue;
      const auto level = std::find_if(config.levels.begin(), config.levels.end(),
                                      [&engine](const auto& one) { return one.first == engine.id; });
      models.push_back({engine.section, file, level == config.levels.end() ? 0 : level->second});
    }
  }
  return models;
}

}  // namespace scope
