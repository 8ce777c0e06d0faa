// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json.hpp>
#include <optional>

#include "run.h"

namespace scope {

/// Objects keep their keys in the order of insertion.
using Json = nlohmann::ordered_json;

/// The value, or null.
template <typename Value>
Json OrNull(const std::optional<Value>& value) {
  return value ? Json(*value) : Json(nullptr);
}

/// From each source of errors to their number.
inline Json ErrorCountsJson(const SourceErrors& errors) {
  Json json = Json::object();
  for (const auto& [source, count] : errors) json[source] = count;
  return json;
}

}  // namespace scope
