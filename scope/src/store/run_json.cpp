#include "run_json.h"

#include <nlohmann/json.hpp>

#include "errors.h"

namespace scope {
namespace {

using Json = nlohmann::ordered_json;

Json ToJson(const RunInfo& info) {
  Json levels = Json::object();
  for (const auto& [engine, level] : info.config.levels) levels[engine] = level;
  Json caches = Json::array();
  for (const Cache& cache : info.conditions.caches) {
    caches.push_back(Json{{"level", cache.level},
                          {"type", cache.type},
                          {"bytes", cache.bytes},
                          {"instances", cache.instances}});
  }
  Json settings = Json::object();
  for (const auto& [name, value] : info.config.settings) settings[name] = value;
  Json versions = Json::object();
  for (const auto& [name, version] : info.conditions.libraryVersions) versions[name] = version;
  Json counters = Json::array();
  for (const CounterSource& source : info.counters) {
    counters.push_back(
        Json{{"source", source.source}, {"present", source.present}, {"reason", source.reason}});
  }
  const Conditions& machine = info.conditions;
  return Json{
      {"format", kRunFormat},
      {"tool", info.tool},
      {"kind", info.kind},
      {"started", info.started},
      {"complete", info.complete},
      {"incomplete_reason", info.incompleteReason},
      {"duration_s", info.durationS},
      {"exit_status", info.exitStatus},
      {"signal", info.signal},
      {"label", info.label},
      {"config", Json{{"path", info.config.path},
                      {"text", info.config.text},
                      {"levels", levels},
                      {"settings", settings}}},
      {"conditions", Json{{"cpu_model", machine.cpuModel},
                          {"cpu_count", machine.cpuCount},
                          {"caches", caches},
                          {"governor", machine.governor},
                          {"cpu_mhz_min", machine.cpuMhzMin},
                          {"cpu_mhz_max", machine.cpuMhzMax},
                          {"mem_total_bytes", machine.memTotalBytes},
                          {"kernel", machine.kernel},
                          {"hostname_hash", machine.hostnameHash},
                          {"build_type", machine.buildType},
                          {"library_versions", versions},
                          {"load_average", machine.loadAverage},
                          {"meter", machine.meter}}},
      {"counters", counters},
  };
}

// A missing key keeps its default, so that later versions may add keys. A present key must have the right
// type.
template <typename T>
void Take(const Json& object, const char* key, T& out) {
  const auto at = object.find(key);
  if (at != object.end()) at->get_to(out);
}

RunInfo FromJson(const Json& json) {
  RunInfo info;
  Take(json, "tool", info.tool);
  Take(json, "kind", info.kind);
  Take(json, "started", info.started);
  Take(json, "complete", info.complete);
  Take(json, "incomplete_reason", info.incompleteReason);
  Take(json, "duration_s", info.durationS);
  Take(json, "exit_status", info.exitStatus);
  Take(json, "signal", info.signal);
  Take(json, "label", info.label);
  const Json config = json.value("config", Json::object());
  Take(config, "path", info.config.path);
  Take(config, "text", info.config.text);
  const Json levels = config.value("levels", Json::object());
  for (const auto& [engine, level] : levels.items()) {
    info.config.levels.emplace_back(engine, level.get<int>());
  }
  const Json settings = config.value("settings", Json::object());
  for (const auto& [name, value] : settings.items()) {
    info.config.settings.emplace_back(name, value.get<std::string>());
  }
  const Json machine = json.value("conditions", Json::object());
  Conditions& conditions = info.conditions;
  Take(machine, "cpu_model", conditions.cpuModel);
  Take(machine, "cpu_count", conditions.cpuCount);
  const Json caches = machine.value("caches", Json::array());
  for (const Json& entry : caches) {
    Cache cache;
    Take(entry, "level", cache.level);
    Take(entry, "type", cache.type);
    Take(entry, "bytes", cache.bytes);
    Take(entry, "instances", cache.instances);
    conditions.caches.push_back(cache);
  }
  Take(machine, "governor", conditions.governor);
  Take(machine, "cpu_mhz_min", conditions.cpuMhzMin);
  Take(machine, "cpu_mhz_max", conditions.cpuMhzMax);
  Take(machine, "mem_total_bytes", conditions.memTotalBytes);
  Take(machine, "kernel", conditions.kernel);
  Take(machine, "hostname_hash", conditions.hostnameHash);
  Take(machine, "build_type", conditions.buildType);
  const Json versions = machine.value("library_versions", Json::object());
  for (const auto& [name, version] : versions.items()) {
    conditions.libraryVersions.emplace_back(name, version.get<std::string>());
  }
  Take(machine, "load_average", conditions.loadAverage);
  Take(machine, "meter", conditions.meter);
  const Json counters = json.value("counters", Json::array());
  for (const Json& entry : counters) {
    CounterSource source;
    Take(entry, "source", source.source);
    Take(entry, "present", source.present);
    Take(entry, "reason", source.reason);
    info.counters.push_back(source);
  }
  return info;
}

}  // namespace

std::string RunInfoText(const RunInfo& info) {
  return ToJson(info).dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

RunInfo ParseRunInfo(const std::string& text, const std::string& path) {
  try {
    const Json json = Json::parse(text);
    if (!json.is_object() || json.find("format") == json.end() || !json["format"].is_number_integer()) {
      throw DamagedFolder(path + ": not the description of a run: it has no \"format\" number");
    }
    const int format = json["format"].get<int>();
    if (format != kRunFormat) {
      throw DamagedFolder(path + ": written in format " + std::to_string(format) +
                          ", this program reads format " + std::to_string(kRunFormat));
    }
    RunInfo info = FromJson(json);
    if (info.kind != "record" && info.kind != "rates") {
      throw DamagedFolder(path + ": expected \"kind\" \"record\" or \"rates\", found \"" + info.kind + "\"");
    }
    return info;
  } catch (const Json::exception& error) {
    throw DamagedFolder(path + ": " + error.what());
  }
}

}  // namespace scope
