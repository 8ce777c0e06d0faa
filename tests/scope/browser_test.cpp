// SPDX-License-Identifier: Apache-2.0

// The page of a report in a browser: it draws its tables and charts, writes nothing to the console, and loads
// nothing.
#include "browser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "made_run.h"

namespace {

using browser::Visit;
using nlohmann::json;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

void RemoveSamples(scope::Run& run, double startS, double endS) {
  run.samples.erase(
      std::remove_if(run.samples.begin(), run.samples.end(),
                     [=](const auto& sample) { return sample.timeS > startS && sample.timeS < endS; }),
      run.samples.end());
}

std::vector<std::string> EngineCharts(const std::vector<std::string>& engines) {
  std::vector<std::string> ids;
  for (const std::string& engine : engines) {
    for (const char* chart : {"-rate", "-bandwidth", "-latency", "-histogram", "-printed"}) {
      ids.push_back(engine + chart);
    }
  }
  return ids;
}

void ExpectGood(const Visit& visit, const std::vector<std::string>& charts) {
  EXPECT_THAT(visit.console, IsEmpty());
  EXPECT_THAT(visit.requests, IsEmpty());
  EXPECT_EQ(visit.ChartIds(), charts);
  // A line across a chart has some hundreds of pixels.
  for (const json& chart : visit.page["charts"]) EXPECT_GT(chart["drawn"], 200) << chart["id"];
}

class ReportInBrowser : public browser::BrowserTest {
 protected:
  // The page of `run` alone.
  Visit Open(const scope::Run& run) const {
    made_run::Write(run, folder_ / "run");
    return Read(Page({folder_ / "run"}));
  }

  Visit Open(const scope::Run& first, const scope::Run& second) const {
    made_run::Write(first, folder_ / "run");
    made_run::Write(second, folder_ / "other");
    return Read(Page({folder_ / "run", folder_ / "other"}));
  }
};

TEST_F(ReportInBrowser, DrawsEveryChartOfARecording) {
  const Visit visit = Open(made_run::Run());
  std::vector<std::string> charts = EngineCharts({"cpu", "vpc", "venc", "aic"});
  charts.insert(charts.begin(), "total-0");
  charts.emplace_back("counter-0-0");
  ExpectGood(visit, charts);
  EXPECT_EQ(visit.page["title"], "stress_scope: run");
}

TEST_F(ReportInBrowser, ItsPointsAreTheFigures) {
  const Visit visit = Open(made_run::Run());
  const json rate = visit.Chart("cpu-rate")["series"][0]["points"];
  EXPECT_EQ(rate.size(), std::size_t{made_run::kWholeSeconds});
  EXPECT_EQ(rate[0], json::parse("[2, 800]"));
  EXPECT_EQ(visit.Chart("cpu-bandwidth")["series"][0]["points"][0][1], 13.271);
  const json latency = visit.Chart("cpu-latency")["series"];
  EXPECT_EQ(latency[1]["name"], "p99");
  EXPECT_EQ(latency[1]["points"][0], json::parse("[2, 500]"));
  double share = 0;
  for (const json& point : visit.Chart("cpu-histogram")["series"][0]["points"])
    share += point[1].get<double>();
  EXPECT_DOUBLE_EQ(share, 100);
  EXPECT_EQ(visit.Chart("vpc-printed")["series"][0]["points"][5], json::parse("[6, 250]"));
  EXPECT_EQ(visit.Chart("counter-0-0")["series"][0]["points"][9], json::parse("[10, 51]"));
}

TEST_F(ReportInBrowser, ShowsEveryTable) {
  scope::Run run = made_run::Run();
  run.info.label = "a label";
  run.info.conditions.caches = {{3, "Unified", 32U << 20U, 2}};
  const Visit visit = Open(run);
  EXPECT_THAT(visit.Row("figures", {"cpu"}),
              ElementsAre("cpu", "2", "32,000", "800.0", "13.271", "500.00 µs", "500.00 µs", "500.00 µs", "0",
                          "0.00", "2000.0", "–"));
  EXPECT_THAT(visit.Row("figures", {"vpc"}), ElementsAre("vpc", "1", "4,000", "100.0", "0.651", "4.00 ms",
                                                         "4.00 ms", "4.00 ms", "0", "250.0", "250.0", "0 %"));
  EXPECT_THAT(visit.Row("figures", {"all"}), ElementsAre("all", "", "14.642", ""));
  EXPECT_THAT(visit.Row("figures threads", {"cpu", "1"}),
              ElementsAre("cpu", "1", "16,000", "400.0", "6.636", "500.00 µs", "500.00 µs", "500.00 µs", "0",
                          "2000.0"));
  for (const auto& [title, text] :
       std::vector<std::pair<std::string, std::string>>{{"Label", "a label"},
                                                        {"Started (UTC)", "2026-11-21T04:00:00Z"},
                                                        {"Duration", "41.2 s"},
                                                        {"State", "complete"},
                                                        {"End of the benchmark", "status 0"},
                                                        {"Configuration", "config/all.yaml"},
                                                        {"Levels", "cpu=2, vpc=1, venc=1, aic=1"},
                                                        {"Recorded by", "stress_scope 0.1.0"},
                                                        {"Every operation measured", "yes"},
                                                        {"Build", "Release"},
                                                        {"CPU", "A Processor"},
                                                        {"CPUs", "4"},
                                                        {"Caches", "2 x L3 Unified 32 MiB"},
                                                        {"Governor", "not known"},
                                                        {"Memory", "7.5 GiB"},
                                                        {"Load average at the start", "0.20, 0.10, 0.10"}}) {
    EXPECT_THAT(visit.Row("conditions", {title}), ElementsAre(title, text));
  }
  EXPECT_THAT(visit.Row("counters", {"thermal"}), ElementsAre("thermal", "recorded"));
  EXPECT_THAT(visit.Row("counters", {"resctrl"}), ElementsAre("resctrl", "absent: not mounted"));
  EXPECT_THAT(visit.Text(),
              AllOf(HasSubstr("cpu: 100 % of the operations take less than a millisecond"),
                    HasSubstr("Configuration file config/all.yaml"),
                    HasSubstr("record of 2026-11-21T04:00:00Z, 41.2 s, A Processor, Release build"),
                    HasSubstr("CPU: memory copies"), HasSubstr("What the figures mean")));
}

TEST_F(ReportInBrowser, ALineHasAGapWhereSamplesAreMissing) {
  scope::Run run = made_run::Run();
  RemoveSamples(run, 10, 14);
  const Visit visit = Open(run);
  for (const char* chart : {"total-0", "cpu-rate", "cpu-bandwidth", "cpu-latency"}) {
    const json series = visit.Chart(chart)["series"][0];
    EXPECT_EQ(series["points"][9], json::parse("[14, null]")) << chart;
    EXPECT_EQ(series["spansGaps"], false) << chart;
  }
}

// Only one engine lacks the second. The sum is unknown, so every engine has a gap and not 0.
TEST_F(ReportInBrowser, AStackHasAGapWhereOneEngineLacksASecond) {
  scope::Run run = made_run::Run();
  run.samples.erase(std::remove_if(run.samples.begin(), run.samples.end(),
                                   [](const auto& sample) {
                                     return sample.engine == "vpc" && sample.timeS > 10 && sample.timeS < 14;
                                   }),
                    run.samples.end());
  const Visit visit = Open(run);
  for (const json& series : visit.Chart("total-0")["series"]) {
    for (std::size_t second = 2; second != 41; ++second) {
      const bool gap = second > 10 && second < 15;
      EXPECT_EQ(series["points"][second - 2][1].is_null(), gap) << series["name"] << " " << second;
    }
  }
}

// The figures leave out the seconds in which an engine begins and ends. It worked in them, so 0 is wrong.
TEST_F(ReportInBrowser, AStackHasAGapWhereAnEngineWorkedForAPartOfASecond) {
  constexpr int kEnd = made_run::kWholeSeconds + 2;  // of all engines but cpu
  constexpr int kBeginOfVenc = 10;
  scope::Run run = made_run::Run();
  run.info.durationS = kEnd + 1.2;
  for (int thread = 0; thread != 2; ++thread) {
    run.samples.push_back(made_run::SampleOf(made_run::kEngines[0], thread, kEnd + 1, 200));
  }
  run.samples.erase(std::remove_if(run.samples.begin(), run.samples.end(),
                                   [](const auto& sample) {
                                     return sample.engine == "venc" && sample.timeS < kBeginOfVenc;
                                   }),
                    run.samples.end());
  const Visit visit = Open(run, made_run::Run());
  const json stack = visit.Chart("total-0")["series"];
  ASSERT_EQ(stack.size(), 4U);
  for (const json& engine : stack) {
    ASSERT_EQ(engine["points"].size(), std::size_t{kEnd - 1}) << engine["name"];
    for (int second = 2; second <= kEnd; ++second) {
      const json value = engine["points"][static_cast<std::size_t>(second - 2)][1];
      const bool isGap = second == kBeginOfVenc || second == kEnd;
      EXPECT_EQ(value.is_null(), isGap) << engine["name"] << " " << second;
      const bool hasNotBegun = engine["name"] == "venc" && second < kBeginOfVenc;
      if (!isGap) EXPECT_EQ(value == 0, hasNotBegun) << engine["name"] << " " << second;
    }
  }
  const json sums = visit.Chart("totals")["series"];
  ASSERT_EQ(sums.size(), 2U);
  EXPECT_EQ(sums[0]["points"].back(), json({kEnd, nullptr}));
  EXPECT_EQ(sums[1]["points"].back()[0], kEnd - 1);
  EXPECT_FALSE(sums[1]["points"].back()[1].is_null());
}

TEST_F(ReportInBrowser, AFailedEngineSaysSoInsteadOfEmptyAxes) {
  scope::Run run = made_run::Run();
  for (scope::Sample& sample : run.samples) {
    if (sample.engine != "vpc") continue;
    sample = made_run::SampleOf(made_run::kEngines[1], 0, sample.timeS, 0);
    sample.failures = 3;
  }
  run.samples.erase(std::remove_if(run.samples.begin(), run.samples.end(),
                                   [](const auto& sample) { return sample.engine == "aic"; }),
                    run.samples.end());
  run.rates.clear();
  const Visit visit = Open(run);
  ExpectGood(visit, {"total-0", "cpu-rate", "cpu-bandwidth", "cpu-latency", "cpu-histogram", "venc-rate",
                     "venc-bandwidth", "venc-latency", "venc-histogram", "counter-0-0"});
  EXPECT_THAT(visit.Text(), AllOf(HasSubstr("VPC: image resizes\n\nno operation succeeded, 123 failed."),
                                  HasSubstr("AIC: inferences\n\nnot one operation was begun, though the "
                                            "level is 1.")));
  EXPECT_THAT(visit.Text(), Not(HasSubstr("VENC: frame encodes\n\nn")));
}

TEST_F(ReportInBrowser, ShowsTheSourcesOfCountersOfAllRunsInOneTable) {
  scope::Run other = made_run::Run();
  other.info.counters = {{"thermal", false, "no zone"}, {"edac", true, ""}};
  const Visit visit = Open(made_run::Run(), other);
  EXPECT_THAT(visit.Row("counters", {"Source"}), ElementsAre("Source", "A: run", "B: other"));
  EXPECT_THAT(visit.Row("counters", {"thermal"}), ElementsAre("thermal", "recorded", "absent: no zone"));
  EXPECT_THAT(visit.Row("counters", {"resctrl"}),
              ElementsAre("resctrl", "absent: not mounted", "not looked for"));
  EXPECT_THAT(visit.Row("counters", {"edac"}), ElementsAre("edac", "not looked for", "recorded"));
}

TEST_F(ReportInBrowser, CountsAreStepsFromTheStartOfTheRun) {
  scope::Run run = made_run::Run();
  for (int second = 1; second <= 40; ++second) {
    run.counters.push_back({static_cast<double>(second), "edac", "mc0", "errors", second < 20 ? 7.0 : 9.0});
  }
  const json chart = Open(run).Chart("counter-0-0");
  EXPECT_EQ(chart["series"][0]["name"], "mc0");
  EXPECT_EQ(chart["series"][0]["stepped"], true);
  EXPECT_EQ(chart["series"][0]["points"][18], json::parse("[19, 0]"));
  EXPECT_EQ(chart["series"][0]["points"][19], json::parse("[20, 2]"));
}

// The run is four times as fast during warm-up. The whole run includes that; what compare takes does not.
TEST_F(ReportInBrowser, ShadesTheWarmUpAndNamesWhatLeavesItOut) {
  scope::Run run = made_run::Run();
  for (scope::Sample& sample : run.samples) {
    if (sample.engine == "venc" && sample.timeS > 1 && sample.timeS <= 5) sample.operations = 200;
  }
  const Visit visit = Open(run);
  EXPECT_EQ(visit.Chart("cpu-rate")["shades"], json::parse("[51, 0]"));
  // Its horizontal axis is in ms, and 5 is within it.
  EXPECT_EQ(visit.Chart("vpc-histogram")["shades"], json::parse("[0, 0]"));
  EXPECT_THAT(visit.Text(),
              AllOf(HasSubstr("The whole run"), HasSubstr("After the warm-up of 5 s, as comparisons "
                                                          "and sweeps take it")));
  EXPECT_EQ(visit.Row("figures", {"venc"})[3], "65.4");
  EXPECT_THAT(
      visit.Row("figures after-warmup", {"Engine"}),
      ElementsAre("Engine", "ops (op/s)", "bandwidth (GB/s)", "p50 (us)", "p99 (us)", "printed (fps)"));
  EXPECT_THAT(visit.Row("figures after-warmup", {"venc"}),
              ElementsAre("venc", "50", "0.1559", "9,000", "9,000", "111"));
  EXPECT_THAT(visit.Row("figures after-warmup", {"all"}), ElementsAre("all", "–", "14.64", "–", "–", "–"));
}

TEST_F(ReportInBrowser, MarksWarningsOnTheTimeAxis) {
  scope::Run run = made_run::Run();
  for (scope::Sample& sample : run.samples) {
    if (sample.engine == "venc" && sample.timeS >= 12) sample.failures = 1;
  }
  for (int second = 1; second <= 40; ++second) {
    run.counters.push_back(
        {static_cast<double>(second), "throttle", "cpu0", "events", second < 31 ? 7.0 : 8.0});
  }
  const Visit visit = Open(run);
  EXPECT_THAT(visit.Text(),
              AllOf(HasSubstr("1 venc: 30 operations failed from 12 s on"),
                    HasSubstr("2 throttle: cpu0: throttled 1 time during the run from 31 s on")));
  const json failures = json::parse(R"([{"x": 12, "text": "1"}])");
  const json throttled = json::parse(R"([{"x": 31, "text": "2"}])");
  EXPECT_EQ(visit.Chart("venc-rate")["marks"], failures);
  EXPECT_EQ(visit.Chart("venc-latency")["marks"], failures);
  EXPECT_EQ(visit.Chart("venc-histogram")["marks"], json::array());
  EXPECT_EQ(visit.Chart("cpu-rate")["marks"], json::array());
  EXPECT_EQ(visit.Chart("counter-0-0")["marks"], throttled);
  EXPECT_EQ(visit.Chart("total-0")["marks"].size(), 2U);
  EXPECT_GT(visit.Chart("venc-rate")["cautions"], 50);
  EXPECT_EQ(visit.Chart("cpu-rate")["cautions"], 0);
}

TEST_F(ReportInBrowser, ShowsSeveralRunsInEachChartAndWhatDiffers) {
  scope::Run other = made_run::Run();
  other.info.conditions.governor = "performance";
  const Visit visit = Open(made_run::Run(), other);
  std::vector<std::string> charts = EngineCharts({"cpu", "vpc", "venc", "aic"});
  charts.insert(charts.begin(), {"totals", "total-0", "total-1"});
  charts.insert(charts.end(), {"counter-0-0", "counter-1-0"});
  ExpectGood(visit, charts);
  EXPECT_THAT(visit.Row("conditions", {"≠ Governor"}), ElementsAre("≠ Governor", "not known", "performance"));
  EXPECT_THAT(visit.Row("conditions", {"CPU"}), ElementsAre("CPU", "A Processor", "A Processor"));
}

TEST_F(ReportInBrowser, ColoursBelongToEnginesAndLineStylesToRuns) {
  const Visit visit = Open(made_run::Run(), made_run::Run());
  const json cpu = visit.Chart("cpu-rate")["series"];
  const json venc = visit.Chart("venc-printed")["series"];
  ASSERT_EQ(cpu.size(), 2U);
  EXPECT_EQ(cpu[0]["name"], "A: run");
  EXPECT_EQ(cpu[1]["name"], "B: other");
  EXPECT_EQ(cpu[0]["colour"], cpu[1]["colour"]);
  EXPECT_NE(cpu[0]["colour"], venc[0]["colour"]);
  EXPECT_EQ(visit.Chart("total-0")["series"][0]["colour"], cpu[0]["colour"]);
  EXPECT_EQ(visit.Chart("total-1")["series"][2]["colour"], venc[0]["colour"]);
  EXPECT_EQ(cpu[0]["dash"], json::array());
  EXPECT_NE(cpu[1]["dash"], json::array());
  EXPECT_NE(cpu[0]["marker"], cpu[1]["marker"]);
  EXPECT_EQ(venc[2]["name"], "B: other, printed");
  EXPECT_EQ(venc[2]["dash"], cpu[1]["dash"]);
}

// An engine keeps its colour if another one is missing.
TEST_F(ReportInBrowser, AnEngineHasTheSameColourOnEveryPage) {
  scope::Run run = made_run::Run();
  const std::string all = Open(run).Chart("venc-rate")["series"][0]["colour"];
  std::filesystem::remove_all(folder_ / "run");
  run.samples.erase(std::remove_if(run.samples.begin(), run.samples.end(),
                                   [](const auto& sample) { return sample.engine != "venc"; }),
                    run.samples.end());
  run.rates.clear();
  EXPECT_EQ(Open(run).Chart("venc-rate")["series"][0]["colour"], all);
}

TEST_F(ReportInBrowser, ShowsTheBandwidthOfAllRunsOnCommonAxes) {
  scope::Run other = made_run::Run();
  for (scope::Sample& sample : other.samples) sample.bytes = *sample.bytes * 2;
  const Visit visit = Open(made_run::Run(), other);
  const json series = visit.Chart("totals")["series"];
  ASSERT_EQ(series.size(), 2U);
  EXPECT_EQ(series[0]["name"], "A: run");
  EXPECT_NEAR(series[0]["points"][0][1].get<double>(), 14.642, 1e-3);
  EXPECT_NEAR(series[1]["points"][0][1].get<double>(), 29.2845, 1e-3);
  EXPECT_GE(visit.Chart("totals")["top"], 29.2845);
  EXPECT_EQ(visit.Chart("total-0")["top"], visit.Chart("total-1")["top"]);
}

TEST_F(ReportInBrowser, TakesWhatRunsSayAsWords) {
  const std::string hostile =
      "</script><script>throw 1</script><!--<img src=\"http://outside.example/a.png\" onerror=\"throw 2\">"
      "&amp; ' \xe2\x80\xa8 \x1b[31m \x01";
  const std::string shown = "</script><script>throw 1</script><!--<img src=\"http://outside.example/a.png\"";
  scope::Run other = made_run::Run();
  other.info.label = other.info.config.text = other.info.config.path = hostile;
  other.info.conditions.cpuModel = other.info.conditions.governor = other.info.incompleteReason = hostile;
  other.info.config.levels.emplace_back(hostile, 1);
  other.info.counters.back().reason = hostile;
  other.info.complete = false;
  other.counters.front().name = hostile;
  const Visit visit = Open(made_run::Run(), other);
  EXPECT_THAT(visit.console, IsEmpty());
  EXPECT_THAT(visit.requests, IsEmpty());
  EXPECT_THAT(visit.page["title"].get<std::string>(), HasSubstr(shown));
  EXPECT_THAT(visit.Row("conditions", {"≠ Label"})[2], HasSubstr(shown));
  EXPECT_THAT(visit.Row("conditions", {"≠ CPU"})[2], HasSubstr(shown));
  EXPECT_THAT(visit.Row("conditions", {"≠ Levels"})[2], HasSubstr(shown));
  EXPECT_THAT(visit.Chart("counter-1-0")["series"][0]["name"].get<std::string>(), HasSubstr(shown));
  EXPECT_THAT(visit.Text(), HasSubstr("absent: " + shown));
  EXPECT_THAT(visit.dom, Not(HasSubstr("<img")));
}

TEST_F(ReportInBrowser, DrawsRateLinesAlone) {
  scope::Run run = made_run::Run();
  run.info.kind = "rates";
  run.info.conditions = {};
  run.info.counters.clear();
  run.counters.clear();
  const Visit visit = Open(run);
  ExpectGood(visit, {"cpu-printed", "vpc-printed", "venc-printed", "aic-printed"});
  EXPECT_THAT(visit.Text(),
              AllOf(HasSubstr("recorded without the meter"), HasSubstr("None were looked for")));
  EXPECT_THAT(visit.Row("conditions", {"CPU"}), ElementsAre("CPU", "not known"));
  EXPECT_THAT(visit.Row("figures", {"vpc"}), AllOf(Contains("250.0"), Contains("–").Times(10)));
}

TEST_F(ReportInBrowser, OfNothingSaysSo) {
  scope::Run run;
  run.info.kind = "record";
  const Visit visit = Open(run);
  ExpectGood(visit, {});
  EXPECT_THAT(visit.Text(), HasSubstr("Nothing was recorded: neither an operation nor a rate line."));
}

// A changed page is not drawn: its policy allows only the original script.
TEST_F(ReportInBrowser, ItsPolicyRefusesAnotherScript) {
  made_run::Write(made_run::Run(), folder_ / "run");
  (void)Page({folder_ / "run"});
  std::string page = folder_.Get("report.html");
  const std::size_t at = page.find("'use strict';");
  ASSERT_NE(at, std::string::npos);
  page.insert(at, "console.log('changed');");
  const Visit visit = Read(folder_.Put("changed.html", page));
  EXPECT_THAT(visit.console, ElementsAre(HasSubstr("Content Security Policy")));
  EXPECT_THAT(visit.page["charts"], IsEmpty());
}

// Shows that the other tests can fail.
TEST_F(ReportInBrowser, SeesErrorsRequestsAndEmptyCharts) {
  const std::string page =
      "<!DOCTYPE html><canvas id=\"empty\"></canvas>"
      "<img src=\"http://outside.example/a.png\"><script>"
      "window.Chart = {getChart: () => ({data: {datasets: [{borderColor: '#0072b2'}]}})};"
      "console.log('a word'); throw new Error('a fault');</script>";
  const Visit visit = Read(folder_.Put("bad.html", Measured(page)));
  EXPECT_THAT(visit.console, Contains(HasSubstr("a word")));
  EXPECT_THAT(visit.console, Contains(HasSubstr("a fault")));
  EXPECT_THAT(visit.requests, ElementsAre("http://outside.example/a.png"));
  EXPECT_EQ(visit.Chart("empty")["drawn"], 0);
}

}  // namespace
