// SPDX-License-Identifier: Apache-2.0
#include "check.h"

namespace conformance {

std::vector<Check> AllChecks() {
  std::vector<Check> all;
  for (const auto& group :
       {InterfaceChecks(), ProcessChecks(), ChannelChecks(), ImageChecks(), ResizeChecks(), EncoderChecks(),
        ModelChecks(), YamlChecks(), LogChecks(), MemoryChecks(), ConcurrencyChecks(), GrowthChecks()}) {
    all.insert(all.end(), group.begin(), group.end());
  }
  return all;
}

void Require(bool holds, const std::string& found) {
  if (!holds) throw Failure(found);
}

void RequireOk(std::int32_t status, const char* call) {
  if (status != 0) throw Failure(std::string(call) + " returned " + std::to_string(status) + ", not 0");
}

void RequireFailure(std::int32_t status, const char* call, const char* when) {
  if (status == 0) throw Failure(std::string(call) + " returned 0 " + when);
}

}  // namespace conformance
