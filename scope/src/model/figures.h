// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "run.h"

/// The figures of an engine's work.
namespace scope {

/// None if one of the two is unknown.
std::optional<std::uint64_t> Sum(std::optional<std::uint64_t> left, std::optional<std::uint64_t> right);

/// Sets op/s and GB/s of work that took `spanS`.
void SetRates(Work& work, double spanS);

/// The figures, in display order.
enum class Figure { kCount, kOperations, kBandwidth, kP50, kP99, kMax, kFailures, kPrinted, kExact, kP999 };

struct FigureKind {
  Figure figure;
  const char* name;   ///< in arguments and in JSON: "ops"
  const char* title;  ///< of columns: "ops/s"
  const char* unit;   ///< "op/s"; empty for a count
  bool lowerIsBetter;
  bool compared;      ///< has a median over the seconds of a run, which runs are compared by
  const char* chart;  ///< shows the seconds' values: "rate", "bandwidth" or "latency"; empty: none does
  std::string (*text)(double);  ///< a value as people read it, without the unit where the title says it
  /// The value in `unit`; none if it is unknown. Null: the meter does not measure it.
  std::optional<double> (*of)(const Work& work);
  bool ofMemoryAlone = false;  ///< only the latency of memory has it; no engine has
};

/// The one table of figures. Live table, reports and comparisons list figures from it.
const std::vector<FigureKind>& FigureKinds();
const FigureKind& KindOf(Figure figure);
/// The kinds that engines have, in display order.
std::vector<const FigureKind*> EngineKinds();
/// The kinds that runs are compared by, in display order.
std::vector<const FigureKind*> ComparedKinds();

/// The figure's value in `work` as people read it, "-" if it is unknown.
std::string FigureText(const FigureKind& kind, const Work& work);

}  // namespace scope
