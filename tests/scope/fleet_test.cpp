// SPDX-License-Identifier: Apache-2.0

// Many boards over nights: what is read of their folders, which boards stand out, and what is written about
// them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>

#include "error_of.h"
#include "errors.h"
#include "fleet_baseline.h"
#include "fleet_reader.h"
#include "fleet_text.h"
#include "made_fleet.h"
#include "made_run.h"
#include "page_json.h"
#include "robust.h"
#include "temporary_folder.h"
#include "xml_text.h"

namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;
using Json = nlohmann::json;
using namespace scope;
namespace fs = std::filesystem;

TEST(RobustTest, TheCentreIsThatOfMostValues) {
  const RobustCentre centre = FindCentre({1, 2, 3, 4, 5, 6, 7, 8, 1e9, 1e9});
  EXPECT_DOUBLE_EQ(centre.middle, 5.5);
  EXPECT_NEAR(centre.deviation, 2.5 / 0.67449 * 10 / 9.2, 1e-3);
  EXPECT_EQ(FindCentre({4}).deviation, 0);
  // More than half are the same: the scale is that of the rest.
  EXPECT_GT(FindCentre({1, 1, 1, 1, 1, 1, 1, 2, 2, 2}).deviation, 0);
  EXPECT_THROW((void)FindCentre({}), std::invalid_argument);
}

// The example with which the test was published.
TEST(RobustTest, FindsThePublishedOutliers) {
  const std::vector<double> values = {-0.25, 0.68, 0.94, 1.15, 1.20, 1.26, 1.26, 1.34, 1.38, 1.43, 1.49,
                                      1.49,  1.55, 1.56, 1.58, 1.65, 1.69, 1.70, 1.76, 1.77, 1.81, 1.91,
                                      1.94,  1.96, 1.99, 2.06, 2.09, 2.10, 2.14, 2.15, 2.23, 2.24, 2.26,
                                      2.35,  2.37, 2.40, 2.47, 2.54, 2.62, 2.64, 2.90, 2.92, 2.92, 2.93,
                                      3.21,  3.26, 3.30, 3.59, 3.68, 4.30, 4.64, 5.34, 5.42, 6.01};
  EXPECT_THAT(FindOutliers(values, 0.05).odd, ElementsAre(53, 52, 51));
  EXPECT_THAT(FindOutliers(values, 0.01).odd, IsEmpty());
  EXPECT_THROW((void)FindOutliers({1, 2, 3, 4}, 0.05), std::invalid_argument);
}

TEST(RobustTest, TwoFifthsMayBeOddAndEqualValuesAreNot) {
  std::vector<double> values;
  for (int i = 0; i < 100; ++i) values.push_back(i < 35 ? 50 + i : std::sin(i));
  EXPECT_EQ(FindOutliers(values, 0.05).odd.size(), 35U);
  EXPECT_THAT(FindOutliers(std::vector<double>(50, 3.5), 0.05).odd, IsEmpty());
  std::vector<double> one(50, 3.5);
  one[7] = 3.6;
  EXPECT_THAT(FindOutliers(one, 0.05).odd, ElementsAre(7));
}

// What is shown as expected is where a further value would not be odd.
TEST(RobustTest, TheReachIsThatOfAFurtherValue) {
  std::vector<double> values;
  for (int i = 0; i < 30; ++i) values.push_back(std::sin(i));
  const Outliers outliers = FindOutliers(values, 0.05);
  ASSERT_THAT(outliers.odd, IsEmpty());
  for (const double share : {0.99, 1.01}) {
    std::vector<double> more = values;
    more.push_back(outliers.middle + share * outliers.reach * outliers.deviation);
    EXPECT_EQ(FindOutliers(more, 0.05).odd.size(), share > 1 ? 1U : 0U) << share;
  }
}

FleetReport Judged(Fleet fleet, FleetOptions options = {}) {
  FleetReport report;
  report.fleet = std::move(fleet);
  report.options = std::move(options);
  report.verdict =
      JudgeFleet(report.fleet, HistoryOf(report.fleet, report.fleet.nights.size() - 1, ""), report.options);
  report.reasons = FindReasons(report.fleet, report.verdict);
  return report;
}

TEST(FleetVerdictTest, NamesTheBoardThatIsOddAndTheFigure) {
  const FleetReport report = Judged(MadeFleet(1, {40, 6, 4}, {0.8, 1, false}).InMemory());
  ASSERT_THAT(report.verdict.standOut, ElementsAre(0));
  EXPECT_EQ(report.verdict.boards[0].state, BoardState::kOdd);
  EXPECT_FALSE(report.verdict.isGood);
  const FleetFinding& finding = report.verdict.findings.at(0);
  EXPECT_EQ(report.fleet.measures[finding.measure].engine, "cpu");
  EXPECT_NEAR(finding.differencePercent, -20, 6);
  EXPECT_LT(finding.value, finding.low);
  EXPECT_THAT(FindingText(report, finding), StartsWith("odd: cpu ops/s is "));
  // It was so before: it is not worse than its own history.
  EXPECT_FALSE(report.verdict.boards[0].worse);
}

TEST(FleetVerdictTest, ABoardThatGotSlowerIsWorseThanBefore) {
  const FleetReport report = Judged(MadeFleet(1, {40, 8, 4}, {0.85, 1, true}).InMemory());
  ASSERT_THAT(report.verdict.standOut, ElementsAre(0));
  EXPECT_TRUE(report.verdict.boards[0].worse);
  EXPECT_THAT(FleetSentence(report),
              HasSubstr("night7: 1 of 40 boards to look at: 1 odd; all 160 cells done"));
}

TEST(FleetVerdictTest, OneBoardAloneIsComparedWithItsOwnNights) {
  const MadeScatter calm = {0.005, 0, 0};
  const FleetReport bad = Judged(MadeFleet(3, {1, 12, 4}, {1, 0.8, true}, calm).InMemory());
  EXPECT_EQ(bad.verdict.boards[0].state, BoardState::kWorse);
  EXPECT_THAT(bad.verdict.notes, Contains(HasSubstr("not compared with each other: that takes 5 boards")));
  EXPECT_TRUE(Judged(MadeFleet(3, {1, 12, 4}, {}, calm).InMemory()).verdict.isGood);
}

TEST(FleetVerdictTest, ABoardThatGotFasterIsNotWorse) {
  const FleetReport report = Judged(MadeFleet(3, {3, 12, 4}, {1, 1.3, true}, {0.005, 0, 0}).InMemory());
  EXPECT_TRUE(report.verdict.isGood);
}

// All boards have got slower, by an update for example: no board is odd, but the fleet is worse.
TEST(FleetVerdictTest, AFleetThatGotSlowerAsAWholeIsWorse) {
  Fleet fleet = MadeFleet(5, {20, 10, 4}, {}, {0.01, 0.01, 0.002}).InMemory();
  for (FleetValue& value : fleet.values) {
    if (value.night == 9) value.middle -= 0.1;
  }
  const FleetReport report = Judged(std::move(fleet));
  EXPECT_THAT(report.verdict.standOut, IsEmpty());
  EXPECT_FALSE(report.verdict.isGood);
  EXPECT_EQ(ExitStatusOf(report.verdict), 1);
  EXPECT_THAT(FleetSentence(report), HasSubstr("; the whole fleet is worse than before: cpu ops/s -"));
  EXPECT_THAT(FleetJunit(report),
              HasSubstr("name=\"(the whole fleet)\" time=\"0\">\n      <failure type=\"worse\""));
}

TEST(FleetVerdictTest, ASmallDifferenceIsNoFinding) {
  Fleet fleet = MadeFleet(1, {40, 6, 4}, {0.985, 1, false}, {0.0001, 0.0001, 0}).InMemory();
  FleetOptions exact;
  exact.tolerancePercent = 1;
  EXPECT_TRUE(Judged(fleet).verdict.isGood);
  EXPECT_FALSE(Judged(fleet, exact).verdict.isGood);
}

TEST(FleetVerdictTest, OtherFiguresAreJudgedIfTheyAreNamed) {
  FleetOptions options;
  options.figures = {Figure::kP99};
  const Fleet fleet = MadeFleet(1, {40, 6, 4}, {0.8, 1, false}).InMemory();
  EXPECT_TRUE(Judged(fleet, options).verdict.isGood) << "no board has a p99";
}

// The test for odd boards takes two fifths away at most.
TEST(FleetVerdictTest, NearlyHalfOfTheBoardsMayBeWorse) {
  const FleetReport report = Judged(MadeFleet(1, {100, 8, 4}, {1, 0.8, true, 45}).InMemory());
  int worse = 0;
  for (std::size_t i = 0; i < 100; ++i) {
    worse += report.verdict.boards[i].worse ? 1 : 0;
    EXPECT_EQ(report.verdict.boards[i].worse, i < 45) << i;
  }
  EXPECT_EQ(worse, 45);
  EXPECT_EQ(ExitStatusOf(report.verdict), 1);
}

// The earlier nights had so many boards that what they share was known, the last one has not.
TEST(FleetVerdictTest, WhatBoardsShareCountsIfFewRan) {
  const Fleet made = MadeFleet(3, {8, 8, 4}, {}, {0.002, 0, 0.03}).InMemory();
  for (const double change : {-0.05, -0.7}) {
    Fleet fleet = made;
    const FleetHistory history = HistoryOf(fleet, 7, "");
    for (FleetValue& value : fleet.values) {
      if (value.night == 7)
        value.middle = history.measures[value.measure].boards[value.board].middle + change;
    }
    const auto isGone = [](const FleetValue& value) { return value.night == 7 && value.board > 2; };
    fleet.values.erase(std::remove_if(fleet.values.begin(), fleet.values.end(), isGone), fleet.values.end());
    const FleetVerdict verdict = JudgeFleet(fleet, history, {});
    EXPECT_EQ(verdict.judgedBefore, 3U);
    EXPECT_EQ(CountOf(verdict, BoardState::kWorse), change < -0.5 ? 3U : 0U) << change;
  }
}

// No earlier night has five boards: nobody knows how much the fleet changes.
TEST(FleetVerdictTest, WhatBoardsShareIsNotTakenOutWhereItIsNotJudged) {
  Fleet fleet = MadeFleet(3, {6, 9, 4}, {1, 0.7, true, 6}, {0.005, 0, 0}).InMemory();
  const auto isGone = [](const FleetValue& value) {
    return value.night < 8 && value.board % 2 != value.night % 2;
  };
  fleet.values.erase(std::remove_if(fleet.values.begin(), fleet.values.end(), isGone), fleet.values.end());
  const FleetReport report = Judged(std::move(fleet));
  EXPECT_FALSE(report.verdict.measures[0].change);
  EXPECT_EQ(CountOf(report.verdict, BoardState::kWorse), 6U);
}

TEST(FleetVerdictTest, ABoardWithFewerRunsIsAllowedMore) {
  Fleet fleet = MadeFleet(3, {40, 8, 4}, {}, {0.025, 0.01, 0}).InMemory();
  const FleetHistory history = HistoryOf(fleet, 7, "");
  FleetValue* last = nullptr;
  for (FleetValue& value : fleet.values) {
    if (value.measure == 0 && value.board == 0 && value.night == 7) last = &value;
  }
  last->middle = history.measures[0].boards[0].middle - 0.09;
  EXPECT_TRUE(JudgeFleet(fleet, history, {}).boards[0].worse);
  last->runs = 1;
  last->squares = 0;
  EXPECT_FALSE(JudgeFleet(fleet, history, {}).boards[0].worse);
}

// One run without power, one board that hops from night to night, one night without power.
TEST(FleetVerdictTest, ASingleBadValueHidesNothing) {
  Fleet fleet = MadeFleet(3, {8, 10, 4}, {1, 0.9, true}, {0.005, 0, 0.002}).InMemory();
  const double calm = Judged(fleet).verdict.measures[0].runDeviation;
  Fleet run = fleet;
  run.values[3].squares = 1000;
  EXPECT_LT(Judged(run).verdict.measures[0].runDeviation, 1.2 * calm);
  Fleet board = fleet;
  for (FleetValue& value : board.values) {
    if (value.board == 1 && value.night < 9) value.middle += value.night % 3 - 1;
  }
  EXPECT_TRUE(Judged(board).verdict.boards[0].worse);
  Fleet night = fleet;
  for (FleetValue& value : night.values) value.middle -= value.night == 4 ? 20 : value.night == 9 ? 0.1 : 0;
  const FleetReport report = Judged(std::move(night));
  ASSERT_TRUE(report.verdict.measures[0].change);
  EXPECT_TRUE(report.verdict.measures[0].change->worse);
}

TEST(FleetReportTest, XmlHasNoCharacterThatItForbids) {
  Fleet fleet = MadeFleet(1, {6, 1, 1}).InMemory();
  fleet.nights[0].name = "<\xEF\xBF\xBE>\xC3\xA4";
  EXPECT_THAT(FleetJunit(Judged(std::move(fleet))),
              HasSubstr("classname=\"fleet.&lt;\\xef\\xbf\\xbe&gt;\xC3\xA4\""));
}

class FleetFolderTest : public ::testing::Test {
 protected:
  // DIR with nights; board b0 has the fault.
  void Make(int nights, const MadeFault& fault = {}, const MadeSize& size = {6, 0, 2}) {
    MadeFleet fleet(7, size, fault, {0.004, 0.002, 0});
    for (int night = 1; night <= nights; ++night) fleet.Write(Night(night), night == nights);
  }
  std::string Dir() const { return folder_ / "nights"; }
  std::string Night(int number) const { return folder_ / Format("nights/2026-11-%02d", number); }
  std::string CellFile(int night, int cell) const {
    return Night(night) + "/" + CellFolder(static_cast<std::size_t>(cell)) + "/cell.json";
  }

  // Puts `run` into the folder of a cell, whose cell.json stays.
  void SaveRun(int night, int cell, const scope::Run& run) const {
    const std::string folder = fs::path(CellFile(night, cell)).parent_path().string();
    std::stringstream record;
    record << std::ifstream(CellFile(night, cell)).rdbuf();
    fs::remove_all(folder);
    made_run::Write(run, folder);
    std::ofstream(CellFile(night, cell)) << record.str();
  }

  void SetErrors(int night, int cell, const Json& errors) const {
    Edit(CellFile(night, cell), [&errors](Json& json) { json["errors"] = errors; });
  }

  // Changes a cell's file.
  void Edit(const std::string& path, const std::function<void(Json&)>& edit) const {
    Json json = Json::parse(std::ifstream(path));
    edit(json);
    std::ofstream(path) << json.dump();
  }

  TemporaryFolder folder_;
};

TEST_F(FleetFolderTest, ReadsNightsInTheOrderOfTheirNames) {
  Make(3);
  const Fleet fleet = ReadFleet(Dir());
  ASSERT_EQ(fleet.nights.size(), 3U);
  EXPECT_EQ(fleet.nights[0].name, "2026-11-01");
  EXPECT_EQ(fleet.nights[2].name, "2026-11-03");
  EXPECT_EQ(fleet.boards.size(), 6U);
  EXPECT_EQ(fleet.measures.size(), 21U);
  EXPECT_EQ(fleet.values.size(), 21U * 6 * 3);
  EXPECT_EQ(fleet.values[0].runs, 2);
  EXPECT_THAT(fleet.notDone, IsEmpty());
  // As the maker has them in memory.
  const Fleet made = MadeFleet(7, {6, 3, 2}, {}, {0.004, 0.002, 0}).InMemory();
  EXPECT_NEAR(fleet.values[0].middle, made.values[0].middle, 1e-9);
  const Fleet one = ReadFleet(Night(2) + "/");
  ASSERT_EQ(one.nights.size(), 1U);
  EXPECT_EQ(one.nights[0].name, "2026-11-02");
}

TEST_F(FleetFolderTest, SaysWhatIsMissing) {
  Make(2);
  fs::remove_all(Night(2) + "/cell-0003");
  fs::remove_all(Night(2) + "/cell-0011");
  fs::remove_all(Night(2) + "/cell-0012");
  const FleetReport report = Judged(ReadFleet(Dir()));
  EXPECT_EQ(report.verdict.boards[1].state, BoardState::kIncomplete);
  EXPECT_EQ(report.verdict.boards[5].state, BoardState::kNoRuns);
  EXPECT_FALSE(report.verdict.isGood);
  EXPECT_THAT(FleetText(report, {}), AllOf(HasSubstr("1 without runs; 3 of 12 cells not done"),
                                           HasSubstr("3 cells missing\nno runs: b5\n")));
  const Json json = Json::parse(FleetJson(report));
  EXPECT_EQ(json.at("not_done_cells"), 3);
  EXPECT_EQ(json.at("not_done").at(0).at("board"), "b1");
  EXPECT_EQ(json.at("counts").at("no runs"), 1);
}

TEST_F(FleetFolderTest, ACellThatFailedIsNamedWithItsReason) {
  Make(1);
  fs::create_directories(Night(1) + "/attempts/cell-0002");
  fs::rename(Night(1) + "/cell-0002", Night(1) + "/attempts/cell-0002/1");
  Edit(Night(1) + "/attempts/cell-0002/1/cell.json", [](Json& json) {
    json["state"] = "failed";
    json["reason"] = "the benchmark ended with status 9";
  });
  const FleetReport report = Judged(ReadFleet(Dir()));
  EXPECT_EQ(report.verdict.boards[0].state, BoardState::kFailed);
  EXPECT_THAT(FleetText(report, {}),
              HasSubstr("! cell 2 (b0: CPU=1, repeat 2) failed: the benchmark ended with status 9; see "
                        "attempts/cell-0002/1\n"));
  EXPECT_THAT(FleetJunit(report),
              HasSubstr("<error type=\"failed\" message=\"cell 2 (b0: CPU=1, repeat 2) failed: the"));
}

// Memory that changed comes before a rate that is lower.
TEST_F(FleetFolderTest, ABoardWithErrorsIsToldFirst) {
  Make(4, {0.5, 1, true});
  SetErrors(4, 4, {{"cpu", 1}, {"edac", 2}});  // of b1
  const FleetReport report = Judged(ReadFleet(Dir()));
  EXPECT_EQ(report.verdict.boards[1].state, BoardState::kErrors);
  EXPECT_THAT(report.verdict.standOut, ElementsAre(1, 0));
  EXPECT_EQ(ExitStatusOf(report.verdict), 1);
  const std::string line = "cell 4 (b1: CPU=1, repeat 2) done, with 3 errors (cpu 1, edac 2); see cell-0004";
  EXPECT_THAT(
      FleetText(report, {}),
      StartsWith("2026-11-04: 2 of 6 boards to look at: 1 with errors, 1 odd; all 12 cells done\n\n! " +
                 line + "\n\nboard "));
  EXPECT_THAT(FleetJunit(report), AllOf(HasSubstr("failures=\"2\" errors=\"0\""),
                                        HasSubstr("<failure type=\"errors\" message=\"" + line + "\">")));
  const Json json = Json::parse(FleetJson(report));
  EXPECT_EQ(json.at("counts").at("errors"), 1);
  EXPECT_EQ(json.at("cells_with_errors"), 1);
  EXPECT_EQ(json.at("with_errors").at(0).at("board"), "b1");
  EXPECT_EQ(json.at("with_errors").at(0).at("text"), line);
  EXPECT_EQ(json.at("details").at(0).at("state"), "errors");
  EXPECT_EQ(json.at("details").at(0).at("errors"), (Json{{"cpu", 1}, {"edac", 2}}));
  EXPECT_EQ(json.at("nights").at(3).at("errors"), 3);
  EXPECT_EQ(DataOf(FleetPage(report)), json);
}

// The run was recorded again, and found nothing then.
TEST_F(FleetFolderTest, ErrorsOfAnEarlierAttemptAreTheBoards) {
  Make(1);
  fs::create_directories(Night(1) + "/attempts/cell-0004");
  fs::copy(Night(1) + "/cell-0004", Night(1) + "/attempts/cell-0004/1");
  Edit(Night(1) + "/attempts/cell-0004/1/cell.json", [](Json& json) {
    json["state"] = "failed";
    json["errors"]["edac"] = 2;
  });
  const FleetReport report = Judged(ReadFleet(Dir()));
  EXPECT_EQ(report.verdict.boards[1].state, BoardState::kErrors);
  EXPECT_THAT(FleetText(report, {}), HasSubstr("\n! cell 4 (b1: CPU=1, repeat 2) done; an earlier attempt "
                                               "found 2 errors (edac 2); see cell-0004\n"));
}

TEST_F(FleetFolderTest, ANightWithErrorsIsNoPartOfWhatABoardWasBefore) {
  Make(4);
  const Fleet clean = ReadFleet(Dir());
  SetErrors(2, 3, {{"edac", 1}});
  for (int cell = 3; cell <= 4; ++cell)
    Edit(CellFile(2, cell), [](Json& json) { json["figures"]["cpu"]["ops"] = 1; });
  const Fleet fleet = ReadFleet(Dir());
  EXPECT_EQ(HistoryOf(clean, 4, "").measures[0].boards[1].nights, 4);
  const MeasureHistory history = HistoryOf(fleet, 4, "").measures[0];
  EXPECT_EQ(history.boards[0].nights, 4);
  EXPECT_EQ(history.boards[1].nights, 3);
  EXPECT_LT(history.deviation, 0.01) << "nor of what the fleet was";
  const FleetReport report = Judged(fleet);
  EXPECT_EQ(report.verdict.boards[1].state, BoardState::kGood) << "it has no errors in the last night";
  EXPECT_THAT(report.verdict.notes, Contains("1 board found errors in earlier nights: 1 night of a board are "
                                             "left out of what boards did before"));
}

// Cells of earlier versions do not say whether they found errors.
TEST_F(FleetFolderTest, WhatIsNotKnownOfErrorsIsSaid) {
  Make(1);
  for (int cell = 1; cell <= 2; ++cell) Edit(CellFile(1, cell), [](Json& json) { json.erase("errors"); });
  const Fleet fleet = ReadFleet(Dir());
  EXPECT_THAT(fleet.errors, IsEmpty());
  EXPECT_THAT(fleet.notes, ElementsAre("of 2 cells it is not known whether errors were found"));
}

// Whatever a cell.json holds, the other cells are judged, and the figures of this one are not.
TEST_F(FleetFolderTest, HostileCellsAreDamaged) {
  Make(1);
  const std::vector<std::pair<const char*, std::function<void(Json&)>>> edits = {
      {"is of another plan", [](Json& json) { json["plan"] = "x"; }},
      {"is of cell 9", [](Json& json) { json["number"] = 9; }},
      {"expected a whole number", [](Json& json) { json["number"] = 1.5; }},
      {"names of a board", [](Json& json) { json["board"] = "<b>\x1b[31m"; }},
      {"board: expected \"b0\", found \"b1\"", [](Json& json) { json["board"] = "b1"; }},
      {"numbers from 0 on, found -1", [](Json& json) { json["figures"]["cpu"]["ops"] = -1; }},
      {"type must be number", [](Json& json) { json["figures"]["cpu"]["ops"] = nullptr; }},
      {"not a cell", [](Json& json) { json["kind"] = "run"; }}};
  const std::string path = CellFile(1, 1);
  const std::string good = folder_.Get("nights/2026-11-01/cell-0001/cell.json");
  for (const auto& [reason, edit] : edits) {
    Edit(path, edit);
    const Fleet fleet = ReadFleet(Dir());
    ASSERT_EQ(fleet.notDone.size(), 1U) << reason;
    EXPECT_EQ(fleet.notDone[0].state, CellState::kDamaged) << reason;
    EXPECT_THAT(fleet.notDone[0].reason, HasSubstr(reason));
    EXPECT_EQ(fleet.boards.size(), 6U) << reason;
    folder_.Put("nights/2026-11-01/cell-0001/cell.json", good);
  }
  for (const std::string text : {"", "{", "[]", "1e999", "{\"format\":1e9}", "\xff\xfe"}) {
    folder_.Put("nights/2026-11-01/cell-0001/cell.json", text);
    EXPECT_EQ(ReadFleet(Dir()).notDone.at(0).state, CellState::kDamaged) << text;
  }
  fs::remove(path);
  fs::create_symlink("cell.json", path);  // it leads to itself
  EXPECT_EQ(ReadFleet(Dir()).notDone.at(0).state, CellState::kDamaged);
  fs::remove(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(ReadFleet(Dir()).notDone.at(0).state, CellState::kDamaged);
}

TEST_F(FleetFolderTest, UnknownFiguresAreNotComparedAndHugeNumbersDoNoHarm) {
  Make(1);
  Edit(CellFile(1, 1), [](Json& json) {
    json["figures"]["cpu"] = {{"ops", 1e308}, {"later", 1}};
    json["figures"]["npu"] = {{"ops", 1}};
    json["figures"]["vpc"]["ops"] = 0;
  });
  const FleetReport report = Judged(ReadFleet(Dir()));
  EXPECT_EQ(report.fleet.measures.size(), 21U);
  EXPECT_EQ(report.verdict.boards[0].state, BoardState::kOdd);
  EXPECT_NO_THROW((void)Json::parse(FleetJson(report)));
  EXPECT_THAT(FleetText(report, {}), Not(HasSubstr("nan")));
}

TEST_F(FleetFolderTest, NightsOfAnotherKindAreLeftOutAndTheUserIsTold) {
  Make(3);
  fs::create_directories(Dir() + "/notes");
  folder_.Put("nights/readme.txt", "");
  folder_.Put("nights/2026-11-01/plan.json", "{");
  Edit(Night(2) + "/plan.json", [](Json& json) { json["stop_after_s"] = 99; });
  const Fleet fleet = ReadFleet(Dir());
  EXPECT_EQ(fleet.nights.size(), 2U);
  EXPECT_THAT(
      fleet.notes,
      ElementsAre("left out, because there is no plan.json: notes",
                  HasSubstr("the night 2026-11-01 is left out: "),
                  HasSubstr("1 night not compared: the configuration, the times or the checks differ")));
  folder_.Put("nights/2026-11-03/plan.json", "{");
  EXPECT_THAT(ErrorOf([&] { (void)ReadFleet(Dir()); }), HasSubstr("2026-11-03/plan.json: "));
  EXPECT_THAT(ErrorOf([&] { (void)ReadFleet(folder_ / "none"); }), HasSubstr("cannot read the folder "));
  fs::create_directories(folder_ / "empty");
  EXPECT_THAT(ErrorOf([&] { (void)ReadFleet(folder_ / "empty"); }),
              HasSubstr("one a night; found no plan.json"));
}

TEST_F(FleetFolderTest, ABoardThatVanishedIsNamed) {
  Make(2);
  MadeFleet fewer(8, {5, 0, 2}, {}, {0.004, 0.002, 0});
  fewer.Write(Night(3), false);
  const FleetReport vanished = Judged(ReadFleet(Dir()));
  EXPECT_EQ(vanished.verdict.boards[5].state, BoardState::kVanished);
  EXPECT_EQ(ExitStatusOf(vanished.verdict), 1);
  EXPECT_THAT(FleetText(vanished, {}),
              AllOf(HasSubstr("1 of 6 boards to look at: 1 vanished; all 10 cells done"),
                    HasSubstr("\nabsent: b5, last seen 2026-11-02\n")));
  EXPECT_THAT(FleetJunit(vanished),
              AllOf(HasSubstr("errors=\"1\""),
                    HasSubstr("<error type=\"vanished\" message=\"absent: b5, last seen 2026-11-02\">")));
  EXPECT_EQ(Json::parse(FleetJson(vanished)).at("absent").at(0).at("last_seen"), "2026-11-02");
  fewer.Write(Night(4), true);
  const FleetReport absent = Judged(ReadFleet(Dir()));
  EXPECT_EQ(absent.verdict.boards[5].state, BoardState::kAbsent);
  EXPECT_EQ(ExitStatusOf(absent.verdict), 0);
  EXPECT_THAT(FleetText(absent, {}), HasSubstr("\nabsent: b5, last seen 2026-11-02\n"));
  EXPECT_THAT(FleetJunit(absent), AllOf(HasSubstr("<skipped message=\"absent: b5, last seen 2026-11-02\"/>"),
                                        HasSubstr("skipped=\"1\"")));
}

// Last night nothing was begun. That must not show the good night before it.
TEST_F(FleetFolderTest, TheNewestNightNeedsAPlan) {
  Make(2);
  fs::create_directories(Dir() + "/2026-10-31");
  EXPECT_THAT(ReadFleet(Dir()).notes, ElementsAre("left out, because there is no plan.json: 2026-10-31"));
  fs::create_directories(Night(3));
  EXPECT_THAT(ErrorOf([&] { (void)ReadFleet(Dir()); }),
              AllOf(HasSubstr("nights/2026-11-03: expected plan.json"), HasSubstr("2026-11-02 is judged")));
}

TEST_F(FleetFolderTest, ALinkToANightIsNoFurtherNightAndWhatCannotBeReadIsAnError) {
  Make(3);
  fs::create_directory_symlink("2026-11-02", Dir() + "/latest");
  fs::create_directory_symlink("2026-11-01", Dir() + "/2026-11-00");
  fs::rename(Night(1), folder_ / "elsewhere");
  fs::create_directory_symlink(folder_ / "elsewhere", Night(1));
  const Fleet fleet = ReadFleet(Dir());
  ASSERT_EQ(fleet.nights.size(), 3U);
  EXPECT_EQ(fleet.nights[2].name, "2026-11-03");
  fs::create_symlink("loop", Dir() + "/loop");
  EXPECT_THAT(ErrorOf([&] { (void)ReadFleet(Dir()); }),
              AllOf(StartsWith("cannot read the folder "), HasSubstr("nights/loop: ")));
}

// The disk with the night is away. That must not show the good night before it.
TEST_F(FleetFolderTest, ALinkThatLeadsNowhereIsNamed) {
  Make(2);
  fs::create_directories(Dir() + "/notes");
  fs::create_directory_symlink(folder_ / "gone", Dir() + "/2026-10-30");
  fs::create_directory_symlink(folder_ / "gone", Dir() + "/2026-10-31");
  EXPECT_THAT(ReadFleet(Dir()).notes,
              ElementsAre("left out, because the link leads nowhere: 2026-10-30 and 1 other folder",
                          "left out, because there is no plan.json: notes"));
  fs::create_directory_symlink(folder_ / "gone", Night(3));
  EXPECT_THAT(ErrorOf([&] { (void)ReadFleet(Dir()); }),
              AllOf(HasSubstr("nights/2026-11-03: the link to the newest night leads nowhere"),
                    HasSubstr("2026-11-02 is judged")));
}

TEST_F(FleetFolderTest, ADoneCellWithoutFiguresMakesItsBoardIncomplete) {
  Make(1);
  Edit(CellFile(1, 1), [](Json& json) { json["figures"] = Json::object(); });
  const FleetReport report = Judged(ReadFleet(Dir()));
  EXPECT_EQ(report.verdict.boards[0].state, BoardState::kIncomplete);
  EXPECT_EQ(report.verdict.boards[1].state, BoardState::kGood);
  EXPECT_THAT(FleetText(report, {}), HasSubstr("note: b0: 1 cell done without cpu ops/s at CPU=1\n"));
  EXPECT_THAT(FleetJunit(report), HasSubstr("<system-out>1 cell done without cpu ops/s at CPU=1&#10;"));
}

// An engine that does nothing in one of four runs has three quarters of its rate, not a thousandth.
TEST_F(FleetFolderTest, TheValueOfANightIsTheMeanOfItsRuns) {
  Make(1, {}, {6, 0, 4});
  for (int cell = 1; cell <= 4; ++cell)
    Edit(CellFile(1, cell), [cell](Json& json) { json["figures"]["cpu"]["ops"] = cell == 4 ? 0 : 740; });
  const Fleet fleet = ReadFleet(Dir());
  for (std::uint32_t i = 0; i < fleet.measures.size(); ++i) {
    if (fleet.measures[i].engine != "cpu" || fleet.measures[i].figure != Figure::kOperations) continue;
    EXPECT_NEAR(std::exp(fleet.values[SpanOf(fleet, i).first].middle), 555, 1e-6);
    return;
  }
  FAIL() << "no rate of the engine";
}

TEST_F(FleetFolderTest, ALatencyThatRoseIsOddAndWorse) {
  Make(5, {0.7, 1, true}, {8, 0, 2});
  FleetOptions options;
  options.figures = {Figure::kP99};
  const FleetReport report = Judged(ReadFleet(Dir()), options);
  ASSERT_THAT(report.verdict.standOut, ElementsAre(0));
  EXPECT_TRUE(report.verdict.boards[0].worse);
  EXPECT_GT(report.verdict.findings.at(0).differencePercent, 30);
}

TEST(SetupTest, IsTheConfigurationWithoutLevelsAndTheTimes) {
  Plan plan;
  plan.configText = "CPU:\n  Level: 1\nVENC: {Level: 0x2}\nfile: a\n";
  Plan other = plan;
  other.configText = "CPU:\n  Level: 10\nVENC: {Level: 7}\nfile: a\n";
  EXPECT_EQ(SetupOf(plan), SetupOf(other));
  other.configText = "CPU:\n  Level: 10\nVENC: {Level: 7}\nfile: b\n";
  EXPECT_NE(SetupOf(plan), SetupOf(other));
  other = plan;
  other.settings.warmupS = 6;
  EXPECT_NE(SetupOf(plan), SetupOf(other));
  other = plan;
  EXPECT_EQ(SetupOf(plan), "d16efac140d99908") << "baselines of plans without checks stay valid";
  other.settings.verify = true;
  EXPECT_NE(SetupOf(plan), SetupOf(other));
  other.configText = "Level:";
  (void)SetupOf(other);
}

TEST_F(FleetFolderTest, ABaselineIsReadAsItWasWritten) {
  Make(4);
  const Fleet fleet = ReadFleet(Dir());
  const FleetHistory history = HistoryOf(fleet, 4, "2026-11-22T06:00:00Z");
  WriteBaseline(folder_ / "good.json", history);
  const FleetHistory read = ReadBaseline(folder_ / "good.json");
  EXPECT_EQ(read.setup, fleet.nights[3].setup);
  EXPECT_EQ(read.nights, history.nights);
  ASSERT_EQ(read.measures.size(), 21U);
  EXPECT_EQ(read.measures[3].boards[2].middle, history.measures[3].boards[2].middle);
  EXPECT_EQ(read.measures[3].boards[2].nights, 4);
  const FleetVerdict verdict = JudgeFleet(fleet, read, {});
  EXPECT_EQ(verdict.judgedBefore, 6U);
}

TEST_F(FleetFolderTest, ADamagedBaselineIsRefused) {
  Make(3);
  WriteBaseline(folder_ / "good.json", HistoryOf(ReadFleet(Dir()), 3, "now"));
  const std::string good = folder_.Get("good.json");
  const std::vector<std::pair<const char*, std::function<void(Json&)>>> edits = {
      {"not a baseline of a fleet", [](Json& json) { json["kind"] = "cell"; }},
      {"written in format 2", [](Json& json) { json["format"] = 2; }},
      {"setup: expected 16 digits", [](Json& json) { json["setup"] = ""; }},
      {"measure 1: unknown figure", [](Json& json) { json["measures"][0]["figure"] = "x"; }},
      {"measure 1: deviation: expected a number from 0",
       [](Json& json) { json["measures"][0]["deviation"] = -1; }},
      {"measure 1: b0: nights: expected", [](Json& json) { json["measures"][0]["boards"][0][3] = 1.5; }},
      {"measure 1: b0: expected at least one night",
       [](Json& json) { json["measures"][0]["boards"][0][3] = 0; }},
      {"measure 1: board: expected 1 to 64",
       [](Json& json) { json["measures"][0]["boards"][0][0] = "\x1b"; }}};
  for (const auto& [reason, edit] : edits) {
    Edit(folder_ / "good.json", edit);
    EXPECT_THAT(ErrorOf([&] { (void)ReadBaseline(folder_ / "good.json"); }),
                AllOf(StartsWith(folder_ / "good.json"), HasSubstr(reason)));
    folder_.Put("good.json", good);
  }
  folder_.Put("good.json", good.substr(0, good.size() / 2));
  EXPECT_THAT(ErrorOf([&] { (void)ReadBaseline(folder_ / "good.json"); }), HasSubstr("good.json: "));
  EXPECT_THAT(ErrorOf([&] { (void)ReadBaseline(folder_ / "none.json"); }),
              HasSubstr("Make one with stress_scope fleet DIR --save-baseline"));
}

TEST_F(FleetFolderTest, TheConditionsOfAnOddBoardAreNamed) {
  Make(1, {0.5, 1, false}, {8, 0, 1});
  for (int cell = 1; cell <= 8; ++cell) {
    scope::Run run = made_run::Run();
    run.info.conditions.governor = cell == 1 ? "powersave" : "performance";
    if (cell == 1) {
      run.counters.push_back({1, "throttle", "cpu0", "events", 3});
      run.counters.push_back({30, "throttle", "cpu0", "events", 45});
    }
    run.counters.push_back({20, "thermal", "soc", "degC", cell == 1 ? 91.5 : 60.0});
    SaveRun(1, cell, run);
  }
  const FleetReport report = Judged(ReadFleet(Dir()));
  ASSERT_EQ(report.reasons.size(), 1U);
  ASSERT_THAT(report.reasons[0].conditions.size(), 1U);
  EXPECT_EQ(report.reasons[0].conditions[0].b, "powersave");
  EXPECT_THAT(
      report.reasons[0].troubles,
      ElementsAre("throttled for heat in 1 of 1 run of this board (42 in all), in none of typical boards",
                  "hottest zone: 91.5 degC; typical boards: 60.0 degC"));
  EXPECT_THAT(FleetText(report, {}), HasSubstr("  governor: powersave; typical boards: performance\n"));
  EXPECT_THAT(FleetJunit(report), HasSubstr("throttled for heat"));
}

// A board with errors is shown beside typical boards, and is none itself.
TEST_F(FleetFolderTest, TheConditionsOfABoardWithErrorsAreNamed) {
  Make(1, {}, {8, 0, 1});
  for (int cell = 1; cell <= 8; ++cell) {
    scope::Run run = made_run::Run();
    run.info.conditions.governor = cell == 1 ? "powersave" : "performance";
    SaveRun(1, cell, run);
    if (cell <= 6) SetErrors(1, cell, {{"guard", 1}});
  }
  const FleetReport report = Judged(ReadFleet(Dir()));
  EXPECT_EQ(CountOf(report.verdict, BoardState::kErrors), 6U);
  ASSERT_EQ(report.reasons.size(), 6U);
  EXPECT_EQ(report.reasons[0].board, 0U);
  EXPECT_THAT(report.reasons[0].typical, UnorderedElementsAre("b6", "b7"));
  ASSERT_EQ(report.reasons[0].conditions.size(), 1U);
  EXPECT_EQ(report.reasons[0].conditions[0].b, "powersave");
}

// Names of nights are those of folders, so they may have any bytes.
TEST_F(FleetFolderTest, HostileNamesAreInert) {
  const std::string hostile = "9</script><script>alert(1)</script>&\"'\x1b[31m\x01";
  Make(1, {0.5, 1, false}, {6, 0, 1});
  fs::rename(Night(1), folder_ / "night");
  fs::create_directories(Dir());
  std::string name = hostile;
  name.erase(std::remove(name.begin(), name.end(), '/'), name.end());
  fs::rename(folder_ / "night", Dir() + "/" + name);
  const FleetReport report = Judged(ReadFleet(Dir()));
  EXPECT_THAT(FleetText(report, {}), Not(HasSubstr("\x1b")));
  const std::string xml = FleetJunit(report);
  for (const char* const text : {"<script", "\x1b", "\x01", "&\""}) {
    EXPECT_THAT(xml, Not(HasSubstr(text)));
    EXPECT_THAT(FleetPage(report), Not(HasSubstr(std::string(text) + ">alert")));
  }
  EXPECT_EQ(DataOf(FleetPage(report)).at("night"), name);
  EXPECT_EQ(DataOf(FleetPage(report)), Json::parse(FleetJson(report)));
}

TEST(XmlTextTest, AnyBytesBecomeCharactersOfXml) {
  EXPECT_EQ(stress::XmlText("a < b & \"c\" > d\n\t4"), "a &lt; b &amp; &quot;c&quot; &gt; d&#10;&#9;4");
  const std::string letters =
      "\x7E \xC2\xA0 \xDF\xBF \xE0\xA0\x80 \xED\x9F\xBF \xEF\xBF\xBD \xF0\x90\x80\x80 \xF4\x8F\xBF\xBF";
  EXPECT_EQ(stress::XmlText(letters), letters);
  EXPECT_EQ(stress::XmlText(std::string("\0\x1b\r\x7f", 4)), R"(\x00\x1b\x0d\x7f)");
  EXPECT_EQ(stress::XmlText("\xC2\x80\xC2\x9F"), R"(\xc2\x80\xc2\x9f)");  // control characters
  EXPECT_EQ(stress::XmlText("\xED\xA0\x80\xED\xBF\xBF"), R"(\xed\xa0\x80\xed\xbf\xbf)");  // surrogates
  EXPECT_EQ(stress::XmlText("\xEF\xBF\xBE\xEF\xBF\xBF"), R"(\xef\xbf\xbe\xef\xbf\xbf)");
  EXPECT_EQ(stress::XmlText("\xC1\xBF\xE0\x9F\xBF\xF0\x8F\xBF\xBF"),  // overlong forms
            R"(\xc1\xbf\xe0\x9f\xbf\xf0\x8f\xbf\xbf)");
  EXPECT_EQ(stress::XmlText("\xF4\x90\x80\x80\xF8\x80"), R"(\xf4\x90\x80\x80\xf8\x80)");  // no such ones
  EXPECT_EQ(stress::XmlText("\x80<\xC3<\xE2\x82"), R"(\x80&lt;\xc3&lt;\xe2\x82)");        // cut
}

TEST_F(FleetFolderTest, AHostileReasonIsInert) {
  const std::string hostile = "</script><script>alert(1)</script>]]>";
  Make(1);
  fs::create_directories(Night(1) + "/attempts/cell-0002");
  fs::rename(Night(1) + "/cell-0002", Night(1) + "/attempts/cell-0002/1");
  Edit(Night(1) + "/attempts/cell-0002/1/cell.json", [&hostile](Json& json) {
    json["state"] = "failed";
    json["reason"] = hostile;
  });
  const FleetReport report = Judged(ReadFleet(Dir()));
  EXPECT_EQ(DataOf(FleetPage(report)).at("not_done").at(0).at("reason"), hostile);
  for (const std::string& text : {FleetPage(report), FleetJunit(report)})
    EXPECT_THAT(text, Not(HasSubstr("<script>alert")));
}

TEST(FleetReportTest, ManyBoardsAreCutAndThePageStaysSmall) {
  Fleet fleet = MadeFleet(1, {2000, 30, 1}).InMemory();
  for (FleetValue& value : fleet.values) {
    if (value.board < 100 && value.night == 29) value.middle -= 0.5;
  }
  const FleetReport report = Judged(std::move(fleet));
  EXPECT_EQ(report.verdict.standOut.size(), 100U);
  const std::string text = FleetText(report, {});
  EXPECT_LT(std::count(text.begin(), text.end(), '\n'), 60);
  EXPECT_THAT(text, HasSubstr("more findings; --json and the page have more\n"));
  // At 10,000 boards five times as much.
  EXPECT_LT(FleetPage(report).size(), 1'000'000U);
}

}  // namespace
