// SPDX-License-Identifier: Apache-2.0

// The page of a report in dark mode, on a phone, on paper, and with clicks. The screenshots and prints stay
// in the build folder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "browser.h"
#include "made_run.h"

namespace {

using browser::Visit;
using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class ReportLook : public browser::BrowserTest {
 protected:
  ReportLook() {
    made_run::Write(made_run::Run(), folder_ / "run");
    made_run::Write(made_run::Run(), folder_ / "other");
  }
};

TEST_F(ReportLook, TablesSortByTheHeadingThatIsClicked) {
  const std::string page = Page(
      {folder_ / "run"},
      "const summary = document.querySelector('.figures');"
      "const engines = () => [...summary.tBodies[0].rows].map((row) => row.cells[0].textContent).join(' ');"
      "const click = (title) => [...summary.querySelectorAll('button')].find((one) => one.textContent === "
      "title).click();"
      "extra = [engines(), ...['p50', 'p50', 'Engine', 'Off by', 'Off by'].map((title) => {click(title); "
      "return engines();})];");
  const Visit visit = Read(page);
  EXPECT_THAT(visit.console, IsEmpty());
  // The copies (cpu) have no "Off by" value, so they come last in both directions.
  EXPECT_THAT(visit.page["extra"].get<std::vector<std::string>>(),
              ElementsAre("cpu vpc venc aic all", "cpu vpc venc aic all", "aic venc vpc cpu all",
                          "aic cpu venc vpc all", "venc vpc aic cpu all", "aic venc vpc cpu all"));
}

constexpr const char* kGround =
    "extra = {body: getComputedStyle(document.body).backgroundColor,"
    " text: getComputedStyle(document.body).color, axes: Chart.defaults.color};";

TEST_F(ReportLook, IsDarkWhereTheReaderPrefersThat) {
  const std::string page = Page({folder_ / "run", folder_ / "other"}, kGround);
  const Visit light = Open(page, "report_1280_light", 1280, 6200);
  const Visit dark = Open(page, "report_1280_dark", 1280, 6200, true);
  const json lightGround = {{"body", "rgb(244, 246, 248)"}, {"text", "rgb(27, 31, 36)"}, {"axes", "#1b1f24"}};
  const json darkGround = {{"body", "rgb(18, 22, 26)"}, {"text", "rgb(227, 231, 235)"}, {"axes", "#e3e7eb"}};
  EXPECT_EQ(light.page["extra"], lightGround);
  EXPECT_EQ(dark.page["extra"], darkGround);
  EXPECT_EQ(light.Chart("cpu-rate")["series"][0]["colour"], "#0072b2ff");
  EXPECT_EQ(dark.Chart("cpu-rate")["series"][0]["colour"], "#59a3cdff");
  for (const Visit* const visit : {&light, &dark}) {
    EXPECT_THAT(visit->console, IsEmpty());
    EXPECT_EQ(visit->page["charts"].size(), 25U);
    for (const json& chart : visit->page["charts"]) EXPECT_GT(chart["drawn"], 200) << chart["id"];
  }
}

// Even scrolled to the right, the summary shows the engine and run of each figure.
TEST_F(ReportLook, FitsAPhoneWhereTheFirstColumnsStay) {
  const std::string page =
      Page({folder_ / "run", folder_ / "other"},
           "const wide = document.querySelector('.wide'); wide.scrollLeft = 10000;"
           "const cells = [...wide.querySelectorAll('tbody tr:first-child > *')].map((cell) => "
           "cell.getBoundingClientRect());"
           "const frame = wide.getBoundingClientRect();"
           "extra = {scrolled: wide.scrollLeft > 100, pageFits: document.documentElement.scrollWidth <= "
           "innerWidth,"
           " engine: Math.round(cells[0].left - frame.left), runAfterEngine: Math.round(cells[1].left - "
           "cells[0].right),"
           " figuresGone: cells[2].right < frame.left};");
  const json phone = {
      {"scrolled", true}, {"pageFits", true}, {"engine", 0}, {"runAfterEngine", 0}, {"figuresGone", true}};
  for (const bool dark : {false, true}) {
    const Visit visit = Open(page, dark ? "report_390_dark" : "report_390_light", 390, 9000, dark);
    EXPECT_EQ(visit.page["extra"], phone);
    for (const json& chart : visit.page["charts"]) EXPECT_GT(chart["drawn"], 100) << chart["id"];
  }
}

// Also if the reader prefers a dark screen.
TEST_F(ReportLook, IsPrintedLightAndAsWideAsA4) {
  const std::string page =
      Page({folder_ / "run", folder_ / "other"},
           "dispatchEvent(new Event('beforeprint'));"
           "const width = document.querySelector('main').getBoundingClientRect().width;"
           "extra = {millimetres: Math.round(width / 96 * 25.4), axes: Chart.defaults.color};");
  const Visit visit = Open(page, "report_as_printed", 794, 4600, true);
  const json paper = {{"millimetres", 186}, {"axes", "#1b1f24"}};
  EXPECT_EQ(visit.page["extra"], paper);
  EXPECT_EQ(visit.Chart("cpu-rate")["series"][0]["colour"], "#0072b2ff");
  for (const json& chart : visit.page["charts"]) EXPECT_GT(chart["drawn"], 100) << chart["id"];
  const std::string pdf = Print(page, "report_printed");
  EXPECT_THAT(pdf, HasSubstr("MediaBox [0 0 594.9"));
}

}  // namespace
