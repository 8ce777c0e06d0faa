// SPDX-License-Identifier: Apache-2.0

// The command fleet: exit statuses, files and what is refused.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "made_fleet.h"
#include "run_tool.h"
#include "temporary_folder.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;
using Json = nlohmann::json;
namespace fs = std::filesystem;

class FleetTest : public ::testing::Test {
 protected:
  void Make(int nights, const MadeFault& fault = {}, int boards = 8) {
    MadeFleet fleet(7, {boards, 0, 2}, fault, {0.004, 0.002, 0});
    for (int night = 1; night <= nights; ++night)
      fleet.Write(folder_ / ("nights/" + std::to_string(night)), night == nights);
  }

  ToolResult Fleet(std::vector<std::string> more = {}) const {
    more.insert(more.begin(), {"fleet", folder_ / "nights"});
    return RunTool(std::move(more));
  }

  TemporaryFolder folder_;
};

TEST_F(FleetTest, GoodBoardsEndWithStatus0) {
  Make(4);
  const ToolResult result = Fleet();
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(result.output, StartsWith("4: none of 8 boards stands out; all 16 cells done\n"));
  EXPECT_THAT(Fleet({"--quiet"}).output, IsEmpty());
}

TEST_F(FleetTest, AnOddBoardEndsWithStatus1AndItsFiles) {
  Make(4, {0.7, 1, false});
  const ToolResult result = Fleet({"-o", folder_ / "page.html", "--junit", folder_ / "fleet.xml"});
  EXPECT_EQ(result.status, 1) << result.errors;
  EXPECT_THAT(result.output, AllOf(StartsWith("4: 1 of 8 boards to look at: 1 odd; all 16 cells done\n"),
                                   HasSubstr("\nreport in " + folder_ / "page.html")));
  EXPECT_THAT(folder_.Get("page.html"), HasSubstr("<!DOCTYPE html>"));
  EXPECT_THAT(folder_.Get("fleet.xml"), HasSubstr("tests=\"9\" failures=\"1\" errors=\"0\""));
  const Json json = Json::parse(Fleet({"--json"}).output);
  EXPECT_EQ(json.at("exit_status"), 1);
  EXPECT_EQ(json.at("details").at(0).at("board"), "b0");
}

TEST_F(FleetTest, ABoardThatIsWorseThanBeforeOrHasFailedEndsWithStatus1) {
  Make(6, {0.8, 1, true});
  EXPECT_EQ(Fleet().status, 1);
  fs::remove_all(folder_ / "nights");
  Make(1);
  folder_.Put("nights/1/cell-0001/cell.json", "{");
  const ToolResult result = Fleet();
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.output, HasSubstr("1 failed; 1 of 16 cells not done"));
}

// Its figures are as good as those of the other boards.
TEST_F(FleetTest, ABoardWithErrorsEndsWithStatus1) {
  Make(1);
  Json cell = Json::parse(folder_.Get("nights/1/cell-0003/cell.json"));
  cell["errors"]["edac"] = 2;
  folder_.Put("nights/1/cell-0003/cell.json", cell.dump());
  const ToolResult result = Fleet({"--junit", folder_ / "fleet.xml"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.output, StartsWith("1: 1 of 8 boards to look at: 1 with errors; all 16 cells done\n"));
  EXPECT_THAT(folder_.Get("fleet.xml"), HasSubstr("tests=\"9\" failures=\"1\" errors=\"0\""));
}

TEST_F(FleetTest, ABaselineStandsForTheEarlierNights) {
  Make(4, {}, 3);
  EXPECT_EQ(Fleet({"--save-baseline", folder_ / "good.json"}).status, 0);
  fs::remove_all(folder_ / "nights");
  Make(1, {1, 0.9, true}, 3);
  EXPECT_EQ(Fleet().status, 0) << "one night alone shows no change";
  const ToolResult worse = Fleet({"--baseline", folder_ / "good.json"});
  EXPECT_EQ(worse.status, 1) << worse.errors;
  EXPECT_THAT(worse.output, HasSubstr("worse"));
  folder_.Put("nights/1/plan.json", [this] {
    Json plan = Json::parse(folder_.Get("nights/1/plan.json"));
    plan["warmup_s"] = 7;
    return plan.dump();
  }());
  const ToolResult other = Fleet({"--baseline", folder_ / "good.json"});
  EXPECT_EQ(other.status, 2);
  EXPECT_THAT(other.errors, HasSubstr("is of another plan: its configuration, times or checks differ"));
  folder_.Put("good.json", "{");
  EXPECT_EQ(Fleet({"--baseline", folder_ / "good.json"}).status, 2);
}

// Of three nights, the first one was recorded in another way.
TEST_F(FleetTest, ABaselineCountsTheNightsThatAreInIt) {
  Make(3);
  EXPECT_THAT(Fleet({"--save-baseline", folder_ / "good.json"}).output,
              AllOf(HasSubstr("\nbaseline of 3 nights in "), Not(HasSubstr("note: a baseline"))));
  Json plan = Json::parse(folder_.Get("nights/1/plan.json"));
  plan["warmup_s"] = 7;
  folder_.Put("nights/1/plan.json", plan.dump());
  EXPECT_THAT(Fleet({"--save-baseline", folder_ / "good.json"}).output,
              AllOf(HasSubstr("\nbaseline of 2 nights in "),
                    HasSubstr("note: a baseline of fewer than 3 nights is not compared with\n")));
}

TEST_F(FleetTest, WhatCannotBeReadOrWrittenEndsWithStatus2) {
  EXPECT_EQ(Fleet().status, 2);
  Make(1);
  EXPECT_THAT(Fleet({"--board", "b99"}).errors, HasSubstr("there is no board b99 in "));
  EXPECT_EQ(Fleet({"--tolerance", "nan"}).status, 2);
  const ToolResult full = Fleet({"-o", folder_ / "none/page.html"});
  EXPECT_EQ(full.status, 2);
  EXPECT_THAT(full.errors, HasSubstr("none/page.html"));
}

TEST_F(FleetTest, ANamedBoardIsShownInDetail) {
  MadeFleet(7, {20, 0, 1}).Write(folder_ / "nights", true);
  EXPECT_EQ(Json::parse(Fleet({"--json"}).output).at("details").size(), 0U);
  const Json json = Json::parse(Fleet({"--json", "--board", "b3,b4"}).output);
  ASSERT_EQ(json.at("details").size(), 2U);
  EXPECT_EQ(json.at("details").at(1).at("board"), "b4");
  EXPECT_EQ(json.at("details").at(1).at("figures").at(0).at("values").size(), 1U);
}

}  // namespace
