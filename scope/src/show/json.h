#pragma once

#include <nlohmann/json.hpp>
#include <optional>

namespace scope {

/// An object's keys stay in the order in which they were added.
using Json = nlohmann::ordered_json;

/// The value, or null.
template <typename Value>
Json OrNull(const std::optional<Value>& value) {
  return value ? Json(*value) : Json(nullptr);
}

}  // namespace scope
