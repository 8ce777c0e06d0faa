// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <functional>
#include <string>

#include "curve_folder.h"
#include "curve_plan.h"
#include "curve_table.h"
#include "made_run.h"

/// Curves with known figures. A load of x has the bandwidth and the median latency that a function says.
namespace made_curve {

struct Value {
  double gigabytesPerS = 0;
  double p50Ns = 0;
};
using Machine = std::function<Value(double load, int repeat)>;

/// One that serves at most 10 GB/s, and queues: twice the latency at about half of it.
inline Value Queue(double load, int /*repeat*/) {
  const double gigabytesPerS = std::min(12 * load, 10.0);
  const double used = gigabytesPerS / 10;
  return {gigabytesPerS, 100 + 20 * used / (1.02 - used)};
}

/// One that serves less, and later; its repeats differ a little.
inline Value SlowQueue(double load, int repeat) {
  const Value value = Queue(load, repeat);
  return {0.8 * value.gigabytesPerS * (1 + 0.001 * repeat), 1.5 * value.p50Ns * (1 + 0.001 * repeat)};
}

/// A run of the copies with this value in each second; without a bandwidth nothing worked.
inline scope::Run Run(const Value& value) {
  constexpr int kSeconds = 5;
  constexpr std::uint64_t kOperations = 1000;
  made_run::Engine cpu = made_run::kEngines[0];
  cpu.operations = kOperations;
  cpu.bytes = static_cast<std::uint64_t>(value.gigabytesPerS * 1e9 / kOperations);
  scope::Run run = made_run::Run();
  run.info.durationS = kSeconds;
  run.info.config.levels = {{"cpu", 1}};
  run.info.counters.clear();
  run.info.latency.bytes = 1 << 28;
  run.info.latency.cpu = 1;
  run.info.latency.growth = {{1 << 20, 9}, {1 << 28, 100}};
  run.info.conditions.caches = {{3, "Unified", std::uint64_t{32} << 20, 1}};
  run.info.conditions.latency = "256 MiB in pages of 2 MiB, CPU 1";
  run.samples.clear();
  run.rates.clear();
  run.counters.clear();
  run.histogram.clear();
  const auto p50Ns = static_cast<std::uint64_t>(value.p50Ns + 0.5);
  for (int second = 1; second <= kSeconds; ++second) {
    if (value.gigabytesPerS > 0) run.samples.push_back(made_run::SampleOf(cpu, 0, second, kOperations));
    scope::LatencySecond latency;
    latency.second = second;
    latency.timeS = second;
    latency.accesses = 1000;
    latency.bursts = 8;
    latency.interrupted = second == 3 ? 1 : 0;
    // The first second is the warm-up.
    latency.p50Ns = second == 1 ? 5 * p50Ns : p50Ns;
    latency.p99Ns = 2 * latency.p50Ns;
    latency.p999Ns = 3 * latency.p50Ns;
    latency.maxNs = 4 * latency.p50Ns;
    latency.meanNs = 1.1 * static_cast<double>(latency.p50Ns);
    run.latency.push_back(latency);
  }
  if (value.gigabytesPerS > 0)
    run.histogram.push_back({"cpu", 0, cpu.latencyNs - 1000, cpu.latencyNs + 1001, 0});
  return run;
}

/// The plan of a curve of ten points from no load to 1.
inline scope::Curve Plan(int repeats) {
  scope::Curve curve;
  curve.mix = {{"CPU", 1}};
  curve.sweep.started = "2026-11-21T04:00:00Z";
  curve.sweep.configPath = "config/cpu.yaml";
  curve.sweep.settings.repeats = repeats;
  curve.sweep.settings.warmupS = 1;
  curve.sweep.settings.seed = 7;
  PlanRunsOf(curve);
  return curve;
}

/// What a program would read from such a curve, without a folder.
inline scope::CurveTable Table(const Machine& machine, int repeats = 3) {
  scope::CurveTable table;
  table.name = "made";
  table.curve = Plan(repeats);
  for (int point = 0; point < table.curve.points; ++point) {
    auto [levels, duty] = LevelsOf(table.curve, point);
    table.points.push_back({LoadOf(table.curve, point), "point " + std::to_string(point), levels, duty, {}});
    for (int repeat = 1; repeat <= repeats; ++repeat) {
      const Value value = machine(LoadOf(table.curve, point), repeat);
      table.points.back().values.push_back(scope::CurveValue{
          value.gigabytesPerS, value.p50Ns, 2 * value.p50Ns, 3 * value.p50Ns, 4 * value.p50Ns});
    }
  }
  return table;
}

/// Such a curve, all of it recorded.
inline scope::Curve Write(const std::string& folder, const Machine& machine, int repeats) {
  scope::Curve curve = Plan(repeats);
  for (std::size_t i = 0; i < curve.sweep.runs.size(); ++i) {
    scope::SweepRun& planned = curve.sweep.runs[i];
    const double load = LoadOf(curve, static_cast<int>(i) / repeats);
    made_run::Write(Run(machine(load, planned.repeat)), folder + "/" + planned.folder);
    planned.state = scope::SweepState::kDone;
  }
  WriteCurve(folder, curve);
  return curve;
}

}  // namespace made_curve
