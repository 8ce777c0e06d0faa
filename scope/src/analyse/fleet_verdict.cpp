// SPDX-License-Identifier: Apache-2.0
#include "fleet_verdict.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <tuple>

#include "distributions.h"
#include "fleet_nights.h"
#include "robust.h"
#include "statistics.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr double kHundred = 100;
// How the allowed error is shared: odd boards, boards that are worse than before, a fleet that is.
constexpr double kShareOfOdd = 0.5;
constexpr double kShareOfBefore = 0.4;
constexpr double kShareOfFleet = 0.1;
// A board's own scatter is known from these nights on. Before, that of the fleet stands for it.
constexpr int kFewestOwnNights = 5;
// The median of n values has the variance of the mean of n / 1.57 values.
constexpr double kMedianVariance = 1.57;
constexpr int kFewestNights = static_cast<int>(kFewestNightsBefore);
constexpr std::size_t kMostLacking = 20;  // lines
// A board that scatters more than this from night to night, in the scatter of the middle one, counts as if it
// scattered that much.
constexpr double kGreatestScatter = 3;
// The deviations of boards (RobustCentre) are known as well as those of so much fewer values.
constexpr double kEfficiency = 0.37;

// A board's last night in a measure.
struct Last {
  const FleetValue* value = nullptr;
  const BoardHistory* before = nullptr;  // null: none
};

using MeasureKey = std::tuple<SweepLevels, BoardSettings, std::string, Figure>;

MeasureKey KeyOf(const FleetMeasure& measure) {
  return {measure.levels, measure.settings, measure.engine, measure.figure};
}

double PercentOfLog(double difference) {
  return std::expm1(difference) * kHundred;
}

class FleetJudge {
 public:
  FleetJudge(const Fleet& fleet, const FleetHistory& before, const FleetOptions& options)
      : fleet_(fleet), options_(options), last_(static_cast<std::uint16_t>(fleet.nights.size() - 1)) {
    for (const MeasureHistory& each : before.measures) histories_[KeyOf(each.measure)] = &each;
    verdict_.measures.resize(fleet.measures.size());
    verdict_.boards.resize(fleet.boards.size());
  }

  FleetVerdict Run() {
    for (const std::uint32_t measure : JudgedMeasures(fleet_, options_))
      verdict_.measures[measure].judged = true;
    DescribeNights(fleet_, verdict_);
    CountTests();
    std::set<std::uint32_t> compared;
    std::set<std::uint32_t> comparedBefore;
    for (std::uint32_t measure = 0; measure < fleet_.measures.size(); ++measure) {
      if (!verdict_.measures[measure].judged) continue;
      const std::vector<Last> last = LastOf(measure);
      for (const Last& each : last) {
        if (last.size() >= kFewestForOutliers) compared.insert(each.value->board);
        if (each.before != nullptr) comparedBefore.insert(each.value->board);
      }
      JudgeOdd(measure, last);
      JudgeBefore(measure, last);
    }
    verdict_.judgedBoards = compared.size();
    verdict_.judgedBefore = comparedBefore.size();
    SetStates();
    Explain();
    return std::move(verdict_);
  }

 private:
  // What was not judged, and why.
  void Explain() {
    if (verdict_.judgedBoards == 0) {
      verdict_.notes.push_back("the boards are not compared with each other: that takes " +
                               std::to_string(kFewestForOutliers) + " boards with runs at the same point");
    }
    if (verdict_.judgedBefore == 0) {
      verdict_.notes.push_back("no board is compared with what it was before: that takes " +
                               std::to_string(kFewestNights) +
                               " nights before the last one, or a baseline of as many");
    }
    std::size_t lacking = 0;
    for (std::size_t i = 0; i < verdict_.boards.size(); ++i) {
      for (const std::string& text : verdict_.boards[i].lacking) {
        if (++lacking <= kMostLacking) verdict_.notes.push_back(fleet_.boards[i] + ": " + text);
      }
    }
    if (lacking > kMostLacking)
      verdict_.notes.push_back(Counted(lacking - kMostLacking, "more figure") + " missing of done cells");
  }

  double Error() const { return 1 - options_.confidence; }

  std::vector<Last> LastOf(std::uint32_t measure) const {
    const auto at = histories_.find(KeyOf(fleet_.measures[measure]));
    std::map<std::string, const BoardHistory*> histories;
    if (at != histories_.end()) {
      for (const BoardHistory& each : at->second->boards) {
        if (each.nights >= kFewestNights) histories[each.board] = &each;
      }
    }
    std::vector<Last> last;
    const auto [from, to] = SpanOf(fleet_, measure);
    for (std::size_t i = from; i < to; ++i) {
      if (fleet_.values[i].night != last_) continue;
      const auto before = histories.find(fleet_.boards[fleet_.values[i].board]);
      last.push_back({&fleet_.values[i], before == histories.end() ? nullptr : before->second});
    }
    return last;
  }

  // Each question of a board and a measure gets an equal part of the error.
  void CountTests() {
    for (std::uint32_t measure = 0; measure < fleet_.measures.size(); ++measure) {
      if (!verdict_.measures[measure].judged) continue;
      ++judged_;
      const std::vector<Last> last = LastOf(measure);
      if (last.size() >= kFewestForOutliers) oddTests_ += last.size();
      for (const Last& each : last) beforeTests_ += each.before != nullptr ? 1 : 0;
    }
  }

  void Add(FleetFinding::Kind kind, std::uint32_t measure, const FleetValue& value, double expected,
           double reach) {
    FleetFinding finding;
    finding.kind = kind;
    finding.measure = measure;
    finding.board = value.board;
    finding.value = std::exp(value.middle);
    finding.expected = std::exp(expected);
    const double tolerance = options_.tolerancePercent / kHundred;
    finding.low = std::min(std::exp(expected - reach), finding.expected * (1 - tolerance));
    finding.high = std::max(std::exp(expected + reach), finding.expected * (1 + tolerance));
    finding.differencePercent = PercentOfLog(value.middle - expected);
    if (std::abs(finding.differencePercent) <= options_.tolerancePercent) return;
    verdict_.findings.push_back(finding);
    BoardVerdict& board = verdict_.boards[value.board];
    (kind == FleetFinding::Kind::kOdd ? board.odd : board.worse) = true;
  }

  void JudgeOdd(std::uint32_t measure, const std::vector<Last>& last) {
    if (last.size() < kFewestForOutliers) return;
    std::vector<double> values;
    std::vector<double> runs;
    for (const Last& each : last) {
      values.push_back(each.value->middle);
      runs.push_back(each.value->runs);
    }
    const RobustCentre centre = FindCentre(values);
    const double usual = Median(runs);
    // A board with fewer runs than most scatters more.
    std::vector<double> widths;
    for (std::size_t i = 0; i < values.size(); ++i) {
      const double more = MoreVariance(measure, runs[i], usual);
      const double variance = centre.deviation * centre.deviation;
      widths.push_back(variance > 0 ? std::sqrt(1 + more / variance) : 1);
      values[i] = centre.middle + (values[i] - centre.middle) / widths.back();
    }
    const double error = Error() * kShareOfOdd * static_cast<double>(values.size()) /
                         static_cast<double>(std::max<std::size_t>(oddTests_, 1));
    const Outliers outliers = FindOutliers(values, error);
    for (const std::size_t odd : outliers.odd) {
      Add(FleetFinding::Kind::kOdd, measure, *last[odd].value, outliers.middle,
          outliers.reach * outliers.deviation * widths[odd]);
    }
  }

  bool IsWorse(std::uint32_t measure, double difference) const {
    return KindOf(fleet_.measures[measure].figure).lowerIsBetter ? difference > 0 : difference < 0;
  }

  // By how much fewer runs than `usual` make a value scatter more, as a variance.
  double MoreVariance(std::uint32_t measure, double runs, double usual) const {
    const double deviation = verdict_.measures[measure].runDeviation;
    return runs > 0 && usual > 0 ? std::max(0.0, 1 / runs - 1 / usual) * deviation * deviation : 0;
  }

  // A change of the whole fleet against its scatter from night to night.
  void JudgeChange(std::uint32_t measure, double change, const std::vector<Last>& last,
                   const MeasureHistory& history) {
    const double nights = history.nights;
    std::vector<double> runs;
    for (const Last& each : last) runs.push_back(each.value->runs);
    const double more = MoreVariance(measure, Median(std::move(runs)), history.runs) * kMedianVariance /
                        static_cast<double>(last.size());
    const double t = StudentQuantile(1 - Error() * kShareOfFleet / judged_, nights - 1);
    const double variance = history.deviation * history.deviation;
    const double reach = t * std::sqrt(variance * (1 + kMedianVariance / nights) + more);
    FleetChange found;
    found.differencePercent = PercentOfLog(change);
    found.limitPercent = PercentOfLog(reach);
    found.worse = IsWorse(measure, change) && std::abs(change) > reach &&
                  std::abs(found.differencePercent) > options_.tolerancePercent;
    verdict_.measures[measure].change = found;
  }

  void JudgeBefore(std::uint32_t measure, std::vector<Last> last) {
    last.erase(
        std::remove_if(last.begin(), last.end(), [](const Last& each) { return each.before == nullptr; }),
        last.end());
    if (last.empty()) return;
    const MeasureHistory& history = *histories_.at(KeyOf(fleet_.measures[measure]));
    double shared = 0;
    double sharedVariance = 0;
    // What all boards share is the fleet's, not a board's. It is taken out only where it is judged.
    if (last.size() >= kFewestForOutliers && history.nights >= kFewestNights) {
      std::vector<double> changes;
      for (const Last& each : last) changes.push_back(each.value->middle - each.before->middle);
      shared = Median(std::move(changes));
      sharedVariance = kMedianVariance / static_cast<double>(last.size());
      JudgeChange(measure, shared, last, history);
    }
    CompareNights(measure, last, shared, sharedVariance);
  }

  // The boards' scatter from night to night, together: its variance and degrees of freedom. A board that
  // scatters far more than most must not hide what happens to others.
  static std::pair<double, double> NightVariance(const std::vector<Last>& last) {
    std::vector<double> deviations;
    for (const Last& each : last) deviations.push_back(each.before->deviation);
    const double most = kGreatestScatter * Median(deviations);
    double squares = 0;
    double freedoms = 0;
    for (std::size_t i = 0; i < last.size(); ++i) {
      const double deviation = most > 0 ? std::min(deviations[i], most) : deviations[i];
      const double freedom = last[i].before->nights - 1;
      squares += deviation * deviation * freedom;
      freedoms += freedom;
    }
    return {squares / freedoms, std::max(1.0, kEfficiency * freedoms)};
  }

  // Each board's change against those from night to night before: that holds however many boards have
  // changed. `sharedVariance`: of `shared`, in that of a board; 0 if nothing is taken out.
  void CompareNights(std::uint32_t measure, const std::vector<Last>& last, double shared,
                     double sharedVariance) {
    const MeasureHistory& history = *histories_.at(KeyOf(fleet_.measures[measure]));
    const auto [boards, freedom] = NightVariance(last);
    // The history of a board is apart from what all boards shared, so that comes on top.
    const double fleet = sharedVariance > 0 ? 0 : history.deviation * history.deviation;
    const double nights = history.nights > 1 ? history.nights - 1 : 1;
    const double both = boards + fleet;
    // The degrees of freedom of the sum of two variances (Welch and Satterthwaite).
    const double freedoms =
        fleet > 0 ? both * both / (boards * boards / freedom + fleet * fleet / nights) : freedom;
    const double error = Error() * kShareOfBefore / static_cast<double>(beforeTests_);
    const double t = StudentQuantile(1 - error, std::max(1.0, freedoms));
    for (const Last& each : last) {
      const BoardHistory& before = *each.before;
      const double own = before.nights >= kFewestOwnNights ? before.deviation * before.deviation : 0;
      // How much the difference between a night and the median of others scatters, compared with a night.
      const double width = 1 + kMedianVariance / before.nights + sharedVariance;
      const double variance =
          (std::max(boards, own) + fleet) * width + MoreVariance(measure, each.value->runs, history.runs);
      AddIfWorse(measure, *each.value, before.middle + shared, t * std::sqrt(variance));
    }
  }

  void AddIfWorse(std::uint32_t measure, const FleetValue& value, double expected, double reach) {
    const double difference = value.middle - expected;
    if (IsWorse(measure, difference) && std::abs(difference) > reach)
      Add(FleetFinding::Kind::kWorse, measure, value, expected, reach);
  }

  static BoardState StateOf(const BoardVerdict& board) {
    const auto count = [&board](CellState state) { return board.cells[static_cast<std::size_t>(state)]; };
    std::size_t all = 0;
    for (const std::uint32_t each : board.cells) all += each;
    if (board.errorCells != 0) return BoardState::kErrors;
    if (board.odd) return BoardState::kOdd;
    if (board.worse) return BoardState::kWorse;
    if (count(CellState::kFailed) + count(CellState::kDamaged) != 0) return BoardState::kFailed;
    if (all == 0) return board.ranBefore ? BoardState::kVanished : BoardState::kAbsent;
    if (count(CellState::kDone) == 0) return BoardState::kNoRuns;
    const bool isWhole = count(CellState::kDone) == all && board.lacking.empty();
    return isWhole ? BoardState::kGood : BoardState::kIncomplete;
  }

  void SetStates() {
    const std::vector<CellCounts>& cells = fleet_.nights.back().cells;
    FindLastSeen(fleet_, verdict_);
    FindLacking(fleet_, verdict_);
    FindErrors(fleet_, verdict_);
    for (std::uint32_t i = 0; i < verdict_.boards.size(); ++i) {
      BoardVerdict& board = verdict_.boards[i];
      if (i < cells.size()) board.cells = cells[i];
      board.state = StateOf(board);
      // These cells are no board's.
      if (board.state == BoardState::kNoRuns && fleet_.boards[i] == kAnyBoard)
        board.state = BoardState::kIncomplete;
      if (board.state < BoardState::kVanished) continue;
      verdict_.isGood = false;
      verdict_.standOut.push_back(i);
    }
    for (const MeasureVerdict& measure : verdict_.measures) {
      if (measure.change && measure.change->worse) verdict_.isGood = false;
    }
    std::sort(verdict_.findings.begin(), verdict_.findings.end(),
              [](const FleetFinding& a, const FleetFinding& b) {
                return std::tuple(a.board, -std::abs(a.differencePercent)) <
                       std::tuple(b.board, -std::abs(b.differencePercent));
              });
    std::map<std::uint32_t, double> greatest;
    for (const FleetFinding& finding : verdict_.findings)
      greatest.try_emplace(finding.board, std::abs(finding.differencePercent));
    const auto rank = [&](std::uint32_t board) {
      const auto at = greatest.find(board);
      return std::tuple(-static_cast<int>(verdict_.boards[board].state),
                        at == greatest.end() ? 0 : -at->second, board);
    };
    std::sort(verdict_.standOut.begin(), verdict_.standOut.end(),
              [&rank](std::uint32_t a, std::uint32_t b) { return rank(a) < rank(b); });
  }

  const Fleet& fleet_;
  const FleetOptions& options_;
  std::uint16_t last_;
  std::map<MeasureKey, const MeasureHistory*> histories_;
  FleetVerdict verdict_;
  int judged_ = 0;
  std::size_t oddTests_ = 0;
  std::size_t beforeTests_ = 0;
};

}  // namespace

FleetVerdict JudgeFleet(const Fleet& fleet, const FleetHistory& before, const FleetOptions& options) {
  return FleetJudge(fleet, before, options).Run();
}

std::size_t CountOf(const FleetVerdict& verdict, BoardState state) {
  return static_cast<std::size_t>(
      std::count_if(verdict.boards.begin(), verdict.boards.end(),
                    [state](const BoardVerdict& board) { return board.state == state; }));
}

const char* NameOf(BoardState state) {
  switch (state) {
    case BoardState::kGood:
      return "good";
    case BoardState::kIncomplete:
      return "incomplete";
    case BoardState::kAbsent:
      return "absent";
    case BoardState::kNoRuns:
      return "no runs";
    case BoardState::kVanished:
      return "vanished";
    case BoardState::kFailed:
      return "failed";
    case BoardState::kWorse:
      return "worse";
    case BoardState::kOdd:
      return "odd";
    case BoardState::kErrors:
      return "errors";
  }
  return "";
}

}  // namespace scope
