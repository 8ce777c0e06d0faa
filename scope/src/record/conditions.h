#pragma once

#include <string>
#include <utility>
#include <vector>

#include "run.h"

namespace scope {

/// The machine, as the files under `root` ("/", or a recorded tree) tell it; what they do not tell stays
/// empty. Build type, library versions and meter are left to the caller.
Conditions ReadConditions(const std::string& root);

/// Versions of the libraries that the process has mapped and that matter to a run: the platform library and
/// its folder's, the C and C++ libraries and the engines. From the number behind ".so." of each file; the
/// name alone where there is none. Sorted by name; empty when the process has ended.
std::vector<std::pair<std::string, std::string>> LibraryVersions(const std::string& mapsPath,
                                                                 const std::string& platformPath);

}  // namespace scope
