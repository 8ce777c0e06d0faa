// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "run.h"

namespace scope {

/// Reads the machine's conditions from the files under `root` ("/", or a recorded tree). What they do not
/// contain stays empty. The caller fills in build type, library versions and meter.
Conditions ReadConditions(const std::string& root);

/// Versions of the libraries that matter to a run and that the process has mapped: the platform library,
/// those in its folder (unless the C library is there, too), the C and C++ libraries and the engines. The
/// version is what follows ".so." in the file's name, or the whole name if nothing follows. Sorted by name.
/// Empty if the process has ended.
std::vector<std::pair<std::string, std::string>> LibraryVersions(const std::string& mapsPath,
                                                                 const std::string& platformPath);

}  // namespace scope
