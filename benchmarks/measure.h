// SPDX-License-Identifier: Apache-2.0

/// What the side-by-side programs share: timing, and how they end when something fails.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace measure {

/// Ends the program with status 1 and one line when `condition` does not hold.
inline void Require(bool condition, const char* what) {
  if (condition) return;
  (void)std::fprintf(stderr, "%s failed\n", what);
  (void)std::fflush(nullptr);
  std::_Exit(1);  // without the clean-up of libraries, in which other threads may still work
}

/// The argument at `index`, or `fallback`; ends the program unless it is a number above 0.
inline int CountArgument(int argc, char** argv, int index, int fallback) {
  const long value = index < argc ? std::strtol(argv[index], nullptr, 10) : fallback;
  Require(value > 0 && value < 1'000'000, "reading the arguments: expected a count above 0, which");
  return static_cast<int>(value);
}

inline double Median(std::vector<double> values) {
  Require(!values.empty(), "measuring");
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

/// The shortest time. On a shared machine the longer ones include other programs' work.
inline double Best(const std::vector<double>& values) {
  Require(!values.empty(), "measuring");
  return *std::min_element(values.begin(), values.end());
}

/// The median of the ratios within each turn: a disturbance that lasts seconds hits both sides of a turn.
inline double MedianRatio(const std::vector<double>& numerators, const std::vector<double>& denominators) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < numerators.size(); ++i) ratios.push_back(numerators[i] / denominators[i]);
  return Median(ratios);
}

template <typename Body>
double Milliseconds(Body&& body) {
  const auto start = std::chrono::steady_clock::now();
  body();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace measure
