// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "run.h"

/// How long an operation of an engine may take.
namespace scope {

struct Deadline {
  std::string engine;
  std::uint64_t ns = 0;
};

/// Reads "vpc=16.7ms". The units are ns, us, ms and s. Throws UserError that says what was expected.
Deadline ParseDeadline(const std::string& text);

/// Reads a share of operations: "0.1%" or "0.001". Throws UserError that says what was expected.
double ParseMissedShare(const std::string& text);

/// Throws UserError if an engine has two deadlines, or if `levels` (from engine to level) lets it do nothing.
void RequireDeadlines(const std::vector<Deadline>& deadlines,
                      const std::vector<std::pair<std::string, int>>& levels);

/// The deadlines as the meter reads them: "vpc=16700000,aic=50000000".
std::string DeadlinesText(const std::vector<Deadline>& deadlines);

/// Share of the operations that missed the deadline; 0 without operations.
double MissedShare(const EngineDeadline& deadline);

/// "vpc 16.7 ms: 0.119 % of 20162 operations late (24), at most 3 in a row, p99.9 18.2 ms". Of fewer than
/// 1000 operations it names the longest in place of p99.9.
std::string DeadlineText(const EngineDeadline& deadline);

/// A sentence for each engine of which more than `failOver` of the operations missed their deadline.
std::vector<std::string> MissedTooOften(const std::vector<EngineDeadline>& deadlines, double failOver);

}  // namespace scope
