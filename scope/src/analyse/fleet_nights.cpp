// SPDX-License-Identifier: Apache-2.0
#include "fleet_nights.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "compare_figures.h"
#include "fleet_reader.h"
#include "run_error.h"
#include "statistics.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr double kBeyondSpread = 0.05;  // of the boards, at either end
constexpr double kGreatestIndex = 10;   // a logarithm: the page shows it

// The runs of a board and night that scatter more than this, as a variance in those of most boards, count as
// if they scattered that much. Two runs with a normal distribution do that once in 1300 cases.
constexpr double kGreatestVariance = 25;

// The scatter of runs within a night. A single run that failed must not widen the limits of all boards.
double RunDeviation(const std::vector<std::pair<double, double>>& squaresAndFreedoms) {
  std::vector<double> variances;
  double freedoms = 0;
  for (const auto& [squares, freedom] : squaresAndFreedoms) {
    variances.push_back(squares / freedom);
    freedoms += freedom;
  }
  if (variances.empty()) return 0;
  const double most = kGreatestVariance * Median(variances);
  double sum = 0;
  for (const auto& [squares, freedom] : squaresAndFreedoms)
    sum += most > 0 ? std::min(squares, most * freedom) : squares;
  return std::sqrt(sum / freedoms);
}

// The sum of a board's judged values of a night, as logarithms, and their number.
using NightSums = std::vector<std::pair<double, int>>;

NightSpread SpreadOf(const std::vector<double>& values) {
  if (values.empty()) return {};
  return {values.size(), std::exp(Median(values)), std::exp(Quantile(values, kBeyondSpread)),
          std::exp(Quantile(values, 1 - kBeyondSpread))};
}

void DescribeMeasure(const Fleet& fleet, std::uint32_t measure, MeasureVerdict& verdict,
                     std::vector<NightSums>& sums) {
  const auto [from, to] = SpanOf(fleet, measure);
  std::vector<std::vector<double>> nights(fleet.nights.size());
  std::vector<double> all;
  std::vector<std::pair<double, double>> squares;
  for (std::size_t i = from; i < to; ++i) {
    const FleetValue& value = fleet.values[i];
    nights[value.night].push_back(value.middle);
    all.push_back(value.middle);
    if (value.runs > 1) squares.emplace_back(static_cast<double>(value.squares), value.runs - 1);
    verdict.runFreedom += value.runs - 1;
  }
  verdict.runDeviation = RunDeviation(squares);
  for (const std::vector<double>& night : nights) verdict.nights.push_back(SpreadOf(night));
  if (!verdict.judged || all.empty()) return;
  const double middle = Median(std::move(all));
  for (std::size_t i = from; i < to; ++i) {
    const FleetValue& value = fleet.values[i];
    auto& [sum, count] = sums[value.board][value.night];
    sum += value.middle - middle;
    ++count;
  }
}

}  // namespace

std::set<std::uint32_t> JudgedMeasures(const Fleet& fleet, const FleetOptions& options) {
  // The engines of a point, and those with an exact rate.
  std::map<std::uint32_t, std::set<std::string>> engines;
  std::set<std::pair<std::uint32_t, std::string>> exact;
  for (const FleetMeasure& measure : fleet.measures) {
    if (measure.engine != kAllEngines) engines[measure.point].insert(measure.engine);
    if (measure.figure == Figure::kOperations) exact.insert({measure.point, measure.engine});
  }
  std::set<std::uint32_t> judged;
  for (std::uint32_t i = 0; i < fleet.measures.size(); ++i) {
    const FleetMeasure& measure = fleet.measures[i];
    bool isJudged = options.figures.count(measure.figure) != 0;
    if (options.figures.empty()) {
      const bool isTotal = measure.engine == kAllEngines && measure.figure == Figure::kBandwidth;
      const bool hasExact = exact.count({measure.point, measure.engine}) != 0;
      // The total of one engine is that engine's.
      isJudged = isTotal ? engines[measure.point].size() != 1
                         : measure.figure == Figure::kOperations ||
                               (measure.figure == Figure::kPrinted && !hasExact);
    }
    if (isJudged) judged.insert(i);
  }
  return judged;
}

void DescribeNights(const Fleet& fleet, FleetVerdict& verdict) {
  std::vector<NightSums> sums(fleet.boards.size(), NightSums(fleet.nights.size()));
  for (std::uint32_t measure = 0; measure < fleet.measures.size(); ++measure)
    DescribeMeasure(fleet, measure, verdict.measures[measure], sums);
  for (std::size_t board = 0; board < sums.size(); ++board) {
    for (const auto& [sum, count] : sums[board]) {
      const double index = count == 0 ? 0 : std::exp(std::min(sum / count, kGreatestIndex)) * 100;
      verdict.boards[board].index.push_back(static_cast<float>(index));
    }
  }
}

void FindLastSeen(const Fleet& fleet, FleetVerdict& verdict) {
  const FleetNight& last = fleet.nights.back();
  std::optional<std::size_t> before;
  for (std::size_t night = 0; night < fleet.nights.size(); ++night) {
    const FleetNight& one = fleet.nights[night];
    if (night + 1 < fleet.nights.size() && one.setup == last.setup) before = night;
    for (std::size_t board = 0; board < one.cells.size(); ++board) {
      if (one.cells[board][static_cast<std::size_t>(CellState::kDone)] != 0)
        verdict.boards[board].lastSeen = night;
    }
  }
  for (BoardVerdict& board : verdict.boards)
    board.ranBefore = !last.hasOpenCells && before && board.lastSeen && *board.lastSeen >= *before;
}

void FindLacking(const Fleet& fleet, FleetVerdict& verdict) {
  // By point: the boards and how many cells they have done.
  std::map<std::uint32_t, std::map<std::uint32_t, std::size_t>> done;
  for (const DoneCell& cell : fleet.done) ++done[cell.point][cell.board];
  for (std::uint32_t i = 0; i < fleet.measures.size(); ++i) {
    const FleetMeasure& measure = fleet.measures[i];
    if (!verdict.measures[i].judged) continue;
    std::map<std::uint32_t, std::size_t> left = done[measure.point];
    const std::size_t boards = left.size();
    const auto [from, to] = SpanOf(fleet, i);
    for (std::size_t at = from; at < to; ++at) {
      const FleetValue& value = fleet.values[at];
      const auto found = left.find(value.board);
      if (value.night + 1U != fleet.nights.size() || found == left.end()) continue;
      found->second -= std::min<std::size_t>(found->second, value.runs);
      if (found->second == 0) left.erase(found);
    }
    if (2 * left.size() >= boards) continue;
    for (const auto& [board, cells] : left) {
      verdict.boards[board].lacking.push_back(Counted(cells, "cell") + " done without " +
                                              MeasureTitle(measure, true));
    }
  }
}

void FindErrors(const Fleet& fleet, FleetVerdict& verdict) {
  for (const ErrorCell& cell : fleet.errors) {
    BoardVerdict& board = verdict.boards[cell.board];
    AddErrors(cell.errors, board.errors);
    ++board.errorCells;
  }
  std::size_t nights = 0;
  std::set<std::size_t> boards;
  for (std::size_t night = 0; night + 1 < fleet.nights.size(); ++night) {
    if (fleet.nights[night].setup != fleet.nights.back().setup) continue;
    const std::vector<std::uint64_t>& errors = fleet.nights[night].errors;
    for (std::size_t board = 0; board < errors.size(); ++board) {
      if (errors[board] == 0) continue;
      ++nights;
      boards.insert(board);
    }
  }
  if (nights == 0) return;
  verdict.notes.push_back(Counted(boards.size(), "board") + " found errors in earlier nights: " +
                          Counted(nights, "night") + " of a board are left out of what boards did before");
}

}  // namespace scope
