// SPDX-License-Identifier: Apache-2.0
#include <string>
#include <string_view>

#include "embedded.h"
#include "report.h"
#include "report_data.h"

namespace scope {
namespace {

// In a script element only "<" can end the data, so it is escaped. All non-ASCII characters are, too.
std::string ScriptJson(const Json& json) {
  std::string escaped;
  for (const char letter : json.dump(-1, ' ', true, Json::error_handler_t::replace)) {
    if (letter == '<') {
      escaped += "\\u003c";
    } else {
      escaped += letter;
    }
  }
  return escaped;
}

}  // namespace

std::string ReportPage(const std::vector<ReportedRun>& runs) {
  constexpr std::string_view kPlace = "@REPORT_DATA@";
  std::string page(PageTemplate());
  return page.replace(page.find(kPlace), kPlace.size(), ScriptJson(ReportData(runs)));
}

}  // namespace scope
