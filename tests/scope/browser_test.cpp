// The page of a report, looked at in a browser: its charts are drawn, it says nothing on the console, and it
// asks for nothing from outside. A screenshot of each page stays in the build folder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>

#include "made_run.h"
#include "run_tool.h"
#include "temporary_folder.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// Put at the end of the page: counts, on every canvas, the pixels that have the colour of one of its lines.
constexpr const char* kMeasure = R"(<script>
for (const canvas of document.querySelectorAll('canvas')) {
  const colours = Chart.getChart(canvas).data.datasets.map((set) => set.borderColor.match(/[0-9a-f]{2}/g));
  const wanted = colours.map((parts) => parts.map((part) => parseInt(part, 16)));
  const pixels = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
  let drawn = 0;
  for (let at = 0; at < pixels.length; at += 4) {
    drawn += pixels[at + 3] > 200 && wanted.some((colour) => colour.every((part, i) => Math.abs(part - pixels[at + i]) < 16));
  }
  canvas.dataset.drawn = drawn;
}
</script>)";

// What a browser saw of a page.
struct Visit {
  std::string dom;
  std::vector<std::string> console;  ///< every line that the page wrote there, errors of the browser included
  std::vector<std::string> requests;  ///< addresses that the page, not the browser, asked for
};

class BrowserTest : public ::testing::Test {
 protected:
  // Opens `page`; the screenshot is `height` pixels high.
  Visit Open(const std::string& page, const std::string& name, int height) const {
    const std::string screenshot = std::string(SCREENSHOTS) + "/" + name + ".png";
    const std::string netLog = folder_ / "net.json";
    fs::create_directories(SCREENSHOTS);
    fs::remove(screenshot);
    fs::remove(netLog);
    const ToolResult result = RunProgram(
        CHROMIUM,
        {"--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--user-data-dir=" + (folder_ / "profile"), "--host-resolver-rules=MAP * ~NOTFOUND",
         "--log-net-log=" + netLog, "--enable-logging=stderr", "--virtual-time-budget=3000",
         "--hide-scrollbars", "--window-size=1400," + std::to_string(height), "--screenshot=" + screenshot,
         "--dump-dom", "file://" + page});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_TRUE(fs::exists(screenshot)) << result.errors;
    Visit visit;
    visit.dom = result.output;
    std::istringstream lines(result.errors);
    for (std::string line; std::getline(lines, line);) {
      if (line.find(":CONSOLE:") != std::string::npos) visit.console.push_back(line);
    }
    visit.requests = Requests(netLog);
    return visit;
  }

  // Of a request that the browser makes for itself the log says that its initiator is "not an origin", or one
  // of the browser's maker; pages in files have the origin "null".
  static std::vector<std::string> Requests(const std::string& netLog) {
    std::ifstream file(netLog);
    const nlohmann::json log = nlohmann::json::parse(file);
    const int start = log["constants"]["logEventTypes"]["URL_REQUEST_START_JOB"];
    std::vector<std::string> requests;
    for (const nlohmann::json& event : log["events"]) {
      // The end of a request has no address.
      if (event["type"] != start || !event.contains("params") || !event["params"].contains("url")) continue;
      const std::string initiator = event["params"].value("initiator", "null");
      if (initiator == "null") requests.push_back(event["params"]["url"]);
    }
    return requests;
  }

  // Canvas to the pixels that are drawn on it.
  static std::map<std::string, int> Drawn(const std::string& dom) {
    std::map<std::string, int> drawn;
    const std::regex canvas("<canvas id=\"([^\"]+)\"[^>]*>");
    const std::regex count("data-drawn=\"([0-9]+)\"");
    for (std::sregex_iterator at(dom.begin(), dom.end(), canvas); at != std::sregex_iterator(); ++at) {
      std::smatch pixels;
      const std::string tag = at->str();
      drawn[(*at)[1]] = std::regex_search(tag, pixels, count) ? std::stoi(pixels[1]) : -1;
    }
    return drawn;
  }

  // The report of `folders`, with what measures it.
  std::string Page(std::vector<std::string> folders) const {
    const std::string file = folder_ / "report.html";
    folders.insert(folders.begin(), "report");
    folders.insert(folders.end(), {"-o", file});
    const ToolResult result = RunProgram(STRESS_SCOPE, folders);
    EXPECT_EQ(result.status, 0) << result.errors;
    std::ofstream(file, std::ios::app) << kMeasure;
    return file;
  }

  void ExpectGood(const Visit& visit, std::size_t charts) const {
    EXPECT_THAT(visit.console, IsEmpty());
    EXPECT_THAT(visit.requests, IsEmpty());
    const std::map<std::string, int> drawn = Drawn(visit.dom);
    EXPECT_THAT(drawn, SizeIs(charts));
    // A line across a chart is some hundreds of pixels long.
    for (const auto& [canvas, pixels] : drawn) EXPECT_GT(pixels, 200) << canvas;
  }

  TemporaryFolder folder_;
};

TEST_F(BrowserTest, DrawsEveryChartOfARecording) {
  made_run::Write(made_run::Run(), folder_ / "run");
  ExpectGood(Open(Page({folder_ / "run"}), "report", 5600), 22);
}

TEST_F(BrowserTest, DrawsSeveralRunsWithHostileWordsAndGaps) {
  scope::Run other = made_run::Run();
  other.info.label = "</script><script>throw 1</script><img src=\"http://outside.example/a.png\"> & more";
  other.info.config.text = other.info.label;
  other.counters.front().name = other.info.label;
  other.samples.erase(
      std::remove_if(other.samples.begin(), other.samples.end(),
                     [](const auto& sample) { return sample.timeS > 10 && sample.timeS < 20; }),
      other.samples.end());
  made_run::Write(made_run::Run(), folder_ / "run");
  made_run::Write(other, folder_ / "other");
  const Visit visit = Open(Page({folder_ / "run", folder_ / "other"}), "report_of_two", 6200);
  ExpectGood(visit, 24);
  EXPECT_THAT(visit.dom, HasSubstr("&lt;/script&gt;&lt;script&gt;throw 1"));
}

TEST_F(BrowserTest, DrawsRateLinesAlone) {
  scope::Run run = made_run::Run();
  run.info.kind = "rates";
  run.info.conditions = {};
  run.counters.clear();
  made_run::Write(run, folder_ / "run");
  const Visit visit = Open(Page({folder_ / "run"}), "report_of_rates", 2400);
  ExpectGood(visit, 4);
}

// That the others can fail.
TEST_F(BrowserTest, SeesErrorsRequestsAndEmptyCharts) {
  const std::string page =
      folder_.Put("bad.html",
                  "<!DOCTYPE html><canvas id=\"empty\"></canvas>"
                  "<img src=\"http://outside.example/a.png\"><script>"
                  "window.Chart = {getChart: () => ({data: {datasets: [{borderColor: '#0072b2'}]}})};"
                  "console.log('a word'); throw new Error('a fault');</script>" +
                      std::string(kMeasure));
  const Visit visit = Open(page, "bad", 400);
  EXPECT_THAT(visit.console, ::testing::Contains(HasSubstr("a word")));
  EXPECT_THAT(visit.console, ::testing::Contains(HasSubstr("a fault")));
  EXPECT_THAT(visit.requests, ::testing::ElementsAre("http://outside.example/a.png"));
  EXPECT_EQ(Drawn(visit.dom)["empty"], 0);
}

}  // namespace
