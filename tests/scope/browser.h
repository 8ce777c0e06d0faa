// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "run_tool.h"
#include "temporary_folder.h"

/// Opens pages in headless Chromium and reports what they show.
namespace browser {

// This script at the end of the page collects its tables and charts. On every canvas it counts the pixels
// that have the colour of a line.
constexpr const char* kMeasure = R"(<script nonce="measure">
const isNear = (pixels, at) => (colour) => colour.every((part, i) => Math.abs(part - pixels[at + i]) < 16);
const charts = [...document.querySelectorAll('canvas')].map((canvas) => {
  const sets = Chart.getChart(canvas).data.datasets;
  const wanted = sets.map((set) => set.borderColor.match(/[0-9a-f]{2}/g).slice(0, 3).map((part) => parseInt(part, 16)));
  const pixels = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
  let drawn = 0;
  for (let at = 0; at < pixels.length; at += 4) drawn += pixels[at + 3] > 200 && wanted.some(isNear(pixels, at));
  const series = sets.map((set) => ({name: set.label, colour: set.borderColor, dash: set.borderDash,
    marker: set.pointStyle, stepped: set.stepped, showLine: set.showLine, spansGaps: set.spanGaps, points: (set.data ?? []).map((point) => [point.x, point.y])}));
  const marks = Chart.getChart(canvas).options?.plugins.warningMarks.marks.map(({x, text}) => ({x, text}));
  let cautions = 0; // pixels of the marks
  for (let at = 0; at < pixels.length; at += 4) cautions += pixels[at + 3] > 100 && isNear(pixels, at)([0xb3, 0x26, 0x1e]);
  const area = Chart.getChart(canvas).chartArea;
  const scale = canvas.width / canvas.clientWidth;
  // The background near the left and the right end of the chart, above the lines.
  const opacityAt = (x) => pixels[(Math.round((area.top + 3) * scale) * canvas.width + Math.round(x * scale)) * 4 + 3];
  const shades = area ? [0.03, 0.97].map((share) => opacityAt(area.left + share * area.width)) : [];
  const top = Chart.getChart(canvas).scales?.y.max;
  return {id: canvas.id, drawn, series, shades, marks, cautions, top};
});
const rowsOf = (table) => [...table.rows].map((row) => [...row.cells].map((cell) => cell.textContent));
const tables = [...document.querySelectorAll('table')].map((table) => ({kind: table.className, rows: rowsOf(table)}));
const measured = document.createElement('script');
measured.type = 'application/json';
measured.id = 'measured';
measured.textContent = JSON.stringify({title: document.title, text: document.body.innerText, charts, tables, extra})
  .replaceAll('<', '\\u003c');
document.body.append(measured);
</script>)";

/// What a browser saw of a page.
struct Visit {
  std::vector<std::string> console;   ///< every line on the console, with errors of the browser
  std::vector<std::string> requests;  ///< addresses that the page, not the browser, asked for
  std::string dom;
  nlohmann::json page;  ///< what kMeasure found; null if it did not run

  const nlohmann::json& Chart(const std::string& id) const {
    static const nlohmann::json kNone;
    for (const nlohmann::json& chart : page["charts"]) {
      if (chart["id"] == id) return chart;
    }
    ADD_FAILURE() << "no chart " << id;
    return kNone;
  }

  std::vector<std::string> ChartIds() const {
    std::vector<std::string> ids;
    for (const nlohmann::json& chart : page["charts"]) ids.push_back(chart["id"]);
    return ids;
  }

  std::string Text() const { return page["text"]; }

  /// The row of the table of this kind that begins with these cells; empty if there is none.
  std::vector<std::string> Row(const std::string& kind, const std::vector<std::string>& begin) const {
    for (const nlohmann::json& table : page["tables"]) {
      if (table["kind"] != kind) continue;
      for (const nlohmann::json& cells : table["rows"]) {
        const auto row = cells.get<std::vector<std::string>>();
        if (row.size() >= begin.size() && std::equal(begin.begin(), begin.end(), row.begin())) return row;
      }
    }
    return {};
  }
};

class BrowserTest : public ::testing::Test {
 protected:
  // Opens `page`. The screenshot, `width` and `height` pixels large, stays in the build folder.
  Visit Open(const std::string& page, const std::string& name, int width, int height,
             bool dark = false) const {
    const std::string screenshot = folder_ / (name + ".png");
    std::filesystem::create_directories(SCREENSHOTS);
    const Visit visit = Read(page, width, height, dark, {"--screenshot=" + screenshot});
    EXPECT_TRUE(std::filesystem::exists(screenshot));
    Keep(screenshot, name + ".png");
    return visit;
  }

  // The same without a screenshot, which takes as long as the rest.
  Visit Read(const std::string& page, int width = 1280, int height = 800, bool dark = false,
             std::vector<std::string> options = {}) const {
    const std::string netLog = folder_ / "net.json";
    std::filesystem::remove(netLog);
    std::vector<std::string> flags = Flags();
    flags.insert(flags.end(), options.begin(), options.end());
    flags.insert(flags.end(), {"--log-net-log=" + netLog, "--enable-logging=stderr", "--hide-scrollbars",
                               "--window-size=" + std::to_string(width) + "," + std::to_string(height),
                               std::string("--blink-settings=preferredColorScheme=") + (dark ? "0" : "1"),
                               "--dump-dom", "file://" + page});
    const ToolResult result = RunProgram(CHROMIUM, flags);
    EXPECT_EQ(result.status, 0) << result.errors;
    Visit visit;
    visit.dom = result.output;
    std::istringstream lines(result.errors);
    for (std::string line; std::getline(lines, line);) {
      if (line.find(":CONSOLE:") != std::string::npos) visit.console.push_back(line);
    }
    visit.requests = Requests(netLog);
    const std::string begin = "id=\"measured\">";
    const std::size_t at = result.output.rfind(begin);
    if (at != std::string::npos) {
      const std::size_t from = at + begin.size();
      visit.page = nlohmann::json::parse(result.output.substr(from, result.output.find('<', from) - from));
    }
    return visit;
  }

  // Puts a picture into the build folder. Tests that run at the same time may give the same name.
  static void Keep(const std::string& picture, const std::string& name) {
    if (!std::filesystem::exists(picture)) return;
    const std::string kept = std::string(SCREENSHOTS) + "/" + name;
    const std::string own = kept + "." + std::to_string(getpid());
    std::filesystem::copy_file(picture, own, std::filesystem::copy_options::overwrite_existing);
    std::filesystem::rename(own, kept);
  }

  // Prints `page` into the build folder. Returns the PDF.
  std::string Print(const std::string& page, const std::string& name) const {
    const std::string file = std::string(SCREENSHOTS) + "/" + name + ".pdf";
    std::filesystem::remove(file);
    std::vector<std::string> flags = Flags();
    flags.insert(flags.end(), {"--no-pdf-header-footer", "--print-to-pdf=" + file, "file://" + page});
    const ToolResult result = RunProgram(CHROMIUM, flags);
    EXPECT_EQ(result.status, 0) << result.errors;
    std::ostringstream pdf;
    pdf << std::ifstream(file, std::ios::binary).rdbuf();
    return pdf.str();
  }

  // Runs `script`, which may set `extra`, and then kMeasure at the end of `page`. The page's policy is
  // bypassed.
  static std::string Measured(std::string page, const std::string& script = {}) {
    const std::string policy = "script-src ";
    const std::size_t at = page.find(policy);
    if (at != std::string::npos) page.insert(at + policy.size(), "'nonce-measure' ");
    return page + "<script nonce=\"measure\">let extra = null; " + script + "</script>" + kMeasure;
  }

  // The page that stress_scope writes with these arguments, with `script` and what measures it.
  std::string PageOf(std::vector<std::string> arguments, const std::string& script = {},
                     int status = 0) const {
    const std::string file = folder_ / "report.html";
    arguments.insert(arguments.end(), {"-o", file});
    const ToolResult result = RunProgram(STRESS_SCOPE, arguments);
    EXPECT_EQ(result.status, status) << result.errors;
    return folder_.Put("report.html", Measured(folder_.Get("report.html"), script));
  }

  // The report of `folders`, with `script` and what measures it.
  std::string Page(std::vector<std::string> folders, const std::string& script = {}) const {
    folders.insert(folders.begin(), "report");
    return PageOf(std::move(folders), script);
  }

  TemporaryFolder folder_;

 private:
  std::vector<std::string> Flags() const {
    return {"--headless",
            "--no-sandbox",
            "--disable-gpu",
            "--disable-dev-shm-usage",
            "--disable-quic",
            "--no-first-run",
            "--disable-background-networking",
            "--disable-component-update",
            "--disable-sync",
            "--user-data-dir=" + (folder_ / "profile"),
            "--host-resolver-rules=MAP * ~NOTFOUND",
            "--virtual-time-budget=3000"};
  }

  // Pages in files have the origin "null". Requests of the browser itself have the initiator "not an origin"
  // or an origin of the browser's maker.
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
};

}  // namespace browser
