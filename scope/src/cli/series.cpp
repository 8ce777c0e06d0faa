// SPDX-License-Identifier: Apache-2.0
#include "series.h"

#include <algorithm>
#include <filesystem>

#include "configuration.h"
#include "errors.h"
#include "text_format.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

// The figures leave out the first and the last second. A median needs two more.
constexpr double kLeastMeasuredS = 4;

}  // namespace

void MakeAbsolute(RunSettings& settings) {
  for (std::string* path : {&settings.benchmark, &settings.meter}) {
    if (!path->empty()) *path = fs::absolute(*path).lexically_normal().string();
  }
}

double RunSeconds(const std::string& config, const RunSettings& settings) {
  unsigned int runTimeS = 0;
  (void)ReadConfiguration(config, runTimeS);
  const double whole = runTimeS;
  return settings.stopAfterS > 0 ? std::min(settings.stopAfterS, whole) : whole;
}

void CheckRunLength(double runS, double warmupS) {
  if (runS >= warmupS + kLeastMeasuredS) return;
  throw UserError(Format("a run of %g s is too short for a warm-up of %g s: at least %g s must remain", runS,
                         warmupS, kLeastMeasuredS));
}

}  // namespace scope
