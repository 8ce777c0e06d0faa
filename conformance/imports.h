// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace conformance {

/// One operation that this program calls in the libraries under test.
struct Import {
  std::string name;     ///< as a reader knows it: "Ormis::QetVenc::Init()"
  std::string library;  ///< file of the library that has it; empty: none has
};

/// The operations of the platform and of the logging that this program imports, as its own dynamic section
/// lists them, and where the loader finds each. Calls none of them.
std::vector<Import> PlatformImports();

/// The readable form of a symbol, or the symbol itself.
std::string Demangled(const std::string& symbol);

}  // namespace conformance
