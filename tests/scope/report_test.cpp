#include "report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "embedded.h"
#include "made_run.h"
#include "run_warnings.h"

namespace {

using scope::ReportedRun;
using scope::ReportPage;
using scope::ReportText;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

ReportedRun Reported(scope::Run run, const std::string& name) {
  ReportedRun reported;
  reported.run = std::move(run);
  reported.summary = scope::Summarise(reported.run);
  reported.warnings = scope::Warnings(reported.run, reported.summary);
  reported.name = name;
  return reported;
}

nlohmann::json ChartsOf(const std::string& page) {
  const std::string begin = "id=\"chart-data\">";
  const std::size_t from = page.find(begin) + begin.size();
  return nlohmann::json::parse(page.substr(from, page.find('<', from) - from));
}

std::vector<std::string> IdsOf(const std::string& page) {
  std::vector<std::string> ids;
  for (const auto& chart : ChartsOf(page)) ids.push_back(chart["id"]);
  return ids;
}

TEST(ReportPage, HasEveryChartOfARecording) {
  const std::string page = ReportPage({Reported(made_run::Run(), "one")});
  std::vector<std::string> expected = {"total-0"};
  for (const char* engine : {"cpu", "vpc", "venc", "aic"}) {
    for (const char* chart : {"-rate", "-bandwidth", "-latency", "-histogram", "-printed"}) {
      expected.push_back(std::string(engine) + chart);
    }
  }
  expected.emplace_back("counter-0-0");
  EXPECT_EQ(IdsOf(page), expected);
  for (const std::string& id : expected) EXPECT_THAT(page, HasSubstr("<canvas id=\"" + id + "\""));
}

TEST(ReportPage, ItsPointsAreTheFigures) {
  const nlohmann::json charts = ChartsOf(ReportPage({Reported(made_run::Run(), "one")}));
  const nlohmann::json& rate = charts[1];
  EXPECT_EQ(rate["id"], "cpu-rate");
  ASSERT_EQ(rate["series"][0]["points"].size(), std::size_t{made_run::kWholeSeconds});
  EXPECT_EQ(rate["series"][0]["points"][0], nlohmann::json::parse("[2, 800]"));
  EXPECT_EQ(charts[2]["series"][0]["points"][0][1], 13.271);
  EXPECT_EQ(charts[2]["yTitle"], "Bandwidth (GB/s)");
  const nlohmann::json& latency = charts[3];
  EXPECT_EQ(latency["yTitle"], "Latency (\xc2\xb5s)");
  EXPECT_EQ(latency["series"][1]["name"], "p99");
  EXPECT_EQ(latency["series"][1]["points"][0][1], 500);
  double share = 0;
  for (const auto& point : charts[4]["series"][0]["points"]) share += point[1].get<double>();
  EXPECT_DOUBLE_EQ(share, 100);
}

TEST(ReportPage, ALineHasAGapWhereSamplesAreMissing) {
  scope::Run run = made_run::Run();
  run.samples.erase(std::remove_if(run.samples.begin(), run.samples.end(),
                                   [](const auto& sample) { return sample.timeS > 10 && sample.timeS < 14; }),
                    run.samples.end());
  const nlohmann::json charts = ChartsOf(ReportPage({Reported(run, "one")}));
  EXPECT_EQ(charts[1]["series"][0]["points"][9], nlohmann::json::parse("[14, null]"));
  EXPECT_EQ(charts[0]["series"][0]["points"][9], nlohmann::json::parse("[14, null]"));
}

TEST(ReportPage, LoadsNothing) {
  const std::string page = ReportPage({Reported(made_run::Run(), "one")});
  EXPECT_THAT(
      page, HasSubstr("content=\"default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; "
                      "img-src data:\">"));
  for (const char* reference : {" src=", "@import", "url(", "href=\"h", "href=\"/"}) {
    std::string own = page;
    own.erase(own.find(scope::ChartsLibrary()), scope::ChartsLibrary().size());
    EXPECT_THAT(own, Not(HasSubstr(reference)));
  }
}

TEST(ReportPage, CarriesTheChartsLibraryWithItsLicence) {
  const std::string page = ReportPage({Reported(made_run::Run(), "one")});
  EXPECT_THAT(page, HasSubstr(std::string(scope::ChartsLibrary())));
  EXPECT_EQ(scope::ChartsLibrary().find("</script"), std::string_view::npos);
  EXPECT_THAT(page, HasSubstr("permission notice shall be"));
}

TEST(ReportPage, TakesWhatRunsSayAsWords) {
  const std::string hostile = "</script><script>alert(1)</script><!-- & \" ' \xff";
  scope::Run run = made_run::Run();
  run.info.label = hostile;
  run.info.config.text = hostile;
  run.info.conditions.cpuModel = hostile;
  run.info.counters[1].reason = hostile;
  run.notes = {hostile};
  run.counters[0].name = hostile;
  run.samples.push_back(run.samples.back());
  run.samples.back().engine = hostile;
  const std::string page = ReportPage({Reported(run, hostile), Reported(run, hostile)});
  EXPECT_THAT(page, Not(HasSubstr("<script>alert")));
  EXPECT_THAT(page, Not(HasSubstr("</script><!--")));
  EXPECT_THAT(page, HasSubstr("&lt;/script&gt;&lt;script&gt;alert(1)"));
  const nlohmann::json charts = ChartsOf(page);
  EXPECT_THAT(charts[0]["series"].back()["name"].get<std::string>(), HasSubstr("</script><script>alert(1)"));
}

TEST(ReportPage, ShowsSeveralRunsInEachChartAndWhatDiffers) {
  scope::Run other = made_run::Run();
  other.info.conditions.governor = "performance";
  const std::string page = ReportPage({Reported(made_run::Run(), "A: one"), Reported(other, "B: two")});
  const nlohmann::json charts = ChartsOf(page);
  EXPECT_EQ(charts[0]["id"], "total-0");
  EXPECT_EQ(charts[1]["id"], "total-1");
  EXPECT_EQ(charts[0]["yMax"], charts[1]["yMax"]);
  EXPECT_EQ(charts[2]["series"].size(), 2U);
  EXPECT_NE(charts[2]["series"][0]["colour"], charts[2]["series"][1]["colour"]);
  EXPECT_NE(charts[2]["series"][0]["marker"], charts[2]["series"][1]["marker"]);
  EXPECT_THAT(
      page,
      HasSubstr("<tr class=\"differs\"><th scope=\"row\"><span title=\"differs\">&ne;</span> Governor"));
  EXPECT_THAT(page, Not(HasSubstr("&ne;</span> CPU<")));
}

TEST(ReportPage, SaysWhatIsAbsentFromARunOfRateLines) {
  scope::Run run = made_run::Run();
  run.info.kind = "rates";
  run.info.conditions = {};
  run.info.counters.clear();
  run.samples.clear();
  run.histogram.clear();
  run.counters.clear();
  const std::string page = ReportPage({Reported(run, "one")});
  EXPECT_THAT(IdsOf(page),
              ::testing::ElementsAre("cpu-printed", "vpc-printed", "venc-printed", "aic-printed"));
  EXPECT_THAT(page, AllOf(HasSubstr("recorded without the meter"), HasSubstr("not known"),
                          HasSubstr("None were looked for")));
}

TEST(ReportPage, OfNothingSaysSo) {
  EXPECT_THAT(ReportPage({Reported({}, "one")}), HasSubstr("Nothing was recorded"));
  EXPECT_THAT(ReportText({Reported({}, "one")}), HasSubstr("nothing was recorded"));
}

TEST(Report, ShowsEachWarningOnThePageAndInTheText) {
  scope::Run run = made_run::Run();
  EXPECT_THAT(ReportPage({Reported(run, "one")}), Not(HasSubstr("drifting")));
  run.info.conditions.buildType = "Debug";
  for (scope::Sample& sample : run.samples) {
    if (sample.engine == "venc") sample.operations = 100 - static_cast<std::uint64_t>(sample.timeS);
  }
  for (int second = 1; second <= 40; ++second) {
    run.counters.push_back({static_cast<double>(second), "throttle", "cpu0", "events", 7.0 + second});
  }
  const std::string page = ReportPage({Reported(run, "one")});
  const std::string text = ReportText({Reported(run, "one")});
  for (const char* words : {"cpu: 100 % of the operations take less than a millisecond",
                            "venc: the rate is still drifting at the end",
                            "for debugging: its figures are not those of a release",
                            "throttle: cpu0: throttled 39 times during the run"}) {
    EXPECT_THAT(page, HasSubstr(words));
    EXPECT_THAT(text, HasSubstr(words));
  }
}

TEST(ReportText, HasTheFiguresOfEachEngineAndTheWarnings) {
  const std::string text = ReportText({Reported(made_run::Run(), "one")});
  EXPECT_THAT(
      text,
      HasSubstr("  cpu            2      32000      800.0   13.271  500.00 us  500.00 us  500.00 us       "
                "0        0.00      2000.0\n"));
  EXPECT_THAT(text, HasSubstr("  all                                      14.642\n"));
  EXPECT_THAT(text, HasSubstr("  warning: cpu: 100 % of the operations"));
  EXPECT_THAT(text, HasSubstr("A Processor, 4 CPUs, 8.0 GB, Release build, load average 0.20"));
}

}  // namespace
