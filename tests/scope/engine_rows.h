// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "figures.h"

/// Numbers the seconds of samples by their ends, as the reader of the meter does.
inline void NumberSeconds(std::vector<scope::Sample>& samples) {
  std::map<double, int> numbers;
  for (const scope::Sample& sample : samples) numbers[sample.timeS];
  int number = 0;
  double endS = 0;
  for (auto& [timeS, second] : numbers) {
    second = number = scope::SecondAfter(number, timeS - endS);
    endS = timeS;
  }
  for (scope::Sample& sample : samples) sample.second = numbers[sample.timeS];
}

/// The rows of engines for these rows of threads. A percentile is the greatest of the threads, which is right
/// if all threads have the same.
inline std::vector<scope::EngineSample> EngineRows(const std::vector<scope::Sample>& samples) {
  std::map<std::pair<int, std::string>, scope::EngineSample> rows;
  for (const scope::Sample& sample : samples) {
    const auto [at, isNew] = rows.try_emplace({sample.second, sample.engine});
    scope::EngineSample& row = at->second;
    row.second = sample.second;
    row.timeS = sample.timeS;
    row.engine = sample.engine;
    row.threads += sample.operations != 0 ? 1 : 0;
    row.operations += sample.operations;
    row.busyNs += sample.busyNs;
    row.bytes = isNew ? sample.bytes : scope::Sum(row.bytes, sample.bytes);
    row.failures += sample.failures;
    if (sample.operations == 0) continue;
    row.p50Ns = std::max(row.p50Ns, sample.p50Ns);
    row.p99Ns = std::max(row.p99Ns, sample.p99Ns);
    row.maxNs = std::max(row.maxNs, sample.maxNs);
  }
  std::vector<scope::EngineSample> seconds;
  for (auto& [key, row] : rows) seconds.push_back(std::move(row));
  return seconds;
}

/// The run with numbered seconds and rows of engines made from its samples.
inline scope::Run Completed(scope::Run run) {
  NumberSeconds(run.samples);
  run.seconds = EngineRows(run.samples);
  return run;
}
