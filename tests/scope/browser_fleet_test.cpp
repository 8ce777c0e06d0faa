// SPDX-License-Identifier: Apache-2.0

// The page of a fleet in a browser: what it says first, the drawings, the field that finds a board, a phone,
// and hostile names.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "browser.h"
#include "made_fleet.h"

namespace {

using browser::Visit;
using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const std::string kNight = "9<script>throw 1<img src=x onerror=throw(2)>&amp;'";

// The script works the field and the button, and looks at the widths of the page on the screen and on paper.
constexpr const char* kUse = R"({
  const rows = () => document.querySelectorAll('.boards tbody tr').length;
  const field = document.querySelector('input[type=search]');
  const before = rows();
  document.querySelector('button.more').click();
  const more = rows();
  field.value = 'b17';
  field.dispatchEvent(new Event('input'));
  const found = [...document.querySelectorAll('.boards tbody th')].map((cell) => cell.textContent);
  field.value = '';
  field.dispatchEvent(new Event('input'));
  // The last board by name is not among the first rows that are drawn.
  const byName = document.querySelector('.boards thead button');
  byName.click();
  byName.click();
  const sorted = document.querySelector('.boards tbody th').textContent;
  const fits = document.documentElement.scrollWidth <= innerWidth;
  const box = document.querySelector('svg.history .band').getBBox();
  dispatchEvent(new Event('beforeprint'));
  const paper = document.querySelector('main').getBoundingClientRect().width;
  dispatchEvent(new Event('afterprint'));
  extra = {before, more, found, sorted, fits, millimetres: Math.round(paper / 96 * 25.4), histories: document.querySelectorAll('svg.history').length,
    sparks: document.querySelectorAll('svg.spark .course').length,
    first: document.querySelector('main .answer').textContent,
    dots: document.querySelectorAll('svg.history')[0].querySelectorAll('circle').length,
    band: box.height > 5};})";

class FleetLook : public browser::BrowserTest {
 protected:
  // The browser's reader of XML is a strict one. Adds what it finds in the test report.
  std::string Xml() const {
    std::string text = json(folder_.Get("fleet.xml")).dump();
    for (std::size_t at = 0; (at = text.find('<', at)) != std::string::npos;) text.replace(at, 1, "\\u003c");
    return "{const xml = new DOMParser().parseFromString(" + text + R"(, 'application/xml');
      const all = (name) => [...xml.querySelectorAll(name)];
      extra.xml = {bad: all('parsererror').length, root: xml.documentElement.tagName, tests: all('testsuite > testcase').length,
        said: all('testsuite')[0].getAttribute('tests'), failed: all('testcase > failure').map((one) => one.parentNode.getAttribute('name')),
        errors: all('testcase > error').map((one) => one.getAttribute('message')), class: all('testcase')[0].getAttribute('classname')};})";
  }
};

// On a phone, in dark mode; a browser that is started again takes a second.
TEST_F(FleetLook, SaysFirstWhatNeedsALook) {
  MadeFleet fleet(3, {205, 0, 1}, {0.7, 1, true});
  for (int night = 1; night <= 4; ++night)
    fleet.Write(folder_ / ("nights/" + (night == 4 ? kNight : std::to_string(night))), night == 4);
  std::filesystem::remove_all(folder_ / ("nights/" + kNight + "/cell-0007"));
  const std::string wrong = "nights/" + kNight + "/cell-0009/cell.json";
  json cell = json::parse(folder_.Get(wrong));
  cell["errors"]["edac"] = 3;
  folder_.Put(wrong, cell.dump());
  EXPECT_EQ(RunProgram(STRESS_SCOPE, {"fleet", folder_ / "nights", "--junit", folder_ / "fleet.xml"}).status,
            1);
  const std::string page = PageOf({"fleet", folder_ / "nights"}, kUse + Xml(), 1);
  const Visit visit = Open(page, "fleet_390_dark", 390, 3000, true);
  EXPECT_THAT(visit.console, IsEmpty());
  EXPECT_THAT(visit.requests, IsEmpty());
  ASSERT_FALSE(visit.page.is_null());
  const json& seen = visit.page["extra"];
  EXPECT_EQ(seen["before"], 200);
  EXPECT_EQ(seen["more"], 205);
  EXPECT_EQ(seen["found"],
            (json{"b17", "b170", "b171", "b172", "b173", "b174", "b175", "b176", "b177", "b178", "b179"}));
  EXPECT_EQ(seen["sorted"], "b204");
  EXPECT_EQ(seen["fits"], true);
  EXPECT_GE(seen["histories"], 5);
  EXPECT_GE(seen["sparks"], 200);
  EXPECT_EQ(seen["dots"], 4);
  EXPECT_EQ(seen["band"], true);
  EXPECT_EQ(seen["millimetres"], 186);
  EXPECT_EQ(seen["first"], kNight +
                               ": 3 of 205 boards to look at: 1 with errors, 1 odd, 1 without runs; 1 of 205 "
                               "cells not done");
  const json xml = {{"bad", 0},
                    {"root", "testsuites"},
                    {"tests", 206},
                    {"said", "206"},
                    {"failed", {"b0", "b8"}},
                    {"errors", {"no runs in this night"}},
                    {"class", "fleet." + kNight}};
  EXPECT_EQ(seen["xml"], xml);
  EXPECT_THAT(visit.Text(), HasSubstr("odd: cpu ops/s at CPU=1 is "));
  EXPECT_EQ(visit.Row("figures boards", {"b6"}).at(1), "no runs");
  EXPECT_EQ(visit.Row("nights", {"1"}), (std::vector<std::string>{"1", "205", "205", "0", "yes"}));
  EXPECT_EQ(visit.Row("nights", {kNight}), (std::vector<std::string>{kNight, "205", "204", "3", "yes"}));
  EXPECT_EQ(visit.Row("figures boards", {"b8"}).at(1), "errors");
  const std::string line = "cell 9 (b8: CPU=1, repeat 1) done, with 3 errors (edac 3); see cell-0009";
  EXPECT_EQ(visit.Row("errors", {"9"}), (std::vector<std::string>{"9", "b8", line}));
  EXPECT_THAT(visit.Text(), HasSubstr("b8 errors"));
}

}  // namespace
