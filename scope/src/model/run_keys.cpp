// SPDX-License-Identifier: Apache-2.0
#include "run_keys.h"

#include <type_traits>

#include "text_format.h"

namespace scope {
namespace {

constexpr double kKibibyte = 1024;
constexpr double kMebibyte = kKibibyte * 1024;
constexpr double kGibibyte = kMebibyte * 1024;

std::string CacheText(const Cache& cache) {
  const auto bytes = static_cast<double>(cache.bytes);
  return Format("%d x L%d ", cache.instances, cache.level) + cache.type +
         (bytes < kMebibyte ? Format(" %g KiB", bytes / kKibibyte) : Format(" %g MiB", bytes / kMebibyte));
}

template <typename Values, typename Text>
std::string List(const Values& values, const Text& text) {
  std::string list;
  for (const auto& value : values) list += (list.empty() ? "" : ", ") + text(value);
  return list;
}

// Values of other types are not shown as text.
template <typename Value>
std::string TextOf(const Value& value) {
  if constexpr (std::is_same_v<Value, std::string>) return value;
  if constexpr (std::is_same_v<Value, bool>) return value ? "yes" : "no";
  if constexpr (std::is_same_v<Value, int>) return value == 0 ? std::string() : std::to_string(value);
  // One decimal: kernels reserve slightly different amounts of the same memory modules.
  if constexpr (std::is_same_v<Value, std::uint64_t>)
    return value == 0 ? std::string() : Format("%.1f GiB", static_cast<double>(value) / kGibibyte);
  if constexpr (std::is_same_v<Value, MhzRange>)
    return value.most == 0 ? std::string() : Format("%g to %g MHz", value.least, value.most);
  if constexpr (std::is_same_v<Value, std::vector<double>>)
    return List(value, [](double load) { return Format("%.2f", load); });
  if constexpr (std::is_same_v<Value, std::vector<std::pair<std::string, int>>>)
    return List(value, [](const auto& level) { return level.first + "=" + std::to_string(level.second); });
  if constexpr (std::is_same_v<Value, std::vector<std::pair<std::string, std::string>>>)
    return List(value, [](const auto& library) { return library.first + " " + library.second; });
  if constexpr (std::is_same_v<Value, std::vector<Cache>>) return List(value, CacheText);
  return {};
}

}  // namespace

std::vector<RunText> RunTexts(const RunInfo& info) {
  std::vector<RunText> texts;
  VisitRunKeys(info, [&texts](const RunKey& key, const auto& value) {
    if (key.mustAgree || key.title != nullptr) texts.push_back({key, TextOf(value)});
  });
  return texts;
}

}  // namespace scope
