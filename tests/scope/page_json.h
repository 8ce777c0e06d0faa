// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json.hpp>
#include <string>

/// The data of a page, as a browser reads them.
inline nlohmann::json DataOf(const std::string& page) {
  const std::string begin = "<script type=\"application/json\" id=\"report-data\">";
  const std::size_t from = page.find(begin) + begin.size();
  return nlohmann::json::parse(page.substr(from, page.find('<', from) - from));
}
