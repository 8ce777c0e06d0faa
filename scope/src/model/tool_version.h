// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace scope {

constexpr const char* kToolVersion = "stress_scope " STRESS_VERSION;

}  // namespace scope
