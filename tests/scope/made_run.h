// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "engine_rows.h"
#include "run_writer.h"

/// A run of 41 seconds with known figures: cpu with two threads; vpc, venc and aic with one. The engines
/// begin and end within a second.
namespace made_run {

constexpr int kWholeSeconds = 39;

struct Engine {
  const char* name;
  const char* stress;
  int threads;
  std::uint64_t operations;  ///< of a thread in a whole second
  std::uint64_t latencyNs;   ///< of each
  std::uint64_t bytes;       ///< of each
  double printed;
};
constexpr Engine kEngines[] = {{"cpu", "cpuStress", 2, 400, 500'000, 16'588'800, 0},
                               {"vpc", "kivuVpcStress", 1, 100, 4'000'000, 6'512'832, 250},
                               {"venc", "kivuVencStress", 1, 50, 9'000'000, 3'118'400, 111},
                               {"aic", "aicStress", 1, 12, 60'000'000, 47'000'000, 16.5}};

inline scope::Sample SampleOf(const Engine& engine, int thread, double timeS, std::uint64_t operations) {
  scope::Sample sample;
  sample.timeS = timeS;
  sample.engine = engine.name;
  sample.thread = thread;
  sample.operations = operations;
  sample.busyNs = operations * engine.latencyNs;
  sample.bytes = operations * engine.bytes;
  if (operations != 0) sample.p50Ns = sample.p99Ns = sample.maxNs = engine.latencyNs;
  return sample;
}

/// A latency probe: 150 ns in the whole seconds of the engines, 100 ns before and after them. All bursts of
/// second 20 were interrupted.
inline void AddLatency(scope::Run& run) {
  scope::LatencySummary& latency = run.info.latency;
  latency.bytes = std::uint64_t{256} << 20;
  latency.pages = "2 MiB";
  latency.timer = "rdtsc";
  latency.cpu = 3;
  latency.bursts = 328;
  latency.interrupted = 8;
  latency.bytesPerS = 2e6;
  latency.growth = {{std::uint64_t{1} << 20, 9}, {std::uint64_t{64} << 20, 90}, {latency.bytes, 100}};
  run.info.conditions.latency = "256 MiB in pages of 2 MiB, CPU 3";
  run.info.conditions.caches = {{3, "Unified", std::uint64_t{32} << 20, 1}};
  for (int second = 1; second <= kWholeSeconds + 2; ++second) {
    const bool edge = second == 1 || second == kWholeSeconds + 2;
    scope::LatencySecond row;
    row.second = second;
    row.timeS = second + 0.1;
    row.bursts = 8;
    row.interrupted = second == 20 ? 8 : 0;
    if (second != 20) {
      row.accesses = 20'000;
      row.p50Ns = edge ? 100 : 150;
      row.p99Ns = edge ? 200 : 400;
      row.p999Ns = 600;
      row.maxNs = second == 10 ? 34'000 : 700;
      row.meanNs = 160.5;
    }
    row.stealMs = 10;
    latency.accesses += row.accesses;
    run.latency.push_back(row);
  }
  latency.p50Ns = 150;
  latency.p99Ns = 400;
  latency.p999Ns = 600;
  latency.maxNs = 34'000;
}

inline scope::Run Run() {
  scope::Run run;
  run.info.tool = "stress_scope 0.1.0";
  run.info.kind = "record";
  run.info.started = "2026-11-21T04:00:00Z";
  run.info.complete = true;
  run.info.durationS = 41.2;
  run.info.config.path = "config/all.yaml";
  run.info.config.text = "CPU:\n  Level: 2\n";
  run.info.config.levels = {{"cpu", 2}, {"vpc", 1}, {"venc", 1}, {"aic", 1}};
  run.info.conditions.cpuModel = "A Processor";
  run.info.conditions.cpuCount = 4;
  run.info.conditions.memTotalBytes = 8'000'000'000;
  run.info.conditions.buildType = "Release";
  run.info.conditions.loadAverage = {0.2, 0.1, 0.1};
  run.info.conditions.meter = true;
  run.info.counters = {{"thermal", true, ""}, {"resctrl", false, "not mounted"}};
  for (int second = 1; second <= kWholeSeconds + 2; ++second) {
    const bool edge = second == 1 || second == kWholeSeconds + 2;
    for (const Engine& engine : kEngines) {
      for (int thread = 0; thread != engine.threads; ++thread) {
        run.samples.push_back(
            SampleOf(engine, thread, second, edge ? engine.operations / 2 : engine.operations));
      }
      run.rates.push_back({static_cast<double>(second), engine.stress, second < 3 ? 0 : engine.printed});
    }
    run.counters.push_back({static_cast<double>(second), "thermal", "zone0", "degC", 50 + second * 0.1});
  }
  for (const Engine& engine : kEngines) {
    const std::uint64_t operations = engine.operations * (kWholeSeconds + 1);
    for (int thread = 0; thread != engine.threads; ++thread) {
      run.histogram.push_back(
          {engine.name, thread, engine.latencyNs - 1000, engine.latencyNs + 1001, operations});
    }
  }
  return run;
}

/// Sets the counts of the histogram, one row a thread, to the operations in the samples.
inline void FitHistogram(scope::Run& run) {
  std::map<std::pair<std::string, int>, std::uint64_t> operations;
  for (const scope::Sample& sample : run.samples)
    operations[{sample.engine, sample.thread}] += sample.operations;
  for (scope::HistogramRow& row : run.histogram) row.count = operations[{row.engine, row.thread}];
  run.histogram.erase(std::remove_if(run.histogram.begin(), run.histogram.end(),
                                     [](const auto& row) { return row.count == 0; }),
                      run.histogram.end());
}

/// Saves `made` as a run folder. The rows of its engines and its histogram are made to fit its samples.
inline void Write(const scope::Run& made, const std::string& folder) {
  scope::Run run = Completed(made);
  FitHistogram(run);
  scope::RunWriter writer(folder, false);
  writer.WriteInfo(run.info);
  if (run.info.conditions.meter) {
    writer.Add(run.samples);
    writer.Add(run.seconds);
    writer.WriteHistogram(run.histogram);
  }
  writer.Add(run.rates);
  writer.Add(run.counters);
  if (!run.latency.empty()) writer.Add(run.latency);
  if (!run.errors.empty()) writer.Add(run.errors);
}

}  // namespace made_run
