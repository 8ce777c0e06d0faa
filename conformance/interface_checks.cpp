// SPDX-License-Identifier: Apache-2.0
#include "check.h"
#include "imports.h"

namespace conformance {

namespace {

void EveryOperationIsThere(Session& session) {
  const std::vector<Import> imports = PlatformImports();
  Require(!imports.empty(),
          "the checks import no operation, expected them to be linked with the platform library");
  std::string missing;
  for (const Import& import : imports) {
    if (import.library.empty()) missing += (missing.empty() ? "" : ", ") + import.name;
  }
  Require(missing.empty(), "missing: " + missing);
  session.note = std::to_string(imports.size()) + " operations";
}

}  // namespace

std::vector<Check> InterfaceChecks() {
  return {{"interface.complete", "the libraries export every operation that the interface declares",
           EveryOperationIsThere}};
}

}  // namespace conformance
