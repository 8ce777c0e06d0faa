#pragma once

#include <string>

#include "run.h"
#include "sweep.h"

/// The benchmark's configuration files.
namespace scope {

/// Reads the benchmark's configuration file. Throws UserError when it cannot be read, or is no
/// configuration. `runTimesS`: the run time that the benchmark makes of it.
Configuration ReadConfiguration(const std::string& path, unsigned int& runTimesS);

/// A configuration file with the settings of `path` and other levels; a section that `path` does not have is
/// added. The model's path is absolute in it. Throws UserError for a file that cannot be read or that
/// the benchmark would refuse, and for an AIC level without an AIC section, which names the model.
std::string PointConfiguration(const std::string& path, const SweepLevels& levels);

}  // namespace scope
