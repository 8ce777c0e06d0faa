// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
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

/// Throws DamagedFolder beyond one of these limits. Events of the library's parser, which builds nothing.
class JsonLimits : public nlohmann::json_sax<nlohmann::ordered_json> {
 public:
  explicit JsonLimits(const std::string& path) : path_(path) {}

  bool start_object(std::size_t /*elements*/) override { return Enter(); }
  bool start_array(std::size_t /*elements*/) override { return Enter(); }
  bool end_object() override { return Leave(); }
  bool end_array() override { return Leave(); }
  bool key(string_t& /*name*/) override {
    comparisons_ += keys_.back()++;
    if (comparisons_ > kMostJsonComparisons) throw DamagedFolder(path_ + ": too many keys in one object");
    return true;
  }
  bool null() override { return true; }
  bool boolean(bool /*value*/) override { return true; }
  bool number_integer(number_integer_t /*value*/) override { return true; }
  bool number_unsigned(number_unsigned_t /*value*/) override { return true; }
  bool number_float(number_float_t /*value*/, const string_t& /*text*/) override { return true; }
  bool string(string_t& /*value*/) override { return true; }
  bool binary(binary_t& /*value*/) override { return true; }
  // The parser that builds the value reports it.
  bool parse_error(std::size_t /*at*/, const std::string& /*token*/,
                   const nlohmann::detail::exception& /*error*/) override {
    return false;
  }

 private:
  bool Enter() {
    if (keys_.size() >= static_cast<std::size_t>(kMostJsonLevels)) {
      throw DamagedFolder(path_ + ": more than " + std::to_string(kMostJsonLevels) + " levels deep");
    }
    keys_.push_back(0);
    return true;
  }
  bool Leave() {
    keys_.pop_back();
    return true;
  }

  const std::string& path_;
  std::vector<std::size_t> keys_;  // of each object that is open
  std::size_t comparisons_ = 0;
};

/// True for a short text that cannot be beyond the limits: tens of thousands of cell.json are read at once.
inline bool IsSurelyWithinLimits(const std::string& text) {
  constexpr std::size_t kShort =
      32 << 10;  // a key takes five bytes or more: at most 6,553 keys and 22 million comparisons
  if (text.size() > kShort) return false;
  const auto levels =
      std::count_if(text.begin(), text.end(), [](char one) { return one == '{' || one == '['; });
  return levels <= kMostJsonLevels;
}

/// Parses `text`, the content of the file `path`. Throws DamagedFolder beyond one of these limits, and the
/// library's exception if it is no JSON.
inline nlohmann::ordered_json ParseFolderJson(const std::string& text, const std::string& path) {
  // In a pass of its own: the library's parser with a callback looks through a whole list at the end of each
  // of its objects.
  if (!IsSurelyWithinLimits(text)) {
    JsonLimits limits(path);
    (void)nlohmann::ordered_json::sax_parse(text, &limits);
  }
  return nlohmann::ordered_json::parse(text);
}

}  // namespace scope
