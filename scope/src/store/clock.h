// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace scope {

/// The current time in UTC, ISO 8601, in whole seconds.
std::string UtcNow();

/// A folder name of `prefix` and the current time.
std::string TimedFolder(const std::string& prefix);

}  // namespace scope
