#include "compare_conditions.h"

#include <algorithm>
#include <set>
#include <type_traits>

#include "text_format.h"

namespace scope {
namespace {

constexpr const char* kSettings = "config";
constexpr double kGibibyte = 1024.0 * 1024 * 1024;

std::string OrUnknown(const std::string& text) {
  return text.empty() ? "unknown" : text;
}

std::string CachesText(const std::vector<Cache>& caches) {
  std::string text;
  for (const Cache& cache : caches) {
    text += Format("%s%d x L%d %s %g KiB", text.empty() ? "" : ", ", cache.instances, cache.level,
                   cache.type.c_str(), static_cast<double>(cache.bytes) / 1024);
  }
  return text;
}

template <typename Pairs>
std::string PairsText(const Pairs& pairs) {
  std::string text;
  for (const auto& [name, value] : pairs) {
    text += (text.empty() ? "" : ", ") + name;
    if constexpr (std::is_same_v<std::decay_t<decltype(value)>, int>) {
      text += "=" + std::to_string(value);
    } else {
      text += " " + value;
    }
  }
  return text;
}

struct Condition {
  const char* name;
  std::string (*text)(const Run& run);
};

const std::vector<Condition>& ComparedConditions() {
  static const std::vector<Condition> kConditions = {
      {"complete", [](const Run& run) { return std::string(run.info.complete ? "yes" : "no"); }},
      {"meter", [](const Run& run) { return std::string(run.info.conditions.meter ? "yes" : "no"); }},
      {"cpu_model", [](const Run& run) { return run.info.conditions.cpuModel; }},
      {"cpu_count",
       [](const Run& run) {
         const int count = run.info.conditions.cpuCount;
         return count == 0 ? std::string() : std::to_string(count);
       }},
      {"caches", [](const Run& run) { return CachesText(run.info.conditions.caches); }},
      {"mem_total_bytes",
       // One decimal: kernels reserve slightly different amounts of the same memory modules.
       [](const Run& run) {
         const auto bytes = static_cast<double>(run.info.conditions.memTotalBytes);
         return bytes == 0 ? std::string() : Format("%.1f GiB", bytes / kGibibyte);
       }},
      {"kernel", [](const Run& run) { return run.info.conditions.kernel; }},
      {"hostname_hash", [](const Run& run) { return run.info.conditions.hostnameHash; }},
      {"governor", [](const Run& run) { return run.info.conditions.governor; }},
      {"cpu_mhz",
       [](const Run& run) {
         const Conditions& conditions = run.info.conditions;
         return conditions.cpuMhzMax == 0 ? std::string()
                                          : Format("%g to %g", conditions.cpuMhzMin, conditions.cpuMhzMax);
       }},
      {"build_type", [](const Run& run) { return run.info.conditions.buildType; }},
      {"library_versions", [](const Run& run) { return PairsText(run.info.conditions.libraryVersions); }},
      {"levels", [](const Run& run) { return PairsText(run.info.config.levels); }},
  };
  return kConditions;
}

// Adds an entry for each setting, except the levels, whose value differs between runs.
void AddSettings(const std::vector<Run>& a, const std::vector<Run>& b,
                 std::vector<ConditionDifference>& differences) {
  std::set<std::string> names;
  for (const std::vector<Run>* side : {&a, &b}) {
    for (const Run& run : *side) {
      for (const auto& [name, value] : run.info.config.settings) names.insert(name);
    }
  }
  for (const std::string& name : names) {
    const auto values = [&wanted = name](const std::vector<Run>& runs) {
      std::set<std::string> all;
      for (const Run& run : runs) {
        const auto& settings = run.info.config.settings;
        const auto at = std::find_if(settings.begin(), settings.end(),
                                     [&wanted](const auto& setting) { return setting.first == wanted; });
        all.insert(at == settings.end() ? "unset" : at->second);
      }
      return all;
    };
    const std::set<std::string> ofA = values(a);
    const std::set<std::string> ofB = values(b);
    if (ofA == ofB && ofA.size() == 1) continue;
    differences.push_back({kSettings, name + "=" + Joined(ofA, " or "), name + "=" + Joined(ofB, " or ")});
  }
}

}  // namespace

std::vector<std::string> ConditionNames() {
  std::vector<std::string> names;
  for (const Condition& condition : ComparedConditions()) names.emplace_back(condition.name);
  names.emplace_back(kSettings);
  return names;
}

std::vector<ConditionDifference> DifferentConditions(const std::vector<Run>& a, const std::vector<Run>& b) {
  std::vector<ConditionDifference> differences;
  for (const Condition& condition : ComparedConditions()) {
    const auto texts = [&condition](const std::vector<Run>& runs) {
      std::set<std::string> all;
      for (const Run& run : runs) all.insert(OrUnknown(condition.text(run)));
      return all;
    };
    const std::set<std::string> ofA = texts(a);
    const std::set<std::string> ofB = texts(b);
    const bool incomplete =
        std::string(condition.name) == "complete" && ofA.count("no") + ofB.count("no") != 0;
    if (ofA == ofB && ofA.size() == 1 && !incomplete) continue;
    differences.push_back({condition.name, Joined(ofA, " or "), Joined(ofB, " or ")});
  }
  AddSettings(a, b, differences);
  return differences;
}

}  // namespace scope
