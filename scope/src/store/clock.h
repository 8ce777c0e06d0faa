#pragma once

#include <string>

namespace scope {

/// Now in UTC, ISO 8601, to the second.
std::string UtcNow();

/// A name for a run folder in the current one: `prefix` and the time.
std::string TimedFolder(const std::string& prefix);

}  // namespace scope
