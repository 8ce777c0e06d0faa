// SPDX-License-Identifier: Apache-2.0
#include "run_json.h"

#include <nlohmann/json.hpp>

#include "errors.h"
#include "folder_json.h"
#include "printable.h"
#include "run_keys.h"

namespace scope {

using Json = nlohmann::ordered_json;

namespace {

// A missing key keeps its default, so that later versions may add keys. A present key must have the right
// type.
template <typename Value>
void Take(const Json& object, const std::string& key, Value& value) {
  const auto at = object.find(key);
  if (at != object.end()) at->get_to(value);
}

template <typename Value>
void Take(const Json& object, const std::string& key, std::vector<std::pair<std::string, Value>>& pairs) {
  const Json values = object.value(key, Json::object());
  for (const auto& [name, value] : values.items()) pairs.emplace_back(name, value.template get<Value>());
}

void Take(const Json& object, const std::string& key, MhzRange& range) {
  Take(object, key + "_min", range.least);
  Take(object, key + "_max", range.most);
}

template <typename Value>
void Put(Json& object, const std::string& key, const Value& value) {
  object[key] = value;
}

template <typename Value>
void Put(Json& object, const std::string& key, const std::vector<std::pair<std::string, Value>>& pairs) {
  Json& values = object[key] = Json::object();
  for (const auto& [name, value] : pairs) values[name] = value;
}

void Put(Json& object, const std::string& key, const MhzRange& range) {
  object[key + "_min"] = range.least;
  object[key + "_max"] = range.most;
}

// Recursive: ParseFolderJson bounds the levels.
Json PrintableJson(const Json& json) {
  if (json.is_string()) return Printable(json.get<std::string>());
  if (!json.is_structured()) return json;
  Json printable = json.is_array() ? Json::array() : Json::object();
  for (const auto& [key, value] : json.items()) {
    if (json.is_array()) {
      printable.push_back(PrintableJson(value));
    } else {
      printable[Printable(key)] = PrintableJson(value);
    }
  }
  return printable;
}

Json ToJson(const RunInfo& info) {
  Json json{{"format", kRunFormat}};
  VisitRunKeys(info, [&json](const RunKey& key, const auto& value) {
    Put(*key.group == '\0' ? json : json[key.group], key.name, value);
  });
  return json;
}

RunInfo FromJson(const Json& json) {
  RunInfo info;
  VisitRunKeys(info, [&json](const RunKey& key, auto& value) {
    Take(*key.group == '\0' ? json : json.value(key.group, Json::object()), key.name, value);
  });
  return info;
}

}  // namespace

// The library finds these by the types' namespace.
static void to_json(Json& json, const Cache& cache) {
  json = {
      {"level", cache.level}, {"type", cache.type}, {"bytes", cache.bytes}, {"instances", cache.instances}};
}

static void from_json(const Json& json, Cache& cache) {
  Take(json, "level", cache.level);
  Take(json, "type", cache.type);
  Take(json, "bytes", cache.bytes);
  Take(json, "instances", cache.instances);
}

static void to_json(Json& json, const CounterSource& source) {
  json = {{"source", source.source}, {"present", source.present}, {"reason", source.reason}};
}

static void from_json(const Json& json, CounterSource& source) {
  Take(json, "source", source.source);
  Take(json, "present", source.present);
  Take(json, "reason", source.reason);
}

static void to_json(Json& json, const EngineCheck& check) {
  json = {
      {"engine", check.engine},           {"state", check.state},     {"operations", check.operations},
      {"checked", check.checked},         {"whole", check.whole},     {"bytes", check.bytes},
      {"all_bytes", check.allBytes},      {"errors", check.errors},   {"unlisted", check.unlisted},
      {"check_s", check.checkS},          {"threads", check.threads}, {"judged_threads", check.judgedThreads},
      {"sources_left_out", check.leftOut}};
}

static void from_json(const Json& json, EngineCheck& check) {
  Take(json, "engine", check.engine);
  Take(json, "state", check.state);
  Take(json, "operations", check.operations);
  Take(json, "checked", check.checked);
  Take(json, "whole", check.whole);
  Take(json, "bytes", check.bytes);
  Take(json, "all_bytes", check.allBytes);
  Take(json, "errors", check.errors);
  Take(json, "unlisted", check.unlisted);
  Take(json, "check_s", check.checkS);
  Take(json, "threads", check.threads);
  Take(json, "judged_threads", check.judgedThreads);
  Take(json, "sources_left_out", check.leftOut);
}

static void to_json(Json& json, const StreamHashes& streams) {
  json = {{"key", streams.key}, {"groups", streams.groups}};
}

static void from_json(const Json& json, StreamHashes& streams) {
  Take(json, "key", streams.key);
  Take(json, "groups", streams.groups);
}

static void to_json(Json& json, const EngineFill& fill) {
  json = {
      {"engine", fill.engine}, {"buffers", fill.buffers}, {"bytes", fill.bytes}, {"refused", fill.refused}};
}

static void from_json(const Json& json, EngineFill& fill) {
  Take(json, "engine", fill.engine);
  Take(json, "buffers", fill.buffers);
  Take(json, "bytes", fill.bytes);
  Take(json, "refused", fill.refused);
}

static void to_json(Json& json, const EngineDeadline& deadline) {
  json = {{"engine", deadline.engine},          {"deadline_ns", deadline.deadlineNs},
          {"operations", deadline.operations},  {"missed", deadline.missed},
          {"longest_run", deadline.longestRun}, {"p999_ns", deadline.p999Ns}};
}

static void from_json(const Json& json, EngineDeadline& deadline) {
  Take(json, "engine", deadline.engine);
  Take(json, "deadline_ns", deadline.deadlineNs);
  Take(json, "operations", deadline.operations);
  Take(json, "missed", deadline.missed);
  Take(json, "longest_run", deadline.longestRun);
  Take(json, "p999_ns", deadline.p999Ns);
}

static void to_json(Json& json, const GuardSummary& guard) {
  json = {{"bytes", guard.bytes},
          {"reads", guard.reads},
          {"locked", guard.locked},
          {"walks", guard.walks},
          {"checked_bytes", guard.checkedBytes},
          {"guarded_s", guard.guardedS},
          {"cpu_s", guard.cpuS},
          {"errors", guard.errors},
          {"unlisted", guard.unlisted},
          {"cut", guard.isCut}};
}

static void from_json(const Json& json, GuardSummary& guard) {
  Take(json, "bytes", guard.bytes);
  Take(json, "reads", guard.reads);
  Take(json, "locked", guard.locked);
  Take(json, "walks", guard.walks);
  Take(json, "checked_bytes", guard.checkedBytes);
  Take(json, "guarded_s", guard.guardedS);
  Take(json, "cpu_s", guard.cpuS);
  Take(json, "errors", guard.errors);
  Take(json, "unlisted", guard.unlisted);
  Take(json, "cut", guard.isCut);
}

static void to_json(Json& json, const LatencyGrowth& growth) {
  json = {{"bytes", growth.bytes}, {"p50_ns", growth.p50Ns}};
}

static void from_json(const Json& json, LatencyGrowth& growth) {
  Take(json, "bytes", growth.bytes);
  Take(json, "p50_ns", growth.p50Ns);
}

// Writes it and reads it back.
template <typename Summary, typename Visit>
static void VisitLatency(Summary& latency, const Visit& visit) {
  visit("bytes", latency.bytes);
  visit("line_bytes", latency.lineBytes);
  visit("pages", latency.pages);
  visit("huge_bytes", latency.hugeBytes);
  visit("cpu", latency.cpu);
  visit("cpu_note", latency.cpuNote);
  visit("real_time", latency.realTime);
  visit("real_time_note", latency.realTimeNote);
  visit("timer", latency.timer);
  visit("timer_ns", latency.timerNs);
  visit("timer_step_ns", latency.timerStepNs);
  visit("bursts", latency.bursts);
  visit("interrupted", latency.interrupted);
  visit("accesses", latency.accesses);
  visit("p50_ns", latency.p50Ns);
  visit("p99_ns", latency.p99Ns);
  visit("p999_ns", latency.p999Ns);
  visit("max_ns", latency.maxNs);
  visit("mean_ns", latency.meanNs);
  visit("bytes_per_s", latency.bytesPerS);
  visit("growth", latency.growth);
}

static void to_json(Json& json, const LatencySummary& latency) {
  VisitLatency(latency, [&json](const char* name, const auto& value) { json[name] = value; });
}

static void from_json(const Json& json, LatencySummary& latency) {
  VisitLatency(latency, [&json](const char* name, auto& value) { Take(json, name, value); });
}

std::string RunInfoText(const RunInfo& info) {
  return ToJson(info).dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

RunInfo ParseRunInfo(const std::string& text, const std::string& path) {
  try {
    const Json json = PrintableJson(ParseFolderJson(text, path));
    if (!json.is_object() || json.find("format") == json.end() || !json["format"].is_number_integer()) {
      throw DamagedFolder(path + ": not the description of a run: it has no \"format\" number");
    }
    const int format = json["format"].get<int>();
    const std::string tool = json.value("tool", std::string());
    if (format != kRunFormat) {
      throw DamagedFolder(path.substr(0, path.rfind('/')) + ": a run folder of format " +
                          std::to_string(format) + ", and " + kToolVersion + " reads format " +
                          std::to_string(kRunFormat) +
                          ". Record the run again, or read it with the version that wrote it" +
                          (tool.empty() ? "." : ": " + tool + "."));
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
