#pragma once

#include <string_view>

namespace scope {

/// The page of a report, whole but for its data, which goes where "@REPORT_DATA@" stands. The build makes it
/// of what is in page/.
std::string_view PageTemplate();

}  // namespace scope
