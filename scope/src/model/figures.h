// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "run.h"

/// The figures of an engine's work. GB are 10^9 bytes.
namespace scope {

/// What an engine, or one of its threads, did in a second or in a whole run.
struct Work {
  std::uint64_t operations = 0;
  std::uint64_t failures = 0;
  double operationsPerS = 0;
  std::optional<double> gigabytesPerS;  ///< read and written; none if unknown
  std::uint64_t p50Ns = 0;              ///< this and the next two are 0 if unknown
  std::uint64_t p99Ns = 0;
  std::uint64_t maxNs = 0;
  /// Operations per second of busy time: the rate that the benchmark would print if it counted exactly. For
  /// an engine's whole run it is the mean of the threads, like the printed rate. 0 without operations.
  double busyRate = 0;
};

/// One engine in one second, all its threads together.
struct EngineSecond : Work {
  double timeS = 0;  ///< end of the second
  double spanS = 0;  ///< its length
  /// True if samples are missing before it. They are counted here or lost, so this second has no rate.
  bool afterGap = false;
  int threads = 0;                         ///< those that completed an operation
  std::optional<std::uint64_t> bytes = 0;  ///< none if a thread's bytes are unknown
};

/// None if one of the two is unknown.
std::optional<std::uint64_t> Sum(std::optional<std::uint64_t> left, std::optional<std::uint64_t> right);

/// Sets the rates from operations, bytes and length.
void SetRates(EngineSecond& second);

/// Adds up an engine's samples of a second that is `spanS` long. Leaves out p50 and p99.
EngineSecond AddUp(const std::vector<const Sample*>& samples, double spanS);

/// The figures, in display order.
enum class Figure { kCount, kOperations, kBandwidth, kP50, kP99, kMax, kFailures, kPrinted, kExact };

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
};

/// The one table of figures. Live table, reports and comparisons list figures from it.
const std::vector<FigureKind>& FigureKinds();
const FigureKind& KindOf(Figure figure);

/// The figure's value in `work` as people read it, "-" if it is unknown.
std::string FigureText(const FigureKind& kind, const Work& work);

}  // namespace scope
