// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <regex>

#include "made_run.h"
#include "page_json.h"
#include "run_warnings.h"

namespace {

using scope::ReportedRun;
using scope::ReportPage;
using scope::ReportText;
using ::testing::HasSubstr;
using ::testing::Not;

ReportedRun Reported(scope::Run run, const std::string& name) {
  ReportedRun reported;
  reported.run = std::move(run);
  reported.summary = scope::Summarise(Completed(reported.run));
  reported.warnings = scope::Warnings(reported.run, reported.summary);
  reported.name = name;
  return reported;
}

nlohmann::json DataOf(const std::vector<ReportedRun>& runs) {
  return ::DataOf(ReportPage(runs));
}

TEST(ReportPage, ItsDataAreTheFigures) {
  const nlohmann::json data = DataOf({Reported(made_run::Run(), "one")});
  EXPECT_EQ(data["engines"][0],
            nlohmann::json::parse(
                R"({"name": "cpu", "title": "CPU: memory copies", "colour": "#0072b2", "load": true})"));
  const nlohmann::json& run = data["runs"][0];
  EXPECT_EQ(run["name"], "one");
  EXPECT_EQ(run["duration_s"], 41.2);
  EXPECT_EQ(run["engines"].size(), 4U);
  const nlohmann::json& cpu = run["engines"][0];
  EXPECT_EQ(cpu["work"]["operations"], 32000);
  EXPECT_EQ(cpu["threads"][1]["work"]["ops"], 400);
  EXPECT_EQ(cpu["seconds"]["time_s"].size(), std::size_t{made_run::kWholeSeconds + 2});
  EXPECT_EQ(cpu["first_whole"], 1);
  EXPECT_EQ(cpu["end_whole"], made_run::kWholeSeconds + 1);
  EXPECT_EQ(cpu["seconds"]["ops"][1], 800);
  EXPECT_EQ(cpu["seconds"]["bandwidth"][1], 13.271);
  EXPECT_EQ(cpu["seconds"]["p99"][1], 500);
  EXPECT_EQ(cpu["histogram"]["low_ns"], nlohmann::json::parse("[499000, 499000]"));
  EXPECT_EQ(cpu["histogram"]["operations"], nlohmann::json::parse("[16000, 16000]"));
  EXPECT_EQ(run["printed"][1]["fps"][5], 250);
  EXPECT_EQ(run["counter_series"][0]["value"][9], 51);
}

TEST(Report, HasTheLatencyOfMemory) {
  scope::Run run = made_run::Run();
  EXPECT_THAT(ReportText({Reported(run, "one")}, 200), Not(HasSubstr("latency of memory")));
  made_run::AddLatency(run);
  const std::string text = ReportText({Reported(run, "one")}, 200);
  EXPECT_THAT(
      text,
      HasSubstr("latency of memory: p50 150 ns, p99 400 ns, p99.9 600 ns, mean 161 ns (medians of 38 seconds "
                "under load), longest 34.0 us\n"));
  EXPECT_THAT(text,
              HasSubstr("over 256 MiB in pages of 2 MiB, CPU 3; its own load 2 MB/s, 0.014 % of the engines' "
                        "bytes; 8 of 328 bursts interrupted\n"));
  EXPECT_THAT(text, HasSubstr("over parts of it: 1 MiB 9 ns, 64 MiB 90 ns, 256 MiB 100 ns\n"));
  EXPECT_THAT(text, AllOf(Not(HasSubstr("warning: latency")), Not(HasSubstr("real-time"))));
  scope::Run mixed = run;
  mixed.info.latency.pages = "2 MiB and 4 KiB";
  mixed.info.latency.realTimeNote = "Operation not permitted";
  mixed.info.latency.hugeBytes = std::uint64_t{192} << 20;
  EXPECT_THAT(ReportText({Reported(mixed, "one")}, 200),
              AllOf(HasSubstr("CPU 3 (75 % of it in huge pages); its own"),
                    HasSubstr("bursts interrupted; without real-time priority: Operation not permitted\n")));
  const nlohmann::json data = DataOf({Reported(run, "one")})["runs"][0];
  EXPECT_EQ(data["latency"]["growth"][1]["p50_ns"], 90);
  EXPECT_EQ(data["latency_seconds"]["p50_ns"][1], 150);
  EXPECT_EQ(data["latency_seconds"]["accesses"][19], 0);
  EXPECT_TRUE(data["latency_seconds"]["interrupts"][0].is_null());
  EXPECT_EQ(data["latency_texts"].size(), 3U);
}

TEST(Report, DoubtsALatencyThatWasMeasuredBadly) {
  scope::Run run = made_run::Run();
  made_run::AddLatency(run);
  run.info.latency.cpu = -1;
  run.info.latency.cpuNote = "Operation not permitted";
  run.info.latency.interrupted = 164;
  run.info.latency.bytesPerS = 1e9;
  run.info.latency.timerStepNs = 40;
  run.info.latency.meanNs = 163;
  run.info.conditions.caches = {{3, "Unified", std::uint64_t{64} << 20, 1}};
  EXPECT_THAT(ReportText({Reported(run, "one")}, 200), Not(HasSubstr("the largest cache")))
      << "four times it";
  run.info.conditions.caches[0].bytes += std::uint64_t{1} << 20;
  const std::string text = ReportText({Reported(run, "one")}, 200);
  EXPECT_THAT(text,
              HasSubstr("warning: latency: the probe had no CPU of its own: Operation not permitted\n"));
  EXPECT_THAT(
      text,
      HasSubstr("warning: latency: 164 of 328 bursts interrupted: the load, other programs or the host took "
                "the probe's CPU\n"));
  EXPECT_THAT(text, HasSubstr("warning: latency: the probe's own load is "));
  EXPECT_THAT(
      text,
      HasSubstr("warning: latency: the probe went through 256 MiB, and the largest cache has 65 MiB: some"));
  EXPECT_THAT(text, HasSubstr("warning: latency: the timer moves in steps of 40 ns: the mean of 163 ns"));
  run.info.latency.realTimeNote = "it is not allowed";
  EXPECT_THAT(ReportText({Reported(run, "one")}, 200),
              HasSubstr("the probe's CPU; it had no real-time priority: it is not allowed\n"));
}

TEST(ReportPage, AFigureThatARunDoesNotHaveIsNull) {
  scope::Run run = made_run::Run();
  run.histogram.clear();
  run.samples.erase(std::remove_if(run.samples.begin(), run.samples.end(),
                                   [](const auto& sample) { return sample.timeS > 10 && sample.timeS < 14; }),
                    run.samples.end());
  for (scope::Sample& sample : run.samples) {
    if (sample.engine == "vpc") sample.bytes.reset();
    if (sample.engine == "venc" && sample.timeS == 5) {
      sample = made_run::SampleOf(made_run::kEngines[2], 0, 5, 0);
    }
  }
  const nlohmann::json data = DataOf({Reported(run, "one")})["runs"][0];
  EXPECT_TRUE(data["gigabytes_per_s"].is_null());
  EXPECT_TRUE(data["engines"][0]["work"]["p50"].is_null());
  for (const char* column : {"ops", "bandwidth", "p50", "p99", "max"}) {
    const nlohmann::json& seconds = data["engines"][0]["seconds"];
    EXPECT_EQ(seconds["time_s"][10], 14);
    EXPECT_TRUE(seconds[column][10].is_null()) << column;
    EXPECT_FALSE(seconds[column][11].is_null()) << column;
  }
  EXPECT_TRUE(data["engines"][1]["seconds"]["bandwidth"][3].is_null());
  EXPECT_EQ(data["engines"][2]["seconds"]["ops"][4], 0);
  EXPECT_TRUE(data["engines"][2]["seconds"]["p50"][4].is_null());
}

TEST(ReportPage, LoadsNothing) {
  const std::string page = ReportPage({Reported(made_run::Run(), "one")});
  const std::string hash = "'sha256-[A-Za-z0-9+/]{43}='";
  EXPECT_TRUE(std::regex_search(page, std::regex("content=\"default-src 'none'; script-src " + hash + " " +
                                                 hash + "; style-src " + hash + "; img-src data:\">")));
  for (const char* reference : {" src=", "@import", "href=\"h", "href=\"/", "unsafe-inline"}) {
    EXPECT_THAT(page, Not(HasSubstr(reference)));
  }
}

TEST(ReportPage, CarriesTheChartsLibraryWithItsLicence) {
  const std::string page = ReportPage({Reported(made_run::Run(), "one")});
  EXPECT_THAT(page, HasSubstr(" * Chart.js v3"));
  EXPECT_THAT(page, HasSubstr("permission notice shall be"));
}

TEST(ReportPage, SaysThatItNeedsJavaScript) {
  const std::string page = ReportPage({Reported(made_run::Run(), "one")});
  EXPECT_THAT(page, HasSubstr("<noscript><p class=\"warnings\">This page needs JavaScript"));
}

TEST(ReportPage, NothingLeadsOutOfItsData) {
  const std::string hostile = "</script><script>alert(1)</script><!-- & \" ' \xe2\x80\xa8 \x1b \x01";
  scope::Run run = made_run::Run();
  run.info.label = run.info.config.text = run.info.conditions.cpuModel = run.info.counters[1].reason =
      hostile;
  run.notes = {hostile};
  run.counters[0].name = hostile;
  run.samples.push_back(run.samples.back());
  run.samples.back().engine = hostile;
  const std::string page = ReportPage({Reported(run, hostile), Reported(run, "\xff")});
  for (const char* text : {"<script>alert", "</script><!--", "\xe2\x80\xa8", "\x1b", "\x01"}) {
    EXPECT_THAT(page, Not(HasSubstr(text)));
  }
  const nlohmann::json data = ::DataOf(page);
  EXPECT_EQ(data["runs"][0]["label"], hostile);
  EXPECT_EQ(data["runs"][0]["counter_series"][0]["name"], hostile);
  EXPECT_EQ(data["engines"].back()["title"], hostile);
  EXPECT_EQ(data["runs"][1]["name"], "\xef\xbf\xbd");
}

TEST(ReportPage, OfNothingHasNoFigures) {
  const nlohmann::json data = DataOf({Reported({}, "one")});
  EXPECT_TRUE(data["engines"].empty());
  EXPECT_TRUE(data["runs"][0]["engines"].empty());
  EXPECT_THAT(ReportText({Reported({}, "one")}), HasSubstr("nothing was recorded"));
}

TEST(Report, ShowsEachWarningOnThePageAndInTheText) {
  scope::Run run = made_run::Run();
  EXPECT_THAT(ReportText({Reported(run, "one")}), Not(HasSubstr("drifting")));
  run.info.conditions.buildType = "Debug";
  for (scope::Sample& sample : run.samples) {
    if (sample.engine == "venc") sample.operations = 100 - static_cast<std::uint64_t>(sample.timeS);
  }
  for (int second = 1; second <= 40; ++second) {
    run.counters.push_back({static_cast<double>(second), "throttle", "cpu0", "events", 7.0 + second});
  }
  const std::string page = DataOf({Reported(run, "one")})["runs"][0]["warnings"].dump();
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
  EXPECT_THAT(text, HasSubstr("  engine  threads    ops  ops/s    GB/s      p50      p99      max  failed  "
                              "printed fps  exact fps\n"
                              "  cpu           2  32000  800.0  13.271   500 us   500 us   500 us       0  "
                              "       0.00     2000.0\n"));
  EXPECT_THAT(text, HasSubstr("  all                            14.642\n"));
  EXPECT_THAT(text, HasSubstr("  warning: cpu: 100 % of the operations"));
  EXPECT_THAT(text, HasSubstr("A Processor, 4 CPUs, 8.0 GB, Release build, load average 0.20"));
}

}  // namespace
