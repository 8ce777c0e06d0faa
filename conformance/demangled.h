// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace conformance {

/// The readable form of a symbol, or the symbol itself.
std::string Demangled(const std::string& symbol);

}  // namespace conformance
