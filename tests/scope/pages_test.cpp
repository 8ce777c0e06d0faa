// SPDX-License-Identifier: Apache-2.0

// The data of the pages of comparisons and of sweeps, and that nothing leads out of them.
#include "pages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "comparison_text.h"
#include "made_matrix.h"
#include "made_run.h"
#include "matrix_text.h"
#include "page_data.h"
#include "page_json.h"
#include "sweep_text.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using Json = nlohmann::json;
using namespace scope;

const std::string kHostile = "</script><script>alert(1)</script><!-- & \" ' \xe2\x80\xa8 \x1b \x01";

void ExpectInert(const std::string& page) {
  for (const char* text : {"<script>alert", "</script><!--", "\xe2\x80\xa8", "\x1b", "\x01"}) {
    EXPECT_THAT(page, Not(HasSubstr(text)));
  }
}

// Runs whose copies do `operations` a second, one run each.
Side SideOf(const std::string& name, const std::vector<std::uint64_t>& operations) {
  Side side;
  side.name = name;
  for (const std::uint64_t each : operations) {
    Run run = made_run::Run();
    for (Sample& sample : run.samples) {
      if (sample.engine == "cpu") sample.operations = each;
    }
    made_run::FitHistogram(run);
    run = Completed(run);
    run.folder = "runs/" + name + "/" + std::to_string(side.runs.size() + 1) + "/";
    side.runs.push_back(run);
  }
  return side;
}

struct Compared {
  Compared(const Side& first, const Side& second) : a(first), b(second) {
    comparison = Compare(a, b, options);
    differences = DifferentConditions(a.runs, b.runs);
  }
  Json Data() const { return DataOf(Page()); }
  std::string Page() const { return ComparisonPage(a, b, comparison, differences, options); }

  Side a;
  Side b;
  CompareOptions options;
  Comparison comparison;
  std::vector<ConditionDifference> differences;
};

TEST(ComparisonPage, HasTheJsonOfTheComparisonAndItsRuns) {
  Compared compared(SideOf("a", {400, 401}), SideOf("b", {360, 361, 362}));
  Json data = compared.Data();
  const Json report = data.at("report");
  data.erase("report");
  EXPECT_EQ(data, Json::parse(ComparisonJson(compared.a, compared.b, compared.comparison,
                                             compared.differences, compared.options)));
  EXPECT_EQ(data.at("kind"), "compare");
  EXPECT_EQ(report.at("kind"), "report");
  EXPECT_EQ(report.at("engines").at(0).at("colour"), "#0072b2");
  ASSERT_EQ(report.at("runs").size(), 5U);
  const std::vector<std::pair<const char*, const char*>> names = {
      {"A", "A: 1"}, {"A", "A: 2"}, {"B", "B: 1"}, {"B", "B: 2"}, {"B", "B: 3"}};
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(report.at("runs").at(i).at("side"), names[i].first);
    EXPECT_EQ(report.at("runs").at(i).at("name"), names[i].second);
  }
  EXPECT_EQ(report.at("runs").at(4).at("engines").at(0).at("seconds").at("ops").at(1), 724);
}

TEST(ComparisonPage, RunsLeaveOutWhatTheComparisonDoes) {
  Compared compared(SideOf("a", {400}), SideOf("b", {400}));
  compared.options.skipS = 12;
  EXPECT_EQ(compared.Data().at("report").at("warmup_s"), 12);
}

TEST(ComparisonPage, WhatOneRunDoesNotShowIsNull) {
  const Json figure = Compared(SideOf("a", {400}), SideOf("b", {300})).Data().at("figures").at(0);
  EXPECT_NEAR(figure.at("difference_percent").get<double>(), -25, 1e-9);
  EXPECT_EQ(figure.at("low_percent"), nullptr);
  EXPECT_EQ(figure.at("high_percent"), nullptr);
}

TEST(ComparisonPage, DrawsTheFirstRunsOfManyAndListsAll) {
  const Json data =
      Compared(SideOf("a", std::vector<std::uint64_t>(10, 400)), SideOf("b", {400, 400})).Data();
  EXPECT_EQ(data.at("a").at("runs").size(), 10U);
  ASSERT_EQ(data.at("report").at("runs").size(), kMostDrawnRuns + 2);
  EXPECT_EQ(data.at("report").at("runs").at(kMostDrawnRuns - 1).at("name"), "A: 8");
  EXPECT_EQ(data.at("report").at("runs").at(kMostDrawnRuns).at("name"), "B: 1");
}

TEST(ComparisonPage, NothingLeadsOutOfItsData) {
  Compared compared(SideOf("a", {400}), SideOf(kHostile, {400}));
  compared.comparison.notes = {kHostile};
  compared.comparison.findings = {{"", kHostile, true}};
  compared.differences = {{"governor", kHostile, "\xff"}};
  compared.b.runs[0].counters[0].name = kHostile;
  ExpectInert(compared.Page());
  const Json data = compared.Data();
  EXPECT_EQ(data.at("b").at("name"), kHostile);
  EXPECT_EQ(data.at("different").at(0).at("b"), "\xef\xbf\xbd");
  EXPECT_EQ(data.at("report").at("runs").at(1).at("counter_series").at(0).at("name"), kHostile);
}

// A point for each level of CPU with its values of cpu, venc and the total, one value a run.
SweepTable TableOf(const std::vector<std::vector<double>>& cpu) {
  SweepTable table;
  table.axes = {{"CPU", {}}};
  table.engines = {"cpu", "venc"};
  for (const std::vector<double>& values : cpu) {
    const int level = static_cast<int>(table.points.size()) + 1;
    table.axes[0].levels.push_back(level);
    SweepPoint point{{{"CPU", level}}, values.size(), {}, {}};
    point.values[{"cpu", Figure::kBandwidth}] = values;
    for (const double value : values) {
      point.values[{"venc", Figure::kBandwidth}].push_back(2 - 0.5 * level);
      point.values[{kAllEngines, Figure::kBandwidth}].push_back(value + 2 - 0.5 * level);
    }
    table.points.push_back(point);
  }
  return table;
}

Json SweepDataOf(const SweepTable& table) {
  return DataOf(SweepPage("grid", {}, table, ""));
}

TEST(SweepPage, HasThePointsAndWhereEachEngineSaturates) {
  const Json data = SweepDataOf(TableOf({{5.0, 5.1}, {9.8, 9.9}, {10.0, 10.1}}));
  EXPECT_EQ(data.at("kind"), "sweep");
  EXPECT_EQ(
      data.at("engines").at(1),
      Json::parse(R"({"name": "venc", "title": "VENC: frame encodes", "colour": "#009e73", "load": true})"));
  EXPECT_EQ(data.at("points").at(1).at("levels"), Json::parse(R"({"CPU": 2})"));
  // The total is best at 2. The copies alone are best at 3, and 2 is within 5 % of that.
  EXPECT_EQ(data.at("saturation").at("best"), Json::parse(R"({"CPU": 2})"));
  EXPECT_EQ(data.at("saturation").at("from_best_percent"), nullptr);
  ASSERT_EQ(data.at("saturations").size(), 1U) << "the level of the encoder is not swept";
  const Json& cpu = data.at("saturations").at(0);
  EXPECT_EQ(cpu.at("engine"), "cpu");
  EXPECT_EQ(cpu.at("section"), "CPU");
  EXPECT_EQ(cpu.at("reached"), true);
  EXPECT_EQ(cpu.at("lowest"), Json::parse(R"({"CPU": 2})"));
  EXPECT_EQ(cpu.at("best"), Json::parse(R"({"CPU": 3})"));
  EXPECT_NEAR(cpu.at("from_best_percent").get<double>(), -1.99, 0.01);
  EXPECT_LT(cpu.at("low_percent").get<double>(), cpu.at("from_best_percent").get<double>());
  EXPECT_GT(cpu.at("high_percent").get<double>(), cpu.at("from_best_percent").get<double>());
  EXPECT_THAT(cpu.at("sentence").get<std::string>(), HasSubstr("The bandwidth of cpu saturates at CPU=2"));
}

TEST(SweepPage, TheUncertaintyOfOneRunAPointIsNull) {
  const Json data = SweepDataOf(TableOf({{5}, {9.8}, {10}}));
  const Json& cpu = data.at("saturations").at(0);
  for (const char* key : {"from_best_percent", "low_percent", "high_percent", "indistinct"}) {
    EXPECT_EQ(cpu.at(key), nullptr) << key;
  }
  EXPECT_THAT(cpu.at("sentence").get<std::string>(),
              HasSubstr("Uncertainty not known: sweep with --repeat 4."));
}

TEST(SweepPage, WithoutABandwidthThereIsNoSaturation) {
  SweepTable table;
  table.axes = {{"CPU", {1}}};
  table.points = {{{{"CPU", 1}}, 1, {}, {}}};
  const Json data = SweepDataOf(table);
  EXPECT_EQ(data.at("saturation"), nullptr);
  EXPECT_EQ(data.at("saturations"), Json::array());
  EXPECT_EQ(data.at("points").at(0).at("figures"), Json::array());
}

TEST(JsonText, EscapesWhatControlsATerminal) {
  const std::string text = "\x1b\x7f\xc2\x80\xc2\x9f\xc2\xa0\xc3\xa9\xc2";
  const std::string printed = JsonText(scope::Json{{"text\x7f", text}});
  EXPECT_EQ(printed,
            "{\n  \"text\\u007f\": \"\\u001b\\u007f\\u0080\\u009f\xc2\xa0\xc3\xa9\xef\xbf\xbd\"\n}\n");
  EXPECT_EQ(Json::parse(printed).at("text\x7f"), "\x1b\x7f\xc2\x80\xc2\x9f\xc2\xa0\xc3\xa9\xef\xbf\xbd");
}

TEST(SweepPage, NothingLeadsOutOfItsData) {
  SweepTable table = TableOf({{5}});
  table.notes = {kHostile};
  table.engines = {kHostile};
  const std::string page = SweepPage(kHostile, {}, table, "");
  ExpectInert(page);
  EXPECT_EQ(DataOf(page).at("folder"), kHostile);
  EXPECT_EQ(DataOf(page).at("engines").at(0).at("title"), kHostile);
}

TEST(MatrixPage, HasTheJsonOfTheCommandAndSaysWhatSlowsMost) {
  const Matrix matrix = made_matrix::Plan();
  const MatrixTable table = made_matrix::Table();
  const Json data = DataOf(MatrixPage("who", matrix, table, false));
  EXPECT_EQ(data, Json::parse(MatrixJson("who", matrix, table, false)));
  EXPECT_EQ(data.at("kind"), "matrix");
  EXPECT_EQ(data.at("complete"), false);
  EXPECT_EQ(data.at("sentences"),
            Json::parse(R"(["The victim has CPU 3 to itself; aggressors and controls share the others.",
                            "The latency is that of 256 MiB in pages of 2 MiB, CPU 3.",
                            "Before the load, medians of all runs with the probe over parts of this memory: 1 MiB 9 ns, 256 MiB 100 ns.",
                            "Memory slows VPC=1 most beside CPU=2 VENC=1: by +60.0 % [+52.0, +68.0].",
                            "The latency of memory grows most beside CPU=2 VENC=1: by +150.0 % [+137.5, +162.5]."])"));
  EXPECT_EQ(data.at("cells").at(2).at("memory_share"),
            Json::parse(R"({"percent": 68, "low": 60, "high": 76})"));
  EXPECT_EQ(data.at("cells").at(0).at("memory_share"), nullptr);
  EXPECT_EQ(data.at("latency"), "256 MiB in pages of 2 MiB, CPU 3");
  EXPECT_EQ(data.at("growth"),
            Json::parse(R"([{"bytes": 1048576, "p50_ns": 9}, {"bytes": 268435456, "p50_ns": 100}])"));
}

TEST(MatrixPage, SaysWhatTheRunsDoNotShow) {
  MatrixTable table = made_matrix::Table();
  for (MatrixCell& cell : table.cells) {
    if (cell.byMemory) cell.byMemory->low = -1;
    if (cell.byMemory && cell.victim.section == "VPC") cell.byMemory->low.reset();
  }
  const std::string text = MatrixText(made_matrix::Plan(), table);
  EXPECT_THAT(
      text, AllOf(HasSubstr("\nWhether memory slows VPC=1 is not known: this needs two runs of each part.\n"),
                  HasSubstr("\nThese runs do not show that the latency of memory grows: no interval is "
                            "above 0.\n"),
                  HasSubstr("The latency is that of 256 MiB in pages of 2 MiB, CPU 3.\n"
                            "Before the load, medians of all runs with the probe over parts of this memory: "
                            "1 MiB 9 ns, 256 MiB 100 ns.\n"),
                  HasSubstr("note: not done: 4 of 24 runs")));
}

TEST(MatrixPage, NothingLeadsOutOfItsData) {
  Matrix matrix = made_matrix::Plan();
  matrix.started = kHostile;
  MatrixTable table = made_matrix::Table();
  table.notes = {kHostile};
  table.latency = kHostile;
  const std::string page = MatrixPage(kHostile, matrix, table, true);
  ExpectInert(page);
  for (const char* const key : {"folder", "started", "latency"})
    EXPECT_EQ(DataOf(page).at(key), kHostile) << key;
  EXPECT_EQ(DataOf(page).at("notes").at(0), kHostile);
  EXPECT_THAT(MatrixText(matrix, table), AllOf(Not(HasSubstr("\x1b")), HasSubstr("<script>")));
}

// Saturation: the sentences, which text and page share.

std::string TotalOf(const std::vector<std::vector<double>>& values) {
  SweepTable table = TableOf(values);
  table.engines = {"cpu"};
  for (SweepPoint& point : table.points) {
    point.values[{kAllEngines, Figure::kBandwidth}] = point.values[{"cpu", Figure::kBandwidth}];
  }
  return SaturationText(table);
}

TEST(SaturationSentence, NeverComparesAPointWithItself) {
  EXPECT_EQ(TotalOf({{5}, {10}, {8}}),
            "The total bandwidth is best at CPU=2, 10.00 GB/s: more threads give no more. Uncertainty not "
            "known: sweep with --repeat 4.\n");
  EXPECT_EQ(TotalOf({{5, 5}, {7, 7}, {10, 10}}),
            "The total bandwidth does not saturate: the best, 10.00 GB/s at CPU=3, has the most threads.\n");
}

TEST(SaturationSentence, GivesTheIntervalOverTheRepeats) {
  EXPECT_EQ(
      TotalOf({{5, 5.01}, {9.78, 9.8}, {9.99, 10.01}}),
      "The total bandwidth saturates at CPU=2: 9.790 GB/s, within 5 % of the best, 10.00 GB/s at CPU=3. "
      "The repeats put it at 97.3 to 98.5 % of the best.\n");
  EXPECT_THAT(TotalOf({{5, 5.01}, {9.2, 10}, {9.5, 10.5}}),
              HasSubstr("of the best, so they do not show that.\n"));
}

TEST(SaturationSentence, WithAnIntervalTheUncertaintyIsKnown) {
  EXPECT_THAT(TotalOf({{5}, {9.78, 9.8}, {9.99, 10.01}}),
              AllOf(HasSubstr("The repeats put it at "), Not(HasSubstr("Uncertainty not known"))));
}

// The point with 9.9 GB/s has fewer threads of the copies, but others of the encoders.
TEST(SaturationSentence, AnEngineIsLookedAtAlongItsOwnLevel) {
  SweepTable table;
  table.axes = {{"CPU", {1, 2}}, {"VENC", {0, 1}}};
  table.engines = {"cpu", "venc"};
  const double cpu[] = {5, 9.9, 10, 7};
  for (int i = 0; i != 4; ++i) {
    SweepPoint point{{{"CPU", 1 + i / 2}, {"VENC", i % 2}}, 1, {}, {}};
    point.values[{"cpu", Figure::kBandwidth}] = {cpu[i]};
    if (i % 2 == 1) point.values[{"venc", Figure::kBandwidth}] = {1};
    table.points.push_back(point);
  }
  const auto found = EngineSaturations(table);
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].saturation.best, 2U);
  EXPECT_EQ(found[0].saturation.lowest, 2U);
  EXPECT_FALSE(found[0].saturation.reached);
  // Both points with an encoder are as good. The first counts, and its level is the highest beside it.
  EXPECT_EQ(found[1].engine, "venc");
  EXPECT_EQ(found[1].saturation.best, 1U);
  EXPECT_FALSE(found[1].saturation.reached);
}

}  // namespace
