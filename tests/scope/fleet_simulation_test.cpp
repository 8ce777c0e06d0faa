// SPDX-License-Identifier: Apache-2.0

// How often boards are called odd or worse, over made-up fleets with a known truth. Prints the table that
// docs/fleet.md shows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "fleet_verdict.h"
#include "made_fleet.h"

namespace {

using namespace scope;

// Of each row. FLEET_SIMULATIONS sets another number, to know the shares more exactly.
int Fleets() {
  const char* const given = std::getenv("FLEET_SIMULATIONS");
  return given != nullptr ? std::max(10, std::atoi(given)) : 40;
}
const int kFleets = Fleets();

// The greatest share that a true share of `goal` exceeds in one of 1000 simulations: the normal approximation
// with 3.1 standard errors, and one case more.
double AtMost(double goal, int cases) {
  return goal + 3.1 * std::sqrt(goal * (1 - goal) / cases) + 1.0 / cases;
}

struct Tally {
  int found = 0;    ///< all boards with the fault stand out
  int falsely = 0;  ///< another board does, or the fleet is called worse
};

Tally Simulate(const MadeSize& size, const MadeFault& fault, std::uint64_t seed,
               const MadeScatter& scatter = {}) {
  Tally tally;
  for (int i = 0; i < kFleets; ++i) {
    const Fleet fleet = MadeFleet(seed + static_cast<std::uint64_t>(i), size, fault, scatter).InMemory();
    const FleetVerdict verdict = JudgeFleet(fleet, HistoryOf(fleet, fleet.nights.size() - 1, ""), {});
    const auto faulty = static_cast<std::uint32_t>(fault.boards);
    const auto found = std::count_if(verdict.standOut.begin(), verdict.standOut.end(),
                                     [faulty](std::uint32_t board) { return board < faulty; });
    // A fleet of which nearly half got slower is worse, and may be called so.
    bool isFleetWorse = false;
    for (const MeasureVerdict& measure : verdict.measures)
      isFleetWorse |= measure.change && measure.change->worse && fault.boards == 1;
    tally.found += found == fault.boards ? 1 : 0;
    tally.falsely += static_cast<std::ptrdiff_t>(verdict.standOut.size()) > found || isFleetWorse ? 1 : 0;
  }
  return tally;
}

void PrintRow(const char* what, const MadeSize& size, const Tally& tally) {
  std::printf("| %-44s | %6d | %6d | %7d | %5.1f %% | %5.1f %% |\n", what, size.boards, size.nights,
              size.repeats, 100.0 * tally.found / kFleets, 100.0 * tally.falsely / kFleets);
}

void PrintHead() {
  std::printf(
      "| board 0                                      | boards | nights | repeats | found   | false   |\n"
      "|---|---|---|---|---|---|\n");
}

TEST(FleetSimulation, AGoodFleetHasNoOddBoard) {
  PrintHead();
  for (const MadeSize& size : {MadeSize{3, 8, 4}, MadeSize{5, 8, 4}, MadeSize{8, 8, 1}, MadeSize{20, 8, 4},
                               MadeSize{100, 1, 4}, MadeSize{100, 4, 1}, MadeSize{100, 8, 4}}) {
    Tally tally = Simulate(size, {}, 1000);
    tally.falsely += tally.found;
    tally.found = 0;
    PrintRow("good", size, tally);
    EXPECT_LE(static_cast<double>(tally.falsely) / kFleets, AtMost(0.05, kFleets)) << size.boards;
  }
}

// Boards with fewer runs scatter more, and are no worse for that.
TEST(FleetSimulation, AGoodFleetWithMissingCellsHasNoOddOrWorseBoard) {
  PrintHead();
  MadeFault fault;
  fault.missing = 0.1;
  const MadeSize size = {100, 8, 4};
  Tally tally = Simulate(size, fault, 3000);
  tally.falsely += tally.found;
  tally.found = 0;
  PrintRow("good, 10 % of the last night's cells missing", size, tally);
  EXPECT_LE(static_cast<double>(tally.falsely) / kFleets, AtMost(0.05, kFleets));
}

TEST(FleetSimulation, TheBadBoardIsFoundAndNoOtherIsCalledOdd) {
  PrintHead();
  const struct {
    const char* what;
    MadeSize size;
    MadeFault fault;
    double missed;  // the greatest share of fleets
  } kRows[] = {{"one engine 12 % slower", {100, 8, 4}, {0.88, 1, false}, 0},
               {"all engines 10 % slower", {100, 8, 4}, {1, 0.9, false}, 0},
               {"one engine 12 % slower since the last night", {100, 8, 4}, {0.88, 1, true}, 0},
               // Three standard deviations beyond the limit.
               {"one engine 10 % slower since the last night", {100, 8, 4}, {0.9, 1, true}, 0.005},
               {"45 boards 20 % slower since the last night", {100, 8, 4}, {1, 0.8, true, 45}, 0}};
  for (const auto& row : kRows) {
    const Tally tally = Simulate(row.size, row.fault, 2000);
    PrintRow(row.what, row.size, tally);
    const double most = row.missed > 0 ? AtMost(row.missed, kFleets) : 0;
    EXPECT_LE(1 - static_cast<double>(tally.found) / kFleets, most) << row.what;
    EXPECT_LE(static_cast<double>(tally.falsely) / kFleets, AtMost(0.05, kFleets)) << row.what;
  }
}

}  // namespace
