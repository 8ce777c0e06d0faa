// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <map>
#include <optional>

#include "fleet_verdict.h"
#include "robust.h"
#include "statistics.h"

namespace scope {
namespace {

// A night that is farther from the others than this, in their standard deviations, counts as if it were
// that far: one night without power must not hide all later changes. Fewer nights have no such scale.
constexpr double kFarthestNight = 5;
constexpr std::size_t kFewestForScale = 5;

double NightDeviation(std::vector<double> medians) {
  if (medians.size() < 2) return 0;
  const RobustCentre centre = FindCentre(medians);
  const double reach = kFarthestNight * centre.deviation;
  for (double& median : medians) {
    if (medians.size() >= kFewestForScale && reach > 0)
      median = std::clamp(median, centre.middle - reach, centre.middle + reach);
  }
  return StandardDeviation(medians);
}

// The values of a measure in the first `nights` nights. A night in which a board found errors says nothing
// about what is usual for it.
std::vector<FleetValue> UsualValues(const Fleet& fleet, std::uint32_t measure, std::size_t nights) {
  std::vector<FleetValue> values;
  const auto [from, to] = SpanOf(fleet, measure);
  for (std::size_t i = from; i < to; ++i) {
    const FleetValue& value = fleet.values[i];
    if (value.night < nights && !HadErrors(fleet.nights[value.night], value.board)) values.push_back(value);
  }
  return values;
}

// The median of each night that has enough boards for one.
std::map<std::uint16_t, double> MediansOf(const std::vector<FleetValue>& all) {
  std::map<std::uint16_t, std::vector<double>> values;
  for (const FleetValue& value : all) values[value.night].push_back(value.middle);
  std::map<std::uint16_t, double> medians;
  for (auto& [night, each] : values) {
    if (each.size() >= kFewestForOutliers) medians[night] = Median(std::move(each));
  }
  return medians;
}

// The history of a board from its values [first, last). The boards of a fleet share what a night does to
// them.
std::optional<BoardHistory> BoardOf(const Fleet& fleet, const FleetValue* first, const FleetValue* last,
                                    const std::map<std::uint16_t, double>& medians) {
  std::vector<double> values;
  std::vector<double> apart;
  for (const FleetValue* value = first; value != last; ++value) {
    const auto median = medians.find(value->night);
    if (!medians.empty() && median == medians.end()) continue;
    values.push_back(value->middle);
    apart.push_back(value->middle - (medians.empty() ? 0 : median->second));
  }
  if (values.empty()) return std::nullopt;
  BoardHistory history;
  history.board = fleet.boards[first->board];
  history.nights = static_cast<int>(values.size());
  history.middle = Median(std::move(values));
  history.deviation = FindCentre(std::move(apart)).deviation;
  return history;
}

}  // namespace

std::pair<std::size_t, std::size_t> SpanOf(const Fleet& fleet, std::uint32_t measure) {
  const auto less = [](const FleetValue& value, std::uint32_t wanted) { return value.measure < wanted; };
  const auto begin = fleet.values.begin();
  const auto from = std::lower_bound(begin, fleet.values.end(), measure, less);
  const auto to = std::lower_bound(from, fleet.values.end(), measure + 1, less);
  return {static_cast<std::size_t>(from - begin), static_cast<std::size_t>(to - begin)};
}

FleetHistory HistoryOf(const Fleet& fleet, std::size_t nights, const std::string& made) {
  FleetHistory history;
  history.setup = fleet.nights.back().setup;
  history.made = made;
  for (std::size_t night = 0; night < nights; ++night) {
    if (fleet.nights[night].setup == history.setup) history.nights.push_back(fleet.nights[night].name);
  }
  for (std::uint32_t measure = 0; measure < fleet.measures.size(); ++measure) {
    const std::vector<FleetValue> values = UsualValues(fleet, measure, nights);
    const FleetValue* const last = values.data() + values.size();
    const auto medians = MediansOf(values);
    MeasureHistory one;
    one.measure = fleet.measures[measure];
    one.nights = static_cast<int>(medians.size());
    std::vector<double> all;
    for (const auto& [night, median] : medians) all.push_back(median);
    one.deviation = NightDeviation(std::move(all));
    std::vector<double> runs;
    for (const FleetValue& value : values) runs.push_back(value.runs);
    if (!runs.empty()) one.runs = Median(std::move(runs));
    for (const FleetValue* first = values.data(); first != last;) {
      const FleetValue* next = first;
      while (next != last && next->board == first->board) ++next;
      if (auto board = BoardOf(fleet, first, next, medians)) one.boards.push_back(std::move(*board));
      first = next;
    }
    if (!one.boards.empty()) history.measures.push_back(std::move(one));
  }
  return history;
}

}  // namespace scope
