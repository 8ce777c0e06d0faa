// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fleet_reasons.h"
#include "fleet_verdict.h"
#include "text_style.h"

namespace scope {

/// What `fleet` shows.
struct FleetReport {
  Fleet fleet;
  FleetVerdict verdict;
  FleetOptions options;
  std::vector<FleetReasons> reasons;
  std::string baseline;              ///< the file that the boards are compared with; empty: earlier nights
  std::size_t nightsBefore = 0;      ///< of the earlier nights, or of the baseline
  std::vector<std::uint32_t> named;  ///< boards that the user wants to see as well
};

/// How many boards stand out and why, and what is missing, in one line.
std::string FleetSentence(const FleetReport& report);

/// The sentence, the boards that stand out with their reasons, and the fleet. Long lists are cut, and the
/// text says so.
std::string FleetText(const FleetReport& report, const TextStyle& style);

/// The JSON of `fleet` (scope/FORMAT-BOARDS.md).
std::string FleetJson(const FleetReport& report);

/// The HTML page, which contains that JSON.
std::string FleetPage(const FleetReport& report);

/// A file in the format that JUnit began and job servers read: a test for each board.
std::string FleetJunit(const FleetReport& report);

/// The exit status: 0, or 1 if a board or the fleet needs a look.
int ExitStatusOf(const FleetVerdict& verdict);

/// What the finding says, in one line.
std::string FindingText(const FleetReport& report, const FleetFinding& finding);

/// The findings of a board, the greatest difference first.
std::vector<FleetFinding> FindingsOf(const FleetVerdict& verdict, std::uint32_t board);

/// True if the board has no cells in the last night, but had runs before.
bool IsAbsent(const BoardVerdict& board);

/// "b7, last seen 2026-11-21". Requires IsAbsent.
std::string AbsentText(const FleetReport& report, std::uint32_t board);

/// The last cells that are not done, for people: "cell 3 (b1: CPU=4, repeat 1) failed: ...".
std::string CellText(const FleetCell& cell);

}  // namespace scope
