// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "run.h"

namespace scope {

/// Calls `visit` with the key and the value of each setting of RunSettings, as sweep.json and experiment.json
/// have them.
template <typename Settings, typename Visit>
void ForEachRunSetting(Settings& settings, Visit visit) {
  visit("stop_after_s", settings.stopAfterS);
  visit("benchmark", settings.benchmark);
  visit("meter", settings.meter);
  visit("use_meter", settings.useMeter);
  visit("arguments", settings.extra);
  visit("sysfs_root", settings.systemRoot);
  visit("grace_s", settings.graceS);
}

}  // namespace scope
