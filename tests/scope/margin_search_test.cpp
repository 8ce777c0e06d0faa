// SPDX-License-Identifier: Apache-2.0

// The search for the edge of settings that work, without runs: on pretended boards, most of them drawn.
#include "margin_search.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <deque>
#include <functional>
#include <random>

#include "margin_map.h"
#include "margin_text.h"
#include "sweep_plan.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using namespace scope;

struct Found {
  std::vector<Trials> trials;
  std::vector<std::size_t> order;  ///< the points that were tried
};

// `fails` says whether the next run at the point fails.
Found Search(const MarginGrid& grid, std::size_t repeats, const std::function<bool(std::size_t)>& fails) {
  Found found;
  found.trials.resize(PointCount(grid));
  while (const std::optional<std::size_t> point = NextPoint(grid, found.trials, repeats)) {
    Trials& at = found.trials[*point];
    ++(fails(*point) ? at.failures : at.passes);
    found.order.push_back(*point);
    if (found.order.size() > found.trials.size() * repeats) break;  // a test that fails should end
  }
  return found;
}

std::vector<bool> FailingOf(const MarginGrid& grid, const Found& found) {
  std::vector<bool> failing;
  for (const Judgement& one : Judge(grid, found.trials)) failing.push_back(one.fails);
  return failing;
}

TEST(MarginSearchTest, HalvesTheValuesOfOneSetting) {
  const MarginGrid grid{{16}, 0};
  const Found found = Search(grid, 4, [](std::size_t point) { return point >= 6; });
  // From the chosen point to the edge: never the far end first, which is likely to hang the board.
  EXPECT_THAT(std::vector<std::size_t>(found.order.begin(), found.order.begin() + 5),
              ElementsAre(0, 8, 4, 6, 5));
  EXPECT_EQ(found.trials[5].passes, 4U);
  EXPECT_EQ(found.trials[6].failures, 1U);
  EXPECT_LE(found.order.size() * 4, 16U * 4);
  const std::vector<Judgement> judgements = Judge(grid, found.trials);
  EXPECT_FALSE(judgements[5].fails);
  EXPECT_EQ(judgements[5].cleanRuns, 4U);
  EXPECT_TRUE(judgements[6].fails);
  EXPECT_TRUE(judgements[15].fails);
}

TEST(MarginSearchTest, LooksInBothDirectionsFromTheChosenPoint) {
  const MarginGrid grid{{21}, 10};
  const Found found = Search(grid, 2, [](std::size_t point) { return point < 7 || point > 15; });
  const std::vector<bool> failing = FailingOf(grid, found);
  for (std::size_t point = 0; point < 21; ++point)
    EXPECT_EQ(failing[point], point < 7 || point > 15) << point;
}

TEST(MarginSearchTest, WhereNothingFailsTheLastValueIsTried) {
  const MarginGrid grid{{16}, 0};
  const Found found = Search(grid, 4, [](std::size_t) { return false; });
  EXPECT_EQ(found.trials[15].passes, 4U);
  for (const Judgement& one : Judge(grid, found.trials)) EXPECT_GE(one.cleanRuns, 4U);
}

TEST(MarginSearchTest, EndsAtOnceWhereTheChosenPointFails) {
  const MarginGrid grid{{8, 8}, 0};
  EXPECT_THAT(Search(grid, 4, [](std::size_t) { return true; }).order, ElementsAre(0));
}

TEST(MarginSearchTest, AFailureInARepeatMovesTheEdge) {
  const MarginGrid grid{{16}, 0};
  std::vector<int> runs(16);
  // 7 passes once, and only once.
  const Found found =
      Search(grid, 4, [&](std::size_t point) { return point >= 8 || (point == 7 && runs[7]++ > 0); });
  EXPECT_EQ(found.trials[7].passes, 1U);
  EXPECT_EQ(found.trials[7].failures, 1U);
  EXPECT_EQ(found.trials[6].passes, 4U);
  // What passed at a point that fails sometimes is no evidence for others.
  EXPECT_EQ(Judge(grid, found.trials)[6].cleanRuns, 4U);
}

TEST(MarginSearchTest, NoPointHasMoreThanItsRepeats) {
  std::mt19937_64 random(5);
  const MarginGrid grid{{5, 6}, 14};
  for (int board = 0; board < 50; ++board) {
    const Found found = Search(grid, 3, [&](std::size_t) { return random() % 5 == 0; });
    for (const Trials& at : found.trials) EXPECT_LE(at.passes + at.failures, 3U);
    // It ends with an answer for every point.
    for (const Judgement& one : Judge(grid, found.trials)) EXPECT_TRUE(one.fails || one.cleanRuns >= 3);
  }
}

TEST(MarginSearchTest, RunsThatAreLeftAreForTheChosenPointAndItsNeighbours) {
  const MarginGrid grid{{10, 10}, 44};
  const Found found = Search(grid, 4, [](std::size_t) { return false; });
  EXPECT_THAT(Neighbours(grid), ElementsAre(34, 43, 45, 54));
  for (const std::size_t point : {44U, 34U, 43U, 45U, 54U})
    EXPECT_EQ(found.trials[point].passes, 4U) << point;
  EXPECT_LE(found.order.size(), 100U);
}

// True if a failure at `other` condemns `point`: it does so for itself and all points farther out.
bool Condemns(const MarginGrid& grid, std::size_t other, std::size_t point) {
  std::vector<Trials> trials(PointCount(grid));
  trials[other].failures = 1;
  return Judge(grid, trials)[point].fails;
}

TEST(MarginSearchTest, FartherOutIsTheSameDirectionInEachSetting) {
  const MarginGrid grid{{5, 5}, 12};
  EXPECT_TRUE(Condemns(grid, 18, 24));
  EXPECT_TRUE(Condemns(grid, 18, 18));
  EXPECT_TRUE(Condemns(grid, 13, 19));  // the first setting as chosen: any of its values
  EXPECT_TRUE(Condemns(grid, 13, 9));
  EXPECT_FALSE(Condemns(grid, 24, 18));
  EXPECT_FALSE(Condemns(grid, 18, 0));
  EXPECT_FALSE(Condemns(grid, 8, 6));
  EXPECT_FALSE(Condemns(grid, 6, 7));  // nearer in a setting below the chosen value
  EXPECT_TRUE(Condemns(grid, 12, 0));
}

TEST(MarginSearchTest, RunsThatSpeakAgainstTheAssumptionAreFound) {
  const MarginGrid grid{{4}, 0};
  using Pairs = std::vector<std::pair<std::size_t, std::size_t>>;
  EXPECT_EQ(Contradictions(grid, {{4, 0}, {0, 4}, {4, 0}, {0, 4}}, 4, 9), (Pairs{{1, 2}}));
  EXPECT_EQ(Contradictions(grid, {{1, 0}, {0, 1}, {1, 0}, {1, 0}}, 1, 9), (Pairs{{1, 2}, {1, 3}}));
  EXPECT_EQ(Contradictions(grid, {{1, 0}, {0, 1}, {1, 0}, {1, 0}}, 1, 1).size(), 1U);
  // At the edge of a board that fails sometimes, one run says little.
  EXPECT_THAT(Contradictions(grid, {{4, 0}, {0, 1}, {1, 0}, {0, 1}}, 4, 9), IsEmpty());
  EXPECT_THAT(Contradictions(grid, {{4, 0}, {3, 1}, {4, 0}, {0, 1}}, 4, 9), IsEmpty());
  // Half of the runs fail, and six farther out did not: 1.6 %.
  EXPECT_EQ(Contradictions(grid, {{4, 0}, {3, 3}, {6, 0}, {0, 1}}, 6, 9), (Pairs{{1, 2}}));
  EXPECT_THAT(Contradictions(grid, {{4, 0}, {3, 3}, {5, 0}, {0, 1}}, 6, 9), IsEmpty());
  EXPECT_THAT(Contradictions(grid, {{4, 0}, {3, 2}, {2, 0}, {0, 1}}, 5, 9), IsEmpty());
  EXPECT_THAT(Contradictions(grid, {{4, 0}, {4, 0}, {0, 1}, {0, 1}}, 4, 9), IsEmpty());
}

/// A board with a hidden region in which runs fail. From the chosen point outwards it begins in each
/// direction somewhere. Beyond its edge, each step more lets fewer runs pass.
class DrawnBoard {
 public:
  DrawnBoard(MarginGrid grid, double firstRate, std::uint64_t seed) : grid_(std::move(grid)), random_(seed) {
    const std::vector<std::size_t> chosen = ValuesOfPoint(grid_, grid_.chosen);
    std::vector<std::pair<double, double>> extents;  // of each setting, down and up
    for (std::size_t i = 0; i < chosen.size(); ++i) {
      const auto room = static_cast<double>(chosen[i]);
      const double above = static_cast<double>(grid_.counts[i] - 1) - room;
      extents.emplace_back(Drawn(0.3, room + 0.5), Drawn(0.3, above + 0.5));
    }
    const double power = Drawn(0.5, 3);  // from hollow to nearly square
    for (std::size_t point = 0; point < PointCount(grid_); ++point) {
      const std::vector<std::size_t> values = ValuesOfPoint(grid_, point);
      double distance = 0;
      for (std::size_t i = 0; i < values.size(); ++i) {
        const double offset = static_cast<double>(values[i]) - static_cast<double>(chosen[i]);
        const double extent = offset < 0 ? extents[i].first : extents[i].second;
        distance += std::pow(std::abs(offset) / extent, power);
      }
      fails_.push_back(distance > 1);
    }
    for (const int steps : StepsBeyond()) rates_.push_back(1 - std::pow(1 - firstRate, steps));
  }

  bool FailsNow(std::size_t point) { return Drawn(0, 1) < rates_[point]; }

  // Each point that is judged wrongly is one step along one setting from a point that is as it was judged.
  bool IsRightWithinOneStep(const std::vector<bool>& judged) const {
    for (std::size_t point = 0; point < judged.size(); ++point) {
      if (judged[point] == fails_[point]) continue;
      bool isNear = false;
      for (const std::size_t other : StepsFrom(point)) isNear = isNear || fails_[other] == judged[point];
      if (!isNear) return false;
    }
    return true;
  }

 private:
  double Drawn(double least, double most) {
    return least + (most - least) * static_cast<double>(random_() >> 11) * 0x1p-53;
  }

  // The points one step away along one setting.
  std::vector<std::size_t> StepsFrom(std::size_t point) const {
    std::vector<std::size_t> steps;
    std::size_t stride = fails_.size();
    for (const std::size_t count : grid_.counts) {
      stride /= count;
      const std::size_t value = point / stride % count;
      if (value > 0) steps.push_back(point - stride);
      if (value + 1 < count) steps.push_back(point + stride);
    }
    return steps;
  }

  // Of each point, the steps from the nearest one that passes.
  std::vector<int> StepsBeyond() const {
    std::vector<int> steps(fails_.size(), -1);
    std::deque<std::size_t> reached;
    for (std::size_t point = 0; point < fails_.size(); ++point) {
      if (fails_[point]) continue;
      steps[point] = 0;
      reached.push_back(point);
    }
    for (; !reached.empty(); reached.pop_front()) {
      for (const std::size_t other : StepsFrom(reached.front())) {
        if (steps[other] >= 0) continue;
        steps[other] = steps[reached.front()] + 1;
        reached.push_back(other);
      }
    }
    return steps;
  }

  MarginGrid grid_;
  std::mt19937_64 random_;
  std::vector<bool> fails_;
  std::vector<double> rates_;
};

struct Tally {
  int right = 0;
  int overQuarter = 0;
  double share = 0;
};

Tally TallyOf(const MarginGrid& grid, std::size_t repeats, double firstRate) {
  constexpr int kBoards = 100;
  Tally tally;
  for (int seed = 1; seed <= kBoards; ++seed) {
    DrawnBoard board(grid, firstRate, static_cast<std::uint64_t>(seed));
    const Found found = Search(grid, repeats, [&board](std::size_t point) { return board.FailsNow(point); });
    const double share =
        static_cast<double>(found.order.size()) / static_cast<double>(found.trials.size() * repeats);
    tally.right += board.IsRightWithinOneStep(FailingOf(grid, found)) ? 1 : 0;
    tally.overQuarter += share > 0.25 ? 1 : 0;
    tally.share += share / kBoards;
  }
  return tally;
}

// The table of docs/margin.md.
TEST(MarginSearchTest, FindsTheEdgesOfDrawnBoards) {
  const struct {
    MarginGrid grid;
    std::size_t repeats;
    double firstRate;  // of runs that fail one step beyond the edge
  } kRows[] = {{{{24}, 0}, 1, 1},     {{{16}, 0}, 4, 1},      {{{16}, 0}, 8, 0.5},
               {{{24}, 11}, 8, 0.5},  {{{10, 10}, 0}, 1, 1},  {{{8, 8}, 0}, 4, 1},
               {{{8, 8}, 0}, 8, 0.5}, {{{8, 8}, 27}, 8, 0.5}, {{{10, 10}, 0}, 8, 0.3}};
  for (const auto& [grid, repeats, firstRate] : kRows) {
    const Tally tally = TallyOf(grid, repeats, firstRate);
    std::string name;
    for (const std::size_t count : grid.counts) name += (name.empty() ? "" : " x ") + std::to_string(count);
    name += ", chosen " + std::to_string(grid.chosen) + ", " + std::to_string(repeats) +
            " repeats, first rate " + std::to_string(firstRate);
    std::printf("%s: right %d of 100, share of the runs %.3f, above a quarter %d\n", name.c_str(),
                tally.right, tally.share, tally.overQuarter);
    EXPECT_GE(tally.right, 95) << name;
    EXPECT_EQ(tally.overQuarter, 0) << name;
  }
}

// A sweep over two settings, 3 x 3, whose runs have these results: p passed, f failed, h hung, . not run.
Sweep SweepOfResults(const std::string& results, int repeats) {
  Sweep sweep;
  sweep.settings.repeats = repeats;
  sweep.boardAxes = {{"refresh", {"10", "20", "30"}}, {"vref", {"1", "2", "3"}}};
  sweep.margin.chosen = {{"refresh", "20"}, {"vref", "2"}};
  sweep.runs = PlanRuns({}, repeats, 1, sweep.boardAxes);
  for (std::size_t i = 0; i < sweep.runs.size(); ++i) {
    SweepRun& run = sweep.runs[i];
    if (results[i] == 'p') run.state = SweepState::kDone;
    if (results[i] == 'f') run.state = SweepState::kFailed;
    if (results[i] == 'h') run.state = SweepState::kHung;
    if (results[i] == 'f' || results[i] == 'h') run.reason = "why " + run.folder;
  }
  return sweep;
}

// The same of a sweep that looks for the edge.
Sweep EdgeOfResults(const std::string& results, int repeats) {
  Sweep sweep = SweepOfResults(results, repeats);
  sweep.margin.edge = true;
  return sweep;
}

std::vector<std::string> SentencesOf(const Sweep& sweep) {
  return MarginSentences(MarginMapOf(sweep, {}));
}

TEST(MarginMapTest, OfAWholeGridEachPointStandsForItself) {
  const MarginMap map = MarginMapOf(SweepOfResults("pp....ppppffffpppp", 2), {});
  std::vector<std::string> states;
  for (const MarginPoint& point : map.points) states.push_back(PointState(point));
  EXPECT_THAT(states, ElementsAre("pass 2/2", "-", "-", "pass 2/2", "pass 2/2", "fail 2/2", "fail 2/2",
                                  "pass 2/2", "pass 2/2"));
  EXPECT_EQ(map.points[4].judgement.cleanRuns, 2U);
  EXPECT_THAT(map.doubts, IsEmpty());
  EXPECT_THAT(MarginText(map), ::testing::Not(HasSubstr("brackets")));
  EXPECT_THAT(
      SentencesOf(SweepOfResults("pp....ppppffffpppp", 2)),
      ElementsAre(
          "refresh=20 vref=2 passes. No failure in 2 runs there, too few for a failure rate.",
          "refresh towards 10: no result yet for 1 value after 20.",
          "refresh towards 30: passes to 30, 1 step away, the last value. No failure in 2 runs there, "
          "too few for a failure rate.",
          "vref towards 1: passes to 1, 1 step away, the last value. No failure in 2 runs there, "
          "too few for a failure rate.",
          "vref towards 3: the next value, 3, fails."));
}

// One setting of six values, of which the first is chosen. A whole grid that is not recorded to its end.
TEST(MarginMapTest, WhatIsNotRecordedYetIsNotSaidToPassOrToFail) {
  const auto sentence = [](const std::string& results) {
    Sweep sweep;
    sweep.boardAxes = {{"vref", {"1", "2", "3", "4", "5", "6"}}};
    sweep.margin.chosen = {{"vref", "1"}};
    sweep.runs = PlanRuns({}, 1, 1, sweep.boardAxes);
    for (std::size_t i = 0; i < sweep.runs.size(); ++i) {
      if (results[i] == 'p') sweep.runs[i].state = SweepState::kDone;
      if (results[i] == 'f') sweep.runs[i].state = SweepState::kFailed;
    }
    const std::string text = SentencesOf(sweep).back();
    return text.substr(0, text.find('.'));
  };
  EXPECT_EQ(sentence("p....."), "vref towards 6: no result yet for 5 values after 1");
  EXPECT_EQ(sentence("p..pf."), "vref towards 6: no result yet for 2 values before 5; 5 fails");
  EXPECT_EQ(sentence("pp.p.."),
            "vref towards 6: passes to 2, 1 step away; no result yet for 3 values after 2");
  EXPECT_EQ(sentence("pp.pfp"),
            "vref towards 6: passes to 2, 1 step away; no result yet for 1 value before 5; 5 fails");
  EXPECT_EQ(sentence("pfpppp"), "vref towards 6: the next value, 2, fails");
  EXPECT_EQ(sentence("pppppp"), "vref towards 6: passes to 6, 5 steps away, the last value");
  EXPECT_EQ(sentence(".ppppp"), "There is no result of vref=1 yet");
}

TEST(MarginMapTest, SaysWhatIsKnownOfEachPoint) {
  const MarginMap map = MarginMapOf(EdgeOfResults("pp....ppppfphh....", 2), {});
  std::vector<std::string> states;
  for (const MarginPoint& point : map.points) states.push_back(PointState(point));
  EXPECT_THAT(states, ElementsAre("pass 2/2", "(pass)", "(fail)", "pass 2/2", "pass 2/2", "fail 1/2",
                                  "hang 2/2", "-", "(fail)"));
  EXPECT_EQ(map.runs, 10U);
  EXPECT_EQ(map.gridRuns, 18U);
  EXPECT_EQ(map.points[4].judgement.cleanRuns, 6U);
  EXPECT_THAT(map.points[5].reasons, ElementsAre("why run-0011"));
  EXPECT_THAT(map.doubts, IsEmpty());
}

TEST(MarginMapTest, SaysHowFarTheChosenPointIsFromTheEdge) {
  const auto sentences = [](const std::string& results, int repeats) {
    return SentencesOf(EdgeOfResults(results, repeats));
  };
  EXPECT_THAT(
      sentences("pp....ppppfphh....", 2),
      ElementsAre(
          "refresh=20 vref=2 passes. No failure in 2 runs there, too few for a failure rate.",
          "refresh towards 10: passes to 10, 1 step away, the last value. No run was made there: that "
          "follows from points farther out.",
          "refresh towards 30: no result yet for 1 value after 20.",
          "vref towards 1: passes to 1, 1 step away, the last value. No failure in 2 runs there, "
          "too few for a failure rate.",
          "vref towards 3: the next value, 3, fails."));
  const std::string before(4 * 6, '.');
  EXPECT_EQ(
      sentences(before + "pppppp" + before, 6).front(),
      "refresh=20 vref=2 passes. No failure in 6 runs there: the failure rate is below 0.5 per run (95 %).");
  EXPECT_THAT(sentences("........pf........", 2),
              ElementsAre("refresh=20 vref=2 fails: 1 of 2 runs. It has no margin."));
  EXPECT_THAT(sentences("..................", 2),
              ElementsAre("There is no result of refresh=20 vref=2 yet."));
}

TEST(MarginMapTest, SaysWhatSpeaksAgainstIt) {
  Sweep sweep = EdgeOfResults("pp....ppppppffpppp", 2);
  sweep.runs[0].lost = 2;
  const MarginMap map = MarginMapOf(sweep, {});
  EXPECT_THAT(map.doubts,
              ElementsAre(HasSubstr("run-0001 (refresh=10 vref=1) came to its end, but before that "
                                    "the machine or the recorder died in it 2 times")));
  sweep = EdgeOfResults("pp....ppffppffpppp", 2);
  EXPECT_THAT(
      MarginMapOf(sweep, {}).doubts,
      ::testing::Contains("refresh=20 vref=2 failed in 2 of 2 runs, but refresh=10 vref=1, which is farther "
                          "out, passed in 2 of 2 runs. Here a farther point does not always fail more often. "
                          "Record the whole grid, without --edge"));
  EXPECT_THAT(MarginMapOf(SweepOfResults("pp....ppffppffpppp", 2), {}).doubts, IsEmpty());
}

TEST(MarginMapTest, IsATableOfTwoSettings) {
  const std::string text = MarginText(MarginMapOf(EdgeOfResults("pp....ppppfphh....", 2), {}));
  EXPECT_THAT(text, HasSubstr("Margin of refresh=20 vref=2, marked with *. The grid has 18 runs, 10 with a "
                              "result.\n"
                              "In brackets: follows from other points.\n"));
  EXPECT_THAT(text, HasSubstr("            vref=1    vref=2      vref=3\n"
                              "refresh=10  pass 2/2  (pass)      (fail)\n"
                              "refresh=20  pass 2/2  pass 2/2 *  fail 1/2\n"
                              "refresh=30  hang 2/2  -           (fail)\n"));
  EXPECT_THAT(
      text,
      HasSubstr("\nWhy runs failed\n  refresh=20 vref=3: why run-0011\n  refresh=30 vref=1: why run-0013\n"));
}

}  // namespace
