// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "errors.h"

namespace scope {

/// The deepest nesting of run.json and sweep.json that is read. The library follows the levels by recursion.
constexpr int kMostJsonLevels = 64;
/// The library looks through an object's keys for each new one. This many comparisons take less than a
/// second.
constexpr std::size_t kMostJsonComparisons = 50'000'000;

/// Parses `text`, the content of the file `path`. Throws DamagedFolder beyond one of these limits, and the
/// library's exception if it is no JSON.
inline nlohmann::ordered_json ParseFolderJson(const std::string& text, const std::string& path) {
  using Json = nlohmann::ordered_json;
  using Event = Json::parse_event_t;
  std::vector<std::size_t> keys;  // of each object that is open
  std::size_t comparisons = 0;
  return Json::parse(text, [&](int depth, Event event, const Json&) {
    if ((event == Event::object_start || event == Event::array_start) && depth >= kMostJsonLevels) {
      throw DamagedFolder(path + ": more than " + std::to_string(kMostJsonLevels) + " levels deep");
    }
    if (event == Event::object_start) keys.push_back(0);
    if (event == Event::object_end) keys.pop_back();
    if (event == Event::key) comparisons += keys.back()++;
    if (comparisons > kMostJsonComparisons) throw DamagedFolder(path + ": too many keys in one object");
    return true;
  });
}

}  // namespace scope
