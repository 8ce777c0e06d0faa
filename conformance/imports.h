// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace conformance {

/// One operation that the checks call in the libraries under test.
struct Import {
  std::string name;     ///< its readable form: "Ormis::QetVenc::Init()"
  std::string library;  ///< file of the library that has it; empty: no library has it
};

/// The operations of the platform and the logging that the checks' library imports, and where the loader
/// finds each. Reads them from that library's own dynamic section and calls none of them.
std::vector<Import> PlatformImports();

}  // namespace conformance
