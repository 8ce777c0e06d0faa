// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

namespace scope {

/// The complete page of a report without its data, which replaces "@REPORT_DATA@". The build makes it from
/// page/.
std::string_view PageTemplate();

}  // namespace scope
