// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cmath>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "engine_rows.h"
#include "run_writer.h"

/// An engine with the same work in every second, except the first (half) and the last two (none).
struct SyntheticEngine {
  std::string engine = "cpu";
  std::string stress = "cpuStress";
  int threads = 1;
  double operationsPerS = 500;  ///< of each thread
  std::uint64_t bytesPerOperation = 2'000'000;
  std::uint64_t p50Ns = 2'000'000;
  std::uint64_t p99Ns = 4'000'000;
  double fps = 450;
  int stopsAt = 0;          ///< second after which it does nothing; 0: it works to the end
  int stoppingThreads = 0;  ///< only this many of its threads stop; 0: all
  double riseAS = 0;        ///< increase of operations from second to second
};

inline scope::RunInfo SyntheticInfo() {
  scope::RunInfo info;
  info.tool = "stress_scope 0.1.0";
  info.kind = "record";
  info.started = "2026-11-21T04:00:00Z";
  info.complete = true;
  info.durationS = 30;
  info.config = {"c.yaml", "CPU:\n  Level: 1\n", {{"cpu", 1}}, {{"runTimes", "40"}}};
  info.conditions.cpuModel = "a CPU";
  info.conditions.cpuCount = 2;
  info.conditions.caches = {{1, "Data", 49152, 2}};
  info.conditions.governor = "performance";
  info.conditions.cpuMhz.least = 800;
  info.conditions.cpuMhz.most = 3000;
  info.conditions.memTotalBytes = std::uint64_t{8} << 30;
  info.conditions.kernel = "6.1";
  info.conditions.hostnameHash = "0123";
  info.conditions.buildType = "Release";
  info.conditions.libraryVersions = {{"libormis", "1.0.0"}};
  info.conditions.platformSettings = {{"memory", "device"}, {"flush", "clflushopt"}};
  info.conditions.encoderEngines = {{"0", "libx264"}, {"1", "libx264"}};
  info.conditions.meter = true;
  return info;
}

/// Writes a run of info.durationS seconds. Without a meter it has only rate lines.
inline void WriteRun(const std::string& folder, const std::vector<SyntheticEngine>& engines,
                     const scope::RunInfo& info = SyntheticInfo()) {
  scope::RunWriter writer(folder, true);
  writer.WriteInfo(info);
  writer.Add(std::vector<scope::Rate>());
  if (info.conditions.meter) {
    writer.Add(std::vector<scope::Sample>());
    writer.Add(std::vector<scope::EngineSample>());
  }
  std::map<std::pair<const SyntheticEngine*, int>, std::uint64_t> totals;
  const int seconds = static_cast<int>(info.durationS);
  for (int second = 1; second <= seconds; ++second) {
    std::vector<scope::Sample> samples;
    std::vector<scope::Rate> rates;
    for (const SyntheticEngine& engine : engines) {
      const double share = second == 1 ? 0.5 : second > seconds - 2 ? 0 : 1;
      const double rate = engine.operationsPerS + engine.riseAS * second;
      for (int thread = 0; thread < engine.threads; ++thread) {
        scope::Sample sample;
        sample.second = second;
        sample.timeS = second;
        sample.engine = engine.engine;
        sample.thread = thread;
        const bool stops = engine.stopsAt != 0 && second > engine.stopsAt &&
                           (engine.stoppingThreads == 0 || thread < engine.stoppingThreads);
        sample.operations = stops ? 0 : static_cast<std::uint64_t>(std::lround(rate * share));
        sample.busyNs = sample.operations * engine.p50Ns;
        sample.bytes = sample.operations * engine.bytesPerOperation;
        if (sample.operations != 0) {
          sample.p50Ns = engine.p50Ns;
          sample.p99Ns = engine.p99Ns;
          sample.maxNs = engine.p99Ns;
        }
        totals[{&engine, thread}] += sample.operations;
        samples.push_back(sample);
      }
      rates.push_back({static_cast<double>(second), engine.stress, second < 3 ? 0 : engine.fps});
    }
    if (info.conditions.meter) {
      writer.Add(samples);
      writer.Add(EngineRows(samples));
    }
    writer.Add(rates);
  }
  if (!info.conditions.meter) return;
  std::vector<scope::HistogramRow> rows;
  for (const auto& [thread, operations] : totals) {
    const SyntheticEngine& engine = *thread.first;
    rows.push_back({engine.engine, thread.second, engine.p50Ns, engine.p50Ns + 1, operations});
  }
  writer.WriteHistogram(rows);
}
