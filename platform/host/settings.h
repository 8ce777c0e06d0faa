// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace Ormis::host {

/// The settings of the host platform. Their defaults are those of host.yaml, which describes them.
struct Settings {
  bool flushCaches = true;  ///< memory: device
  std::string encoder = "auto";
  unsigned int trialProcessorS = 20;
  unsigned int trialWallS = 60;
  unsigned int trialMemoryPercent = 50;
};

/// Reads a file of settings into `settings`; keys that it leaves out keep their values. Returns the empty
/// string, or what is wrong with the file: its name, the line, the key and what was expected. `settings` is
/// then of no use. Throws std::bad_alloc.
std::string ReadSettings(const std::string& path, Settings& settings);

/// The settings as "key=value", each after a blank, and the instruction with which caches are flushed.
std::string SettingsText(const Settings& settings);

/// The settings of the platform as it was last initialised; the defaults before. Threads: any, but none while
/// UseSettings runs.
const Settings& CurrentSettings();

/// Puts the settings into effect. Called by QetInitialize, before any worker exists.
void UseSettings(Settings&& settings) noexcept;

/// The path of a file in the folder of this library, which is where the platform's own files are.
std::string PathBesideLibrary(const std::string& file);

}  // namespace Ormis::host
