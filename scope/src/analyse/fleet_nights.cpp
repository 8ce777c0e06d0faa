// SPDX-License-Identifier: Apache-2.0
#include "fleet_nights.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "compare_figures.h"
#include "statistics.h"

namespace scope {
namespace {

constexpr double kBeyondSpread = 0.05;  // of the boards, at either end
constexpr double kGreatestIndex = 10;   // a logarithm: the page shows it

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
  double squares = 0;
  for (std::size_t i = from; i < to; ++i) {
    const FleetValue& value = fleet.values[i];
    nights[value.night].push_back(value.middle);
    all.push_back(value.middle);
    squares += static_cast<double>(value.squares);
    verdict.runFreedom += value.runs - 1;
  }
  if (verdict.runFreedom > 0) verdict.runDeviation = std::sqrt(squares / verdict.runFreedom);
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

}  // namespace scope
