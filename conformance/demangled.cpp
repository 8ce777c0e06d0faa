// SPDX-License-Identifier: Apache-2.0
#include "demangled.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace conformance {

std::string Demangled(const std::string& symbol) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> text(
      abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status), &std::free);
  return status == 0 ? text.get() : symbol;
}

}  // namespace conformance
