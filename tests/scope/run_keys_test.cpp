// SPDX-License-Identifier: Apache-2.0
#include "run_keys.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>

#include "compare_conditions.h"
#include "made_run.h"
#include "page_data.h"
#include "report.h"
#include "run_json.h"
#include "run_tables.h"
#include "synthetic_run.h"

namespace {

using scope::RunInfo;
using Json = nlohmann::json;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAreArray;

std::string ReadFile(const char* path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

void AddLeaves(const Json& json, const std::string& path, std::set<std::string>& leaves) {
  if (json.is_object() && !json.empty()) {
    for (const auto& [name, value] : json.items())
      AddLeaves(value, path.empty() ? name : path + "." + name, leaves);
  } else if (json.is_array() && !json.empty()) {
    AddLeaves(json[0], path + "[]", leaves);
  } else {
    leaves.insert(path);
  }
}

// Those of a run that has a cache and a source of counters, and nothing in lists whose names are the user's.
std::set<std::string> WrittenKeys() {
  RunInfo info;
  info.conditions.caches.emplace_back();
  info.counters.emplace_back();
  info.verification.emplace_back();
  info.streams.emplace_back();
  info.filling.emplace_back();
  info.deadlines.emplace_back();
  info.latency.growth.emplace_back();
  std::set<std::string> keys;
  AddLeaves(Json::parse(scope::RunInfoText(info)), "", keys);
  return keys;
}

// The rows of the tables under this heading of the format's description.
std::vector<std::string> DocumentedRows(const std::string& heading = "## run.json") {
  std::vector<std::string> rows;
  std::istringstream lines(ReadFile(SCOPE_FORMAT));
  bool here = false;
  for (std::string line; std::getline(lines, line);) {
    if (line[0] == '#') here = line == heading;
    if (here && line.rfind("| `", 0) == 0) rows.push_back(line);
  }
  return rows;
}

std::vector<std::string> NamesIn(const std::string& cell) {
  std::vector<std::string> names;
  const std::regex name("`([^`]+)`");
  for (std::sregex_iterator at(cell.begin(), cell.end(), name), end; at != end; ++at)
    names.push_back((*at)[1]);
  return names;
}

// In the first column: names in full, or from a point on, as the one before.
std::set<std::string> DocumentedKeys() {
  std::set<std::string> keys;
  for (const std::string& row : DocumentedRows()) {
    std::string before;
    for (const std::string& found : NamesIn(row.substr(0, row.find(" |")))) {
      before = found[0] == '.' ? before.substr(0, before.rfind('.')) + found : found;
      keys.insert(before);
    }
  }
  return keys;
}

// In the third column, which only rows of keys that must agree have.
std::vector<std::string> DocumentedConditions() {
  std::vector<std::string> all;
  for (const std::string& row : DocumentedRows()) {
    const std::size_t second = row.find(" | ");
    const std::size_t third = row.find(" | ", second + 1);
    if (third == std::string::npos) continue;
    for (const std::string& name : NamesIn(row.substr(third))) {
      EXPECT_LT(row.find(name), second) << name << " stands beside another key: " << row;
      all.push_back(name);
    }
  }
  return all;
}

// The names of all members, at any depth, but of those that a run names itself.
void AddNames(const Json& json, std::set<std::string>& names) {
  static const std::set<std::string> kNamedByTheRun = {"levels", "settings", "library_versions",
                                                       "platform_settings", "encoder_engines"};
  if (!json.is_structured()) return;
  for (const auto& [name, value] : json.items()) {
    if (json.is_object()) names.insert(name);
    const bool isCount = name == "errors" && value.is_object();
    if (!isCount && kNamedByTheRun.count(name) == 0) AddNames(value, names);
  }
}

// The parts of "runs[].engines[].name", or of the header of a table.
void AddParts(const std::string& path, std::set<std::string>& names) {
  const std::regex part("[a-z0-9_]+");
  for (std::sregex_iterator at(path.begin(), path.end(), part), end; at != end; ++at) names.insert(at->str());
}

// The object has what the first columns of the tables under these headings name, and nothing that the tables
// do not name.
void ExpectAsDescribed(const Json& json, const std::vector<std::string>& headings,
                       std::set<std::string> alsoDescribed) {
  std::set<std::string> printed;
  AddNames(json, printed);
  for (const std::string& heading : headings) {
    const std::vector<std::string> rows = DocumentedRows(heading);
    EXPECT_GE(rows.size(), 3U) << heading;
    for (const std::string& row : rows) {
      std::set<std::string> required;
      for (const std::string& name : NamesIn(row.substr(0, row.find(" |")))) AddParts(name, required);
      for (const std::string& name : required) EXPECT_EQ(printed.count(name), 1U) << name << " of " << row;
      for (const std::string& name : NamesIn(row)) AddParts(name, alsoDescribed);
    }
  }
  for (const std::string& name : printed) EXPECT_EQ(alsoDescribed.count(name), 1U) << name;
}

TEST(JsonKeys, OfAComparisonAreThoseOfTheFormatsDescription) {
  scope::Comparison comparison;
  comparison.figures.emplace_back();
  comparison.findings.emplace_back();
  const scope::Json json =
      scope::ComparisonData({}, {}, comparison, {{"kernel", "6.1", "6.2"}}, scope::CompareOptions());
  ExpectAsDescribed(Json::parse(json.dump()), {"# The JSON of a comparison, format 2"}, {});
}

TEST(JsonKeys, OfAReportAreThoseOfTheFormatsDescription) {
  scope::ReportedRun reported;
  reported.run = made_run::Run();
  made_run::AddLatency(reported.run);
  reported.run = Completed(reported.run);
  reported.run.errors.emplace_back();
  reported.run.info.errors = {{"cpu", 1}};
  reported.run.info.deadlines.emplace_back();
  reported.summary = scope::Summarise(reported.run);
  reported.warnings.emplace_back();
  const Json json = Json::parse(scope::ReportJson({reported}));
  // Of run.json, which another test compares, of the tables that it contains, and the names of figures.
  std::set<std::string> described;
  for (const std::string& key : DocumentedKeys()) AddParts(key, described);
  AddParts(scope::TableHeader<scope::RunError>(), described);
  AddParts(scope::TableHeader<scope::LatencySecond>(), described);
  for (const scope::FigureKind* figure : scope::EngineKinds()) described.insert(figure->name);
  ExpectAsDescribed(json, {"# The JSON of the program", "## Report"}, described);
}

TEST(RunKeys, AreExactlyThoseOfTheFormatsDescription) {
  EXPECT_THAT(WrittenKeys(), Not(IsEmpty()));
  EXPECT_EQ(WrittenKeys(), DocumentedKeys());
}

TEST(RunKeys, ThatMustAgreeAreThoseOfTheFormatsDescription) {
  EXPECT_THAT(DocumentedConditions(), UnorderedElementsAreArray(scope::ConditionNames()));
}

TEST(RunTables, HaveTheHeadersOfTheFormatsDescription) {
  const std::string text = ReadFile(SCOPE_FORMAT);
  const auto documented = [&text](const std::string& file, const std::string& header) {
    const std::size_t section = text.find("\n## " + file);
    const std::size_t from = text.find("\n`", section);
    return section != std::string::npos && text.compare(from, header.size() + 4, "\n`" + header + "`\n") == 0;
  };
  EXPECT_TRUE(documented(scope::kTableName<scope::Sample>, scope::TableHeader<scope::Sample>()));
  EXPECT_TRUE(documented(scope::kTableName<scope::EngineSample>, scope::TableHeader<scope::EngineSample>()));
  EXPECT_TRUE(documented(scope::kTableName<scope::HistogramRow>, scope::TableHeader<scope::HistogramRow>()));
  EXPECT_TRUE(documented(scope::kTableName<scope::Rate>, scope::TableHeader<scope::Rate>()));
  EXPECT_TRUE(documented(scope::kTableName<scope::RunError>, scope::TableHeader<scope::RunError>()));
  EXPECT_TRUE(
      documented(scope::kTableName<scope::LatencySecond>, scope::TableHeader<scope::LatencySecond>()));
  EXPECT_TRUE(documented(scope::kTableName<scope::CounterValue>, scope::TableHeader<scope::CounterValue>()));
}

TEST(RunKeys, ThatMustAgreeAreThoseOfTheManual) {
  const std::string manual = ReadFile(SCOPE_MANUAL);
  const std::size_t from = manual.find("Conditions that may differ:");
  ASSERT_NE(from, std::string::npos);
  std::string text = manual.substr(from, manual.find(".TP", from) - from);
  text = text.substr(text.find(':') + 1, text.find(": the other") - text.find(':') - 1);
  std::set<std::string> named;
  const std::regex name("[a-z_]+");
  for (std::sregex_iterator at(text.begin(), text.end(), name), end; at != end; ++at) named.insert(at->str());
  named.erase("and");
  const std::vector<std::string> names = scope::ConditionNames();
  EXPECT_EQ(named, std::set<std::string>(names.begin(), names.end()));
}

TEST(RunKeys, ReadWhatWasWritten) {
  RunInfo info = SyntheticInfo();
  info.conditions.loadAverage = {0.5, 1, 2};
  info.counters = {{"edac", false, "why"}};
  info.conditions.fill = "random";
  info.conditions.verify = true;
  info.conditions.guard = "1G at 100 MB/s";
  info.conditions.control = "1 x (10 us)";
  info.conditions.ownCpus = "vpc: 1";
  info.guard = {1 << 30, "clflush", true, 9, 8, 7, 6, 5, 4};
  info.conditions.latency = "256 MiB in pages of 2 MiB, CPU 1";
  info.latency = {1,     2,       "2 MiB", 3,   4,    "why", true,
                  "not", "rdtsc", 5.5,     6.5, 7,    8,     9,
                  10,    11,      12,      13,  14.5, 15,    {{16, 17}, {18, 19}}};
  info.verification = {{"cpu", "judged", 9, 8, 7, 6, 5, 4, 3, 0.5, 2, 1, true}};
  info.streams = {{"0123", {"4567", "", "89ab"}}};
  info.filling = {{"vpc", 3, 2, 1}};
  info.deadlines = {{"vpc", 16'700'000, 9, 8, 7, 6}};
  info.errors = {{"cpu", 4}, {"edac", 1}};
  info.label = "words";
  info.exitStatus = 3;
  const std::string text = scope::RunInfoText(info);
  EXPECT_EQ(scope::RunInfoText(scope::ParseRunInfo(text, "run.json")), text);
  EXPECT_NE(scope::RunInfoText(RunInfo()), text);
}

TEST(RunKeys, HaveTextsForPeople) {
  RunInfo info = SyntheticInfo();
  info.conditions.caches.push_back({3, "Unified", 37'748'736, 1});
  info.conditions.loadAverage = {0.5, 1, 2.006};
  std::vector<std::string> texts;
  for (const auto& [key, text] : scope::RunTexts(info)) texts.push_back(key.name + (": " + text));
  EXPECT_THAT(texts, ElementsAre("complete: yes", "levels: cpu=1", "meter: yes", "fill: ", "verify: no",
                                 "guard: ", "latency: ", "control: ", "own_cpus: ", "duty: ",
                                 "build_type: Release", "library_versions: libormis 1.0.0",
                                 "platform_settings: memory device, flush clflushopt",
                                 "encoder_engines: 0 libx264, 1 libx264", "cpu_model: a CPU", "cpu_count: 2",
                                 "caches: 2 x L1 Data 48 KiB, 1 x L3 Unified 36 MiB", "governor: performance",
                                 "cpu_mhz: 800 to 3000 MHz", "mem_total_bytes: 8.0 GiB", "kernel: 6.1",
                                 "load_average: 0.50, 1.00, 2.01", "hostname_hash: 0123"));
}

TEST(RunKeys, OfWhatTheMachineDoesNotTellHaveNoText) {
  std::vector<std::string> told;
  for (const auto& [key, text] : scope::RunTexts({})) {
    if (!text.empty()) told.push_back(key.name + ("=" + text));
  }
  EXPECT_THAT(told, ElementsAre("complete=no", "meter=no", "verify=no"));
}

}  // namespace
