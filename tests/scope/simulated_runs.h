// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "compare_values.h"
#include "normal_values.h"

struct SimulatedScatter {
  double runs = 0.025;
  double seconds = 0.03;
  double neighbours = 0.6;  ///< correlation of neighbouring seconds
};

/// Values of simulated runs. They scatter by 2.5 % between runs, a little less than the quietest of the
/// measured engines (2.75 to 10.98 %; benchmarks/RESULTS.md, Repeat), by 3 % between the seconds of a run, in
/// which neighbours resemble each other. Each second has a whole number of operations. Engines scatter
/// independently of each other, which is the hardest case for verdicts that are to hold together.
class SimulatedRuns {
 public:
  explicit SimulatedRuns(std::uint64_t seed) : random_(seed) {}

  /// `factors`: of each engine, what its rate is multiplied by.
  scope::RunValues Run(const std::vector<double>& factors, const SimulatedScatter& scatter) {
    static const struct {
      const char* name;
      double operationsPerS;
      double gigabytes;  // of an operation
    } kEngines[] = {{"cpu", 739, 0.0166}, {"vpc", 655, 0.0065}, {"venc", 224, 0.0031}, {"aic", 28.6, 0.047}};
    scope::RunValues values;
    double total = 0;
    for (std::size_t i = 0; i < factors.size(); ++i) {
      const double rate = kEngines[i].operationsPerS * factors[i] * std::exp(scatter.runs * random_.Normal());
      const double operationsPerS = WholeOperations(rate, scatter) / kSeconds;
      values[{kEngines[i].name, scope::Figure::kOperations}] = operationsPerS;
      total += operationsPerS * kEngines[i].gigabytes;
    }
    values[{scope::kAllEngines, scope::Figure::kBandwidth}] = total;
    return values;
  }

  std::vector<scope::RunValues> Side(int runs, const std::vector<double>& factors,
                                     const SimulatedScatter& scatter = {}) {
    std::vector<scope::RunValues> side;
    for (int run = 0; run < runs; ++run) side.push_back(Run(factors, scatter));
    return side;
  }

  /// A factor around 1.
  double Factor(double deviation) { return std::exp(deviation * random_.Normal()); }

 private:
  static constexpr int kSeconds = 30;

  // The operations that end within the seconds.
  double WholeOperations(double rate, const SimulatedScatter& scatter) {
    const double change = std::sqrt(1 - scatter.neighbours * scatter.neighbours);
    double noise = random_.Normal();
    const double begun = random_.Uniform();
    double done = begun;
    for (int second = 0; second < kSeconds; ++second) {
      done += rate * std::exp(scatter.seconds * noise);
      noise = scatter.neighbours * noise + change * random_.Normal();
    }
    return std::floor(done);
  }

  NormalValues random_;
};
