// SPDX-License-Identifier: Apache-2.0
#include "compare_figures.h"

#include <optional>
#include <tuple>

#include "engines.h"
#include "statistics.h"

namespace scope {
namespace {

using Values = std::map<FigureKey, std::vector<double>>;

// One second of all engines together: how many have a whole second that ends then, and their bandwidth.
struct TotalSecond {
  std::size_t engines = 0;
  double gigabytesPerS = 0;
};

void AddEngine(const EngineSummary& engine, double skipS, Values& figures,
               std::map<int, TotalSecond>& totals) {
  bool bytesKnown = true;
  for (std::size_t i = engine.firstWhole; i != engine.endWhole; ++i) {
    const EngineSecond& second = engine.seconds[i];
    // The middle decides, because a second does not begin at exactly a whole number.
    if (second.afterGap || second.timeS - second.spanS / 2 < skipS) continue;
    for (const FigureKind& kind : FigureKinds()) {
      const auto value = kind.compared && kind.of != nullptr ? kind.of(second) : std::nullopt;
      if (value) figures[{engine.engine, kind.figure}].push_back(*value);
    }
    bytesKnown = bytesKnown && second.gigabytesPerS.has_value();
    if (!second.gigabytesPerS) continue;
    TotalSecond& total = totals[second.second];
    ++total.engines;
    total.gigabytesPerS += *second.gigabytesPerS;
  }
  if (!bytesKnown) figures.erase({engine.engine, Figure::kBandwidth});
}

void AddLatency(const RunSummary& run, double skipS, Values& figures) {
  constexpr double kUsPerNs = 1e-3;
  for (const LatencySecond& second : LatencyAfter(run, skipS)) {
    if (second.accesses == 0) continue;
    const auto add = [&](Figure figure, std::uint64_t ns) {
      figures[{kMemory, figure}].push_back(static_cast<double>(ns) * kUsPerNs);
    };
    add(Figure::kP50, second.p50Ns);
    add(Figure::kP99, second.p99Ns);
    add(Figure::kP999, second.p999Ns);
  }
}

}  // namespace

bool operator<(const FigureKey& left, const FigureKey& right) {
  const auto rank = [](const FigureKey& key) {
    const bool unknown = key.engine != kAllEngines && FindEngine(&EngineInfo::id, key.engine) == nullptr;
    return std::tuple(EngineOrder(key.engine), unknown, key.engine, key.figure);
  };
  return rank(left) < rank(right);
}

std::map<FigureKey, std::vector<double>> FiguresOf(const RunSummary& run, double skipS) {
  Values figures;
  std::map<int, TotalSecond> totals;
  std::size_t working = 0;
  for (const EngineSummary& engine : run.engines) {
    if (!IsLoad(engine.engine)) continue;
    if (engine.work.operations == 0) {
      figures[{engine.engine, Figure::kOperations}] = {0};
      figures[{kAllEngines, Figure::kBandwidth}] = {0};  // erased below if another engine works
      continue;
    }
    ++working;
    AddEngine(engine, skipS, figures, totals);
  }
  if (working != 0) figures.erase({kAllEngines, Figure::kBandwidth});
  for (const auto& [second, total] : totals) {
    // No sum if an engine has not begun, has ended, or has unknown bytes.
    if (total.engines != working) continue;
    figures[{kAllEngines, Figure::kBandwidth}].push_back(total.gigabytesPerS);
  }
  for (const PrintedRates& printed : run.printed) {
    if (printed.engine.empty()) continue;
    for (const Rate& rate : printed.rates) {
      if (rate.timeS >= skipS) figures[{printed.engine, Figure::kPrinted}].push_back(rate.fps);
    }
  }
  AddLatency(run, skipS, figures);
  return figures;
}

std::vector<LatencySecond> LatencyAfter(const RunSummary& run, double skipS) {
  std::vector<LatencySecond> seconds;
  for (const LatencySecond& second : run.latency) {
    if (second.timeS - kCounterPeriodS / 2 >= skipS) seconds.push_back(second);
  }
  return seconds;
}

double ValueOf(Figure figure, const std::vector<double>& seconds) {
  const bool isSum = figure == Figure::kOperations || figure == Figure::kBandwidth;
  return isSum ? Mean(seconds) : Median(seconds);
}

}  // namespace scope
