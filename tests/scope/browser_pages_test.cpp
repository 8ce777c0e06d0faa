// SPDX-License-Identifier: Apache-2.0

// The pages of comparisons and of sweeps in a browser, and what else the machine did beneath the curves of a
// run. The screenshots and prints stay in the build folder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "browser.h"
#include "made_curve.h"
#include "made_matrix.h"
#include "made_run.h"
#include "pages.h"
#include "sweep_folder.h"
#include "sweep_plan.h"
#include "synthetic_run.h"

namespace {

using browser::Visit;
using nlohmann::json;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

const std::string kHostile =
    "</script><script>throw 1</script><!--<img src=\"http://outside.example/a.png\" onerror=\"throw "
    "2\">&amp; '";

void ExpectQuiet(const Visit& visit) {
  EXPECT_THAT(visit.console, IsEmpty());
  EXPECT_THAT(visit.requests, IsEmpty());
}

void AddMachine(scope::Run& run, double othersCpus) {
  for (int second = 2; second <= 41; ++second) {
    const double time = second;
    run.counters.push_back({time, "load", "others", "CPUs", second == 20 ? 1.5 : othersCpus});
    run.counters.push_back({time, "load", "steal", "CPUs", 0.05});
    run.counters.push_back({time, "pressure", "cpu", "%", 12});
    run.counters.push_back({time, "pressure", "io", "%", 1});
    run.counters.push_back({time, "cpufreq", "cpu0", "MHz", 2900.0 - second});
    run.counters.push_back({time, "cpufreq", "cpu1", "MHz", 3000});
  }
}

// Two wrong copies, a change of guarded memory, and a counter that grew by 3.
void AddErrors(scope::Run& run) {
  scope::RunError error;
  error.source = "cpu";
  error.timeS = 12.5;
  error.thread = 1;
  error.operation = 55;
  error.what = "copy";
  error.offset = 4096;
  error.address = "0x7f0000001000";
  error.expected = "0x00";
  error.found = "0x10";
  error.bits = 1;
  run.errors = {error, error};
  run.errors[1].timeS = 14.25;
  run.errors[1].operation = 77;
  error.thread.reset();
  error.operation.reset();
  error.source = "guard";
  error.timeS = 25;
  error.what = "event";
  run.errors.push_back(error);
  scope::RunError counted;
  counted.source = "edac";
  counted.timeS = 30;
  counted.what = "corrected";
  counted.note = "3 more of mc0/ce_count";
  run.errors.push_back(counted);
  run.info.errors = {{"cpu", 2}, {"guard", 1}, {"edac", 3}};
  run.info.guard.bytes = 1 << 20;
  run.info.guard.errors = 1;
}

class PagesInBrowser : public browser::BrowserTest {
 protected:
  // Runs whose copies do these operations a second and thread.
  std::string Side(const std::string& name, const std::vector<std::uint64_t>& operations,
                   const std::string& governor, std::uint64_t failures = 0) const {
    int number = 0;
    for (const std::uint64_t each : operations) {
      scope::Run run = made_run::Run();
      run.info.conditions.governor = governor;
      run.info.counters.push_back({"edac", true, ""});
      for (scope::Sample& sample : run.samples) {
        if (sample.engine == "venc" && sample.timeS == 30) sample.failures = failures;
        if (sample.engine != "cpu") continue;
        sample.operations = sample.operations * each / 400;
        sample.bytes = *sample.bytes * each / 400;
      }
      AddMachine(run, 0.1);
      made_run::Write(run, folder_ / (name + "/" + std::to_string(++number)));
    }
    return folder_ / name;
  }

  std::vector<std::string> Comparison() const {
    return {"compare", Side("a", {400, 402, 398, 401}, "performance"),
            Side("b", {380, 381, 378, 383}, "powersave", 3), "--allow", "governor"};
  }

  // A finished sweep. The bandwidth of the copies saturates; the encoders take from them.
  std::string Sweep(const std::vector<std::string>& levels, int repeats,
                    const std::string& name = "sweep") const {
    scope::Sweep sweep;
    sweep.started = "2026-11-21T04:00:00Z";
    sweep.axes = scope::ParseAxes(levels);
    sweep.settings.repeats = repeats;
    sweep.runs = scope::PlanRuns(sweep.axes, repeats, 1);
    for (scope::SweepRun& run : sweep.runs) {
      const int cpu = run.levels[0].second;
      const int venc = run.levels.size() > 1 ? run.levels[1].second : 1;
      const double share = cpu < 3 ? cpu / 3.0 : 1 + 0.01 * (cpu - 3);
      std::vector<SyntheticEngine> engines(2);
      engines[0].operationsPerS = (4000 * share - 300 * venc) * (1 + 0.002 * run.repeat);
      engines[1] = engines[0];
      engines[1].engine = "venc";
      engines[1].stress = "kivuVencStress";
      engines[1].operationsPerS = 400 * venc;
      if (venc == 0) engines.pop_back();
      WriteRun(folder_ / (name + "/" + run.folder), engines);
      run.state = scope::SweepState::kDone;
    }
    scope::WriteSweep(folder_ / name, sweep);
    return folder_ / name;
  }
};

TEST_F(PagesInBrowser, TheLatencyOfMemoryIsDrawn) {
  scope::Run run = made_run::Run();
  made_run::AddLatency(run);
  made_run::Write(run, folder_ / "run");
  const Visit visit = Open(Page({folder_ / "run"}), "report_with_latency", 1280, 5600);
  ExpectQuiet(visit);
  const json lines = visit.Chart("memory-latency")["series"];
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0]["name"], "p50");
  EXPECT_EQ(lines[3]["name"], "max");
  EXPECT_EQ(lines[0]["points"][1], json::parse("[2.1, 150]"));
  EXPECT_TRUE(lines[0]["points"][19][1].is_null()) << "all bursts were interrupted";
  EXPECT_EQ(visit.Chart("memory-growth")["series"][0]["points"],
            json::parse("[[1, 9], [64, 90], [256, 100]]"));
  for (const json& chart : visit.page["charts"]) EXPECT_GT(chart["drawn"], 200) << chart["id"];
}

TEST_F(PagesInBrowser, TheMachineIsDrawnBeneathTheCurvesOfARun) {
  scope::Run run = made_run::Run();
  AddMachine(run, 0.1);
  AddErrors(run);
  made_run::Write(run, folder_ / "run");
  const std::string page = Page({folder_ / "run"},
                                "extra = ['total-0', 'load-0', 'pressure-0', 'errors-0', 'temperature-0', "
                                "'frequency-0'].map((id) => {"
                                "const {top, bottom} = document.getElementById(id).getBoundingClientRect();"
                                "const {left, right} = Chart.getChart(id).chartArea;"
                                "return {top, bottom, left: Math.round(left), right: Math.round(right)};});");
  const Visit visit = Open(page, "report_with_machine", 1280, 2000);
  ExpectQuiet(visit);
  const json places = visit.page["extra"];
  for (std::size_t i = 1; i != places.size(); ++i) {
    EXPECT_GT(places[i]["top"], places[i - 1]["bottom"]);
    EXPECT_EQ(places[i]["left"], places[0]["left"]) << "the same second is at the same place";
    EXPECT_EQ(places[i]["right"], places[0]["right"]);
  }
  const json load = visit.Chart("load-0")["series"];
  ASSERT_EQ(load.size(), 2U);
  EXPECT_EQ(load[0]["name"], "others");
  EXPECT_EQ(load[0]["points"][18], json::parse("[20, 1.5]"));
  EXPECT_EQ(load[1]["name"], "steal");
  EXPECT_EQ(visit.Chart("load-0")["marks"],
            json::parse(R"([{"x": 25, "text": "2"}, {"x": 20, "text": "3"}])"))
      << "guarded memory changed, and disturbed";
  EXPECT_EQ(visit.Chart("errors-0")["marks"], visit.Chart("load-0")["marks"]);
  EXPECT_EQ(visit.Chart("cpu-rate")["marks"], json::parse(R"([{"x": 12.5, "text": "1"}])"))
      << "its first error";
  EXPECT_EQ(visit.Chart("total-0")["marks"].size(), 3U) << "all of them";
  EXPECT_GT(visit.Chart("errors-0")["cautions"], 50) << "marks are drawn";
  const json errors = visit.Chart("errors-0")["series"];
  ASSERT_EQ(errors.size(), 3U);
  EXPECT_EQ(errors[0]["name"], "cpu");
  EXPECT_EQ(errors[0]["points"], json::parse("[[0, 0], [12.5, 1], [14.25, 2], [41.2, 2]]"));
  EXPECT_EQ(errors[1]["name"], "guard");
  EXPECT_EQ(errors[2]["name"], "edac");
  EXPECT_EQ(errors[2]["points"], json::parse("[[0, 0], [30, 3], [41.2, 3]]")) << "a counter grew by 3";
  EXPECT_EQ(errors[0]["stepped"], true);
  const json temperature = visit.Chart("temperature-0")["series"];
  ASSERT_EQ(temperature.size(), 2U);
  EXPECT_EQ(temperature[1]["name"], "hottest");
  EXPECT_EQ(temperature[1]["points"][9], json::parse("[10, 51]"));
  EXPECT_THAT(visit.Text(), HasSubstr("Errors\n\n6 in all.\n\nguard: 1 MiB of memory"));
  EXPECT_THAT(visit.Row("errors", {"cpu", "14.250", "1", "77"}),
              ElementsAre("cpu", "14.250", "1", "77", "copy", "4096", "0x7f0000001000", "–", "0x00", "0x10",
                          "1", "–"));
  EXPECT_EQ(visit.Row("errors", {"edac", "30.000"}).back(), "3 more of mc0/ce_count");
  ASSERT_EQ(visit.Chart("pressure-0")["series"].size(), 2U) << "memory was not recorded";
  const json frequency = visit.Chart("frequency-0")["series"];
  EXPECT_EQ(frequency[0]["points"][0], json::parse("[2, 2898]"));
  EXPECT_EQ(frequency[1]["points"][0], json::parse("[2, 3000]"));
  for (const json& chart : visit.page["charts"]) EXPECT_GT(chart["drawn"], 200) << chart["id"];
  const std::vector<std::string> ids = visit.ChartIds();
  EXPECT_THAT(std::vector<std::string>(ids.end() - 2, ids.end()), ElementsAre("counter-0-0", "counter-0-1"))
      << "frequency of each CPU and temperature, but not what is above";
}

constexpr const char* kBars =
    "extra = {bars: [...document.querySelectorAll('.verdicts tbody .bar')].map((bar) => ({words: "
    "bar.getAttribute('aria-label'), kind: bar.querySelector('.interval')?.classList[1] ?? '', value: "
    "Number(bar.querySelector('.value')?.getAttribute('cx') ?? -1), colour: "
    "getComputedStyle(bar.querySelector('.value') ?? bar).fill, band: "
    "bar.querySelector('.band').getAttribute('width')})),"
    " answer: getComputedStyle(document.querySelector('.answer')).borderLeftColor,"
    " fits: document.documentElement.scrollWidth <= innerWidth,"
    " repeats: [1500, 9999, 10000].map((repeats) => verdictText({verdict: 'cannot tell', repeats, note: "
    "''})),"
    " legend: Chart.getChart('cpu-rate').legend.legendItems.map(({text}) => text)};";

TEST_F(PagesInBrowser, AComparisonShowsItsVerdictsAndTheRunsOfBothSides) {
  const std::string page = PageOf(Comparison(), kBars, 1);
  const Visit visit = Open(page, "comparison_1280_light", 1280, 6400);
  ExpectQuiet(visit);
  EXPECT_THAT(visit.page["title"].get<std::string>(), HasSubstr("stress_scope: worse: "));
  EXPECT_THAT(
      visit.Text(),
      AllOf(HasSubstr("B is worse than A: cpu ops -4.9"), HasSubstr("/a (4 runs)\n\nB: "),
            HasSubstr("Errors: no error in 4 runs of A: failure rate below 0.75 per run, 95 %.\n"),
            HasSubstr("Intervals of 99 %; those of the 5 judged figures together: 95 %."),
            HasSubstr("The band is the tolerance, ±2 %"), HasSubstr("B is worse\nvenc: operations failed"),
            HasSubstr("Lines of A are solid, those of B are dashed.")));
  EXPECT_THAT(visit.Row("conditions", {"governor"}), ElementsAre("governor", "performance", "powersave"));
  const std::vector<std::string> ops = visit.Row("figures verdicts two", {"cpu", "ops (op/s)", "", "worse"});
  ASSERT_EQ(ops.size(), 9U);
  EXPECT_THAT(ops[4], AllOf(HasSubstr("−4.9"), HasSubstr(" %")));
  EXPECT_EQ(ops[7], "800.5");
  EXPECT_THAT(visit.Row("figures verdicts two", {"vpc", "ops (op/s)"}), Contains("no difference"));

  const json bars = visit.page["extra"]["bars"];
  ASSERT_GT(bars.size(), 5U);
  EXPECT_THAT(bars[0]["words"].get<std::string>(), AllOf(HasSubstr("−4.9"), HasSubstr(", from −")));
  EXPECT_EQ(bars[0]["kind"], "bad");
  EXPECT_LT(bars[0]["value"], 110) << "left of 0";
  EXPECT_EQ(bars[0]["colour"], "rgb(179, 38, 30)");
  EXPECT_EQ(visit.page["extra"]["answer"], "rgb(179, 38, 30)");
  EXPECT_EQ(visit.page["extra"]["repeats"],
            json({"cannot tell: 1,500 repeats would", "cannot tell: 9,999 repeats would",
                  "cannot tell: more than 9,999 repeats would"}));

  EXPECT_EQ(visit.page["extra"]["legend"], json::parse(R"(["A", "B"])"));
  const json rate = visit.Chart("cpu-rate")["series"];
  ASSERT_EQ(rate.size(), 8U);
  EXPECT_EQ(rate[3]["name"], "A: 4");
  EXPECT_EQ(rate[4]["name"], "B: 1");
  for (const json& series : rate) {
    EXPECT_EQ(series["colour"], "#0072b2ff");
    EXPECT_EQ(series["dash"].empty(), series["name"].get<std::string>()[0] == 'A') << series["name"];
  }
  const std::vector<std::string> ids = visit.ChartIds();
  EXPECT_THAT(std::vector<std::string>(ids.begin(), ids.begin() + 3),
              ElementsAre("totals", "loads", "cpu-rate"));
  EXPECT_EQ(visit.Chart("loads")["series"].size(), 8U);
  EXPECT_NEAR(visit.Chart("loads")["series"][0]["points"][0][1].get<double>(), 0.15, 1e-9);
  for (const json& chart : visit.page["charts"]) EXPECT_GT(chart["drawn"], 200) << chart["id"];
}

TEST_F(PagesInBrowser, AComparisonIsDarkFitsAPhoneAndIsPrintedLight) {
  const std::string page = PageOf(Comparison(), kBars, 1);
  const Visit dark = Open(page, "comparison_1280_dark", 1280, 6400, true);
  EXPECT_EQ(dark.page["extra"]["answer"], "rgb(255, 138, 128)");
  EXPECT_EQ(dark.page["extra"]["bars"][0]["colour"], "rgb(255, 138, 128)");
  for (const bool isDark : {false, true}) {
    const Visit phone =
        Open(page, isDark ? "comparison_390_dark" : "comparison_390_light", 390, 9000, isDark);
    ExpectQuiet(phone);
    EXPECT_EQ(phone.page["extra"]["fits"], true);
    for (const json& chart : phone.page["charts"]) EXPECT_GT(chart["drawn"], 100) << chart["id"];
  }
  EXPECT_THAT(Print(page, "comparison_printed"), HasSubstr("MediaBox [0 0 594.9"));
}

// A run a side has no interval; a figure of one side alone has no difference.
TEST_F(PagesInBrowser, AComparisonTakesWhatRunsSayAsWordsAndShowsWhatIsMissing) {
  scope::Run run = made_run::Run();
  made_run::Write(run, folder_ / "a");
  run.info.conditions.cpuModel = run.info.conditions.governor = kHostile;
  run.info.config.text = run.info.config.path = run.info.label = kHostile;
  run.samples.erase(std::remove_if(run.samples.begin(), run.samples.end(),
                                   [](const auto& sample) { return sample.engine == "venc"; }),
                    run.samples.end());
  made_run::Write(run, folder_ / "b <img src=x>");
  const std::string page = PageOf({"compare", folder_ / "a", folder_ / "b <img src=x>", "--force"}, kBars, 1);
  const Visit visit = Read(page);
  ExpectQuiet(visit);
  EXPECT_THAT(visit.page["title"].get<std::string>(), HasSubstr("b <img src=x>"));
  EXPECT_THAT(visit.Row("conditions", {"cpu_model"})[2],
              HasSubstr("</script><script>throw 1</script><!--<img"));
  EXPECT_THAT(visit.dom, Not(HasSubstr("<img")));
  EXPECT_THAT(visit.Text(), HasSubstr("No intervals and no verdicts: they need two runs a side or more."));
  const std::vector<std::string> gone = visit.Row("figures verdicts two", {"venc", "ops (op/s)"});
  ASSERT_EQ(gone.size(), 9U);
  EXPECT_EQ(gone[3], "worse: B does not have it");
  EXPECT_EQ(gone[4], "–");
  EXPECT_EQ(gone[8], "–");
  EXPECT_EQ(visit.page["extra"]["bars"][0]["kind"], "") << "a dot without an interval";
}

constexpr const char* kMap =
    "extra = {fits: document.documentElement.scrollWidth <= innerWidth,"
    " colours: [...document.querySelector('.heat').querySelectorAll('td')].map((cell) => "
    "getComputedStyle(cell).backgroundColor),"
    " bars: [...document.querySelectorAll('.saturations .interval')].map((line) => line.classList[1])};";

TEST_F(PagesInBrowser, ASweepOfTwoSectionsIsAMap) {
  const std::string page = PageOf({"report", Sweep({"CPU=1..5", "VENC=0..2"}, 3)}, kMap);
  const Visit visit = Open(page, "sweep_map_1280_light", 1280, 2600);
  ExpectQuiet(visit);
  EXPECT_THAT(visit.ChartIds(), IsEmpty());
  EXPECT_THAT(visit.Row("heat", {"", "VENC=0"}), ElementsAre("", "VENC=0", "VENC=1", "VENC=2"));
  EXPECT_EQ(visit.Row("heat", {"CPU=5"})[3], "8.588best");
  EXPECT_EQ(visit.Row("heat", {"CPU=3"})[2], "8.230saturates");
  const json colours = visit.page["extra"]["colours"];
  EXPECT_NE(colours[0], colours[12]);
  EXPECT_THAT(visit.Row("figures saturations", {"cpu"}),
              ElementsAre("cpu", "CPU=3 VENC=0", "8.032", "CPU=5 VENC=0", "8.192", ""));
  EXPECT_THAT(visit.Text(),
              AllOf(HasSubstr("The bandwidth of cpu saturates at CPU=3 VENC=0: 8.032 GB/s, within 5 % of "
                              "the best, 8.192 GB/s at CPU=5 VENC=0. The repeats put it at"),
                    Not(HasSubstr("ncertainty not known")), HasSubstr("Notes\n\nNone.")));
  EXPECT_EQ(visit.page["extra"]["bars"], json::parse(R"(["good", "good"])"));
  EXPECT_THAT(visit.Row("figures points two", {}), IsEmpty());

  const Visit dark = Open(page, "sweep_map_1280_dark", 1280, 2600, true);
  EXPECT_NE(dark.page["extra"]["colours"], colours);
  for (const bool isDark : {false, true}) {
    const Visit phone = Open(page, isDark ? "sweep_map_390_dark" : "sweep_map_390_light", 390, 4200, isDark);
    EXPECT_EQ(phone.page["extra"]["fits"], true);
  }
  EXPECT_THAT(Print(page, "sweep_map_printed"), HasSubstr("MediaBox [0 0 594.9"));
}

TEST_F(PagesInBrowser, ASweepOfOneSectionIsACurveWithTheRunsAsDots) {
  const std::string page = PageOf({"report", Sweep({"CPU=1..5"}, 4)});
  const Visit visit = Open(page, "sweep_curve_1280_light", 1280, 1800);
  ExpectQuiet(visit);
  EXPECT_THAT(visit.ChartIds(), ElementsAre("curve"));
  const json series = visit.Chart("curve")["series"];
  ASSERT_EQ(series.size(), 6U);
  EXPECT_EQ(series[0]["name"], "cpu");
  EXPECT_EQ(series[0]["colour"], "#0072b2ff");
  EXPECT_EQ(series[0]["points"].size(), 5U);
  EXPECT_EQ(series[3]["name"], "cpu, a run");
  EXPECT_EQ(series[3]["points"].size(), 20U);
  EXPECT_EQ(series[3]["showLine"], false);
  EXPECT_EQ(visit.Chart("curve")["marks"], json::parse(R"([{"x": 3, "text": "saturates"}])"));
  EXPECT_GT(visit.Chart("curve")["drawn"], 500);
  EXPECT_THAT(visit.Row("figures points", {"5", "4"})[2], HasSubstr(" ("));
}

// Two points are compared; with one run each, nothing is certain.
TEST_F(PagesInBrowser, ASweepOfSingleRunsSaysThatTheUncertaintyIsNotKnown) {
  const std::string folder = Sweep({"CPU=3,4"}, 1, "sweep <img src=x>");
  const Visit visit = Read(PageOf({"report", folder}));
  ExpectQuiet(visit);
  EXPECT_THAT(visit.dom, Not(HasSubstr("<img")));
  EXPECT_THAT(visit.Text(), AllOf(HasSubstr("Uncertainty not known: sweep with --repeat 4."),
                                  HasSubstr("sweep <img src=x>"), HasSubstr("Comparison of the two points"),
                                  HasSubstr("Cannot tell: one run a side")));
  EXPECT_THAT(visit.Row("figures saturations", {"cpu", "CPU=3"}), Contains("not known"));
}

// Texts of a chart, and how many of them lie on another one, or on a point, a line or an interval. A curve
// whose points are almost in one place is drawn and taken away again.
constexpr const char* kTextsOfCharts = R"(
const isInside = ({left, right, top, bottom}, [x, y]) => left < x && x < right && top < y && y < bottom;
const steps = Array.from({length: 400}, (_, i) => i / 399);
const along = ([x1, y1], [x2, y2]) => steps.map((share) => [x1 + share * (x2 - x1), y1 + share * (y2 - y1)]);
const textsOf = (chart) => {
  const {marks, rows} = chart.options.plugins.pointTexts;
  const {x, y} = chart.scales;
  const at = (toX, toY) => [x.getPixelForValue(toX), y.getPixelForValue(toY)];
  const placed = [...placeMarks(chart, marks).filter(({box}) => box), ...placePointTexts(chart, marks, rows)];
  const ink = chart.data.datasets.flatMap(({data}) => data.flatMap((point, i) => [
    ...along(at(point.x, point.y), at((data[i + 1] ?? point).x, (data[i + 1] ?? point).y)),
    ...along(at(point.x, point.low ?? point.y), at(point.x, point.high ?? point.y)),
    ...along(at(point.xLow ?? point.x, point.y), at(point.xHigh ?? point.x, point.y))]));
  const corners = ({left, right, top, bottom}) => [0, 0.5, 1].flatMap((share) => along([left, top + share * (bottom - top)],
    [right, top + share * (bottom - top)]));
  const ofPoints = placed.filter(({text}) => !/^(knee|saturation)/.test(text));
  return {texts: placed.map(({text}) => text), leaders: ofPoints.filter(({leader}) => leader).length,
    onOthers: placed.filter(({box}) => placed.some((other) => other.box !== box && corners(box).some((corner) => isInside(other.box, corner)))).length,
    onInk: ofPoints.filter(({box}) => ink.some((spot) => isInside(box, spot))).length,
    onMarks: placed.filter(({box}) => placed.some(({line}) => line && along([line.x1, line.y1], [line.x2, line.y2]).some((spot) => isInside(box, spot)))).length};
};
const crowd = JSON.parse(JSON.stringify(kData.curves[0]));
crowd.points.slice(2).forEach((point, i) => Object.assign(point, {gb_per_s: 9 + 0.12 * i, gb_per_s_low: 7, gb_per_s_high: 9.9,
  latency_p50_ns: 150 + 3 * i, latency_p50_ns_low: 140, latency_p50_ns_high: 190}));
crowd.knee = {gb_per_s: 9.3};
crowd.saturation = {...crowd.saturation, gb_per_s: 9.35};
const frame = document.createElement('div');
const canvas = document.createElement('canvas');
frame.style.width = '900px';
frame.style.height = '400px';
frame.append(canvas);
document.body.append(frame);
draw(canvas, curvesCharts({curves: [crowd]})[0], false);
const crowded = textsOf(Chart.getChart(canvas));
Chart.getChart(canvas).destroy();
frame.remove();
)";

// Two curves and how they compare, on one page.
TEST_F(PagesInBrowser, CurvesShareAxesAndSayWhereTheyDiffer) {
  made_curve::Write(folder_ / "fast", made_curve::Queue, 2);
  made_curve::Write(folder_ / "slow", made_curve::SlowQueue, 2);
  const std::string page =
      PageOf({"compare", folder_ / "fast", folder_ / "slow"},
             std::string(kTextsOfCharts) +
                 "const {options, data} = Chart.getChart('latency');"
                 "const point = data.datasets[0].data[3];"
                 "const line = {dataset: {label: 'A'}, parsed: {y: point.y}, raw: point};"
                 "extra = {fits: document.documentElement.scrollWidth <= innerWidth,"
                 " crowded, shared: textsOf(Chart.getChart('latency')),"
                 " titles: [options.scales.x.title.text, options.scales.y.title.text],"
                 " ground: getComputedStyle(document.body).backgroundColor,"
                 " heights: ['idle', 'saturation'].map((place) => [...document.querySelectorAll("
                 "'.verdicts tbody tr')].find((row) => row.textContent.startsWith(place)).offsetHeight),"
                 " tip: options.plugins.tooltip.callbacks.label(line),"
                 " colours: options.plugins.warningMarks.marks.map(({colour}) => colour),"
                 " reach: options.scales.x.max - Math.max(...data.datasets.flatMap((set) =>"
                 " set.data.map(({xHigh}) => xHigh ?? 0)))};",
             1);
  const Visit visit = Open(page, "curves_1280_light", 1280, 3400);
  ExpectQuiet(visit);
  EXPECT_THAT(visit.ChartIds(), ElementsAre("latency", "tails"));
  const json chart = visit.Chart("latency");
  ASSERT_EQ(chart["series"].size(), 2U);
  EXPECT_EQ(chart["series"][0]["name"], (folder_ / "fast") + " (CPU)");
  EXPECT_EQ(chart["series"][0]["colour"], "#0072b2ff");
  EXPECT_EQ(chart["series"][1]["colour"], "#d55e00ff");
  EXPECT_NE(chart["series"][0]["marker"], chart["series"][1]["marker"]);
  EXPECT_NE(chart["series"][0]["dash"], chart["series"][1]["dash"]);
  EXPECT_EQ(chart["series"][0]["points"].size(), 10U);
  EXPECT_EQ(chart["series"][0]["points"][0][0], 0);
  EXPECT_NEAR(chart["series"][0]["points"][0][1].get<double>(), 100, 1e-6);
  EXPECT_EQ(chart["marks"].size(), 4U);
  EXPECT_EQ(chart["marks"][1]["text"], "saturation 1");
  EXPECT_EQ(visit.page["extra"]["colours"], json::parse(R"(["#0072b2", "#0072b2", "#d55e00", "#d55e00"])"));
  EXPECT_EQ(visit.page["extra"]["titles"],
            json({"Bandwidth of all engines (GB/s)", "Latency of an access to memory (ns)"}));
  EXPECT_EQ(visit.page["extra"]["tip"], "A: 113 (CPU=1 at 33.3 %)");
  EXPECT_GE(visit.page["extra"]["reach"].get<double>(), 0) << "intervals are within the axis";
  for (const char* const which : {"shared", "crowded"}) {
    const json seen = visit.page["extra"][which];
    for (const char* const what : {"onOthers", "onInk", "onMarks"}) EXPECT_EQ(seen[what], 0) << which << what;
    EXPECT_THAT(seen["texts"].get<std::vector<std::string>>(),
                which == std::string("shared") ? AllOf(Contains("saturation 2"), Contains("CPU=1 at 11.1 %"))
                                               : AllOf(Contains("knee"), Contains("idle")));
  }
  EXPECT_GE(visit.page["extra"]["crowded"]["texts"].size(), 10U) << "two marks and most of ten points";
  EXPECT_GT(visit.page["extra"]["crowded"]["leaders"], 3);
  EXPECT_EQ(visit.page["extra"]["shared"]["leaders"], 0) << "they would lead to points of another curve";
  EXPECT_GT(chart["drawn"], 500);
  EXPECT_EQ(visit.Chart("tails")["series"].size(), 4U);
  EXPECT_EQ(visit.Row("figures verdicts two", {"idle"})[3], "worse");
  EXPECT_EQ(visit.Row("figures verdicts two", {"At"})[1], "Figure");
  const json heights = visit.page["extra"]["heights"];
  EXPECT_EQ(heights[0], heights[1]) << "no place is broken within its word";
  EXPECT_EQ(visit.Row("figures points", {"CPU=1 at 33.3 %"})[2], "4 (4 to 4)");
  EXPECT_EQ(visit.Row("figures points", {"CPU=1 at 33.3 %"}).back(), "4 %");
  EXPECT_THAT(visit.Text(), AllOf(HasSubstr("B is worse than A"), HasSubstr("Idle latency: 100.0 ns"),
                                  HasSubstr("1.5 times that at idle"),
                                  HasSubstr("The latency is that of 256 MiB in pages of 2 MiB, CPU 1.")));
  EXPECT_EQ(visit.page["extra"]["fits"], true);

  const Visit dark = Open(page, "curves_1280_dark", 1280, 3400, true);
  EXPECT_EQ(dark.page["extra"]["ground"], "rgb(18, 22, 26)");
  EXPECT_EQ(dark.page["extra"]["titles"], visit.page["extra"]["titles"]);
  for (const json& drawn : dark.page["charts"]) EXPECT_GT(drawn["drawn"], 500) << drawn["id"];
  EXPECT_NE(dark.Chart("latency")["series"][0]["colour"], chart["series"][0]["colour"]) << "to be seen there";
  EXPECT_THAT(Print(page, "curves_printed"), HasSubstr("MediaBox [0 0 594.9"));
}

constexpr const char* kForest =
    "const colourOf = (element) => getComputedStyle(element).stroke;"
    "extra = {fits: document.documentElement.scrollWidth <= innerWidth,"
    " drawings: document.querySelectorAll('.forest tr .value').length,"
    " words: document.querySelectorAll('.forest .bar')[1].getAttribute('aria-label'),"
    " colours: ['in-all', 'by-memory', 'by-cpu'].map((kind) => colourOf(document.querySelector(`.forest "
    ".interval.${kind}`))),"
    " marked: [...document.querySelectorAll('.heat .marked')].map((cell) => cell.firstChild.textContent),"
    " width: document.querySelectorAll('.forest .bar')[1].getBoundingClientRect().width};";

TEST_F(PagesInBrowser, AMatrixDrawsEachSlowdownWithItsInterval) {
  scope::MatrixTable table = made_matrix::Table();
  table.notes.push_back(kHostile);
  const std::string page =
      folder_.Put("matrix.html",
                  Measured(scope::MatrixPage("who <img src=x>", made_matrix::Plan(), table, false), kForest));
  const Visit visit = Open(page, "matrix_1280_light", 1280, 2400);
  ExpectQuiet(visit);
  EXPECT_THAT(visit.dom, Not(HasSubstr("<img")));
  EXPECT_THAT(visit.Row("heat", {"Aggressors"}), ElementsAre("Aggressors", "latency", "VPC=1"));
  EXPECT_THAT(visit.Row("heat", {"CPU=2"}),
              ElementsAre("CPU=2", "no control", "+30.0 %+23.5 % to +36.5 %in all +56.0 %"));
  EXPECT_THAT(visit.Row("heat", {"VENC=1"}), ElementsAre("VENC=1", "", HasSubstr("+1.0 %")));
  EXPECT_THAT(visit.Row("figures matrix slowdowns two", {"VPC=1", "CPU=2 VENC=1"}),
              ElementsAre("VPC=1", "CPU=2 VENC=1", "+100.0 % (+90.0 % to +110.0 %)",
                          "+60.0 % (+52.0 % to +68.0 %)", "+25.0 % (+18.8 % to +31.3 %)", "68 % (60 to 76)"));
  EXPECT_THAT(visit.Row("figures matrix values two", {"VPC=1", "CPU=2 VENC=1"}),
              ElementsAre("VPC=1", "CPU=2 VENC=1", "1000.0", "800.0", "500.0", "2.00 µs (2.00 µs to 2.00 µs)",
                          "2.50 µs (2.50 µs to 2.50 µs)", "4.00 µs (4.00 µs to 4.00 µs)", "1.20", "1.10"));
  EXPECT_THAT(visit.Row("figures matrix slowdowns two", {"latency", "CPU=2"}),
              ElementsAre("latency", "CPU=2", "+80.0 % (+71.0 % to +89.0 %)", "–", "–", "–"));
  EXPECT_THAT(visit.Row("figures matrix values two", {"latency", "CPU=2"}),
              ElementsAre("latency", "CPU=2", "100 ns", "–", "180 ns", "2.00 µs (2.00 µs to 2.00 µs)", "–",
                          "3.60 µs (3.60 µs to 3.60 µs)", "1.20", "–"));
  EXPECT_THAT(visit.Text(), AllOf(HasSubstr("Memory slows VPC=1 most beside CPU=2 VENC=1"),
                                  HasSubstr("not done: 4 of 24 runs"), HasSubstr("throw 1"),
                                  HasSubstr("20 runs, warm-up 1 s, incomplete"),
                                  HasSubstr("1.6 times by memory are 2 times in all"),
                                  HasSubstr("The latency is that of 256 MiB in pages of 2 MiB, CPU 3."),
                                  HasSubstr("parts of this memory: 1 MiB 9 ns, 256 MiB 100 ns.")));
  const json seen = visit.page["extra"];
  EXPECT_EQ(seen["drawings"], 5 * 3 - 2);
  EXPECT_EQ(seen["words"],
            "In all +152.5 %, +139.9 % to +165.1 %; By memory +150.0 %, +137.5 % to +162.5 %; "
            "By CPU +1.0 %, −4.1 % to +6.0 %");
  EXPECT_EQ(seen["colours"], json::parse(R"X(["rgb(27, 31, 36)", "rgb(0, 114, 178)", "rgb(213, 94, 0)"])X"));
  EXPECT_EQ(seen["marked"], json::parse(R"(["+150.0 %", "+60.0 %", "+30.0 %"])"));
  EXPECT_EQ(seen["fits"], true);
  EXPECT_GT(seen["width"], 400);
  const Visit phone = Open(page, "matrix_390_dark", 390, 4000, true);
  EXPECT_EQ(phone.page["extra"]["fits"], true);
  EXPECT_EQ(phone.page["extra"]["colours"],
            json::parse(R"X(["rgb(227, 231, 235)", "rgb(89, 163, 205)", "rgb(240, 149, 90)"])X"));
  EXPECT_THAT(Print(page, "matrix_printed"), HasSubstr("MediaBox [0 0 594.9"));
}

// Two settings: what fails is one corner of the map.
TEST_F(PagesInBrowser, ASweepOverSettingsIsAMarginMap) {
  scope::Sweep sweep;
  sweep.started = "2026-11-21T04:00:00Z";
  sweep.boardAxes = {{"refresh", {"100", "200", "300"}}, {"vref", {"7", "8", "9"}}};
  sweep.margin.apply = "./set";
  sweep.margin.edge = true;
  sweep.margin.chosen = {{"refresh", "200"}, {"vref", "7"}};
  sweep.runs = scope::PlanRuns({}, 1, 1, sweep.boardAxes);
  for (std::size_t i = 0; i < sweep.runs.size(); ++i) {
    scope::SweepRun& run = sweep.runs[i];
    SyntheticEngine cpu;
    cpu.operationsPerS = 500 + 10.0 * static_cast<double>(i);
    if (i != 7) WriteRun(folder_ / ("sweep/" + run.folder), {cpu});
    run.state = i == 7 ? scope::SweepState::kHung : scope::SweepState::kDone;
    if (i == 5 || i == 7) run.reason = i == 5 ? "2 errors (cpu 2)" : "<img src=x> hangs";
  }
  sweep.runs[8].state = scope::SweepState::kPlanned;
  scope::WriteSweep(folder_ / "sweep", sweep);
  const std::string page =
      PageOf({"report", folder_ / "sweep"},
             "extra = {fits: document.documentElement.scrollWidth <= innerWidth,"
             " marked: [...document.querySelectorAll('.map .marked')].map((cell) => cell.textContent),"
             " kinds: [...document.querySelectorAll('.map td')].map((cell) => cell.className)};");
  const Visit visit = Open(page, "margin_1280_light", 1280, 2200);
  ExpectQuiet(visit);
  EXPECT_THAT(visit.dom, Not(HasSubstr("<img")));
  EXPECT_THAT(visit.Row("margin map", {"refresh=200"}),
              ElementsAre("refresh=200", "pass 1/11.060 GB/s", "pass 1/11.080 GB/s", "fail 1/11.100 GB/s"));
  EXPECT_THAT(visit.Row("margin map", {"refresh=300"}),
              ElementsAre("refresh=300", "pass 1/11.120 GB/s", "hang 1/1", "(fail)"));
  EXPECT_EQ(visit.page["extra"]["marked"], json::parse(R"(["pass 1/11.060 GB/s"])"));
  EXPECT_EQ(visit.page["extra"]["kinds"][8], "bad inferred");
  EXPECT_THAT(visit.Row("figures margin", {"refresh=300 vref=7"}), Contains("+5.66 %"));
  EXPECT_THAT(visit.Text(), AllOf(HasSubstr("vref towards 9: passes to 8, 1 step away; 9 fails."),
                                  HasSubstr("<img src=x> hangs"), HasSubstr("2 errors (cpu 2)"),
                                  Not(HasSubstr("Saturation"))));
  EXPECT_EQ(Open(page, "margin_390_dark", 390, 3600, true).page["extra"]["fits"], true);
}

}  // namespace
