// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace conformance {

/// What people read of a check.
struct CheckText {
  std::string name;      ///< group and contract, "image.data-filled"
  std::string expected;  ///< the contract, one sentence
};

}  // namespace conformance
