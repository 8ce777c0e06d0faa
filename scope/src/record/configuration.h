// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "run.h"
#include "sweep.h"

/// The benchmark's configuration files.
namespace scope {

/// Reads the benchmark's configuration file and sets `runTimesS` to the run time that the benchmark would
/// use. Throws UserError if the file cannot be read or is not a configuration.
Configuration ReadConfiguration(const std::string& path, unsigned int& runTimesS);

/// A sentence about each section of the configuration file that the benchmark does not read, such as "cpu" or
/// "VPE". Also about a value whose name is that of a known one in other letters. Throws UserError as
/// ReadConfiguration does.
std::vector<std::string> UnreadSections(const std::string& path);

/// The text of a configuration with the settings of `path` and the given levels. A missing section is added.
/// The model's path becomes absolute, or `model` if that is not empty. Throws UserError for a file that
/// cannot be read or that the benchmark would refuse, and for an AIC level without an AIC section: only that
/// section names the model.
std::string PointConfiguration(const std::string& path, const SweepLevels& levels,
                               const std::string& model = "");

/// A model that a configuration names.
struct NamedModel {
  std::string section;  ///< "AIC"
  std::string file;
  int level = 0;  ///< at level 0 nothing reads the model
};

/// Throws UserError as ReadConfiguration does.
std::vector<NamedModel> ModelsOf(const std::string& path);

}  // namespace scope
