// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json.hpp>
#include <optional>

namespace scope {

/// Objects keep their keys in the order of insertion.
using Json = nlohmann::ordered_json;

/// The value, or null.
template <typename Value>
Json OrNull(const std::optional<Value>& value) {
  return value ? Json(*value) : Json(nullptr);
}

}  // namespace scope
