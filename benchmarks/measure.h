// SPDX-License-Identifier: Apache-2.0

/// What the side-by-side programs share: timing, their arguments, and how they end when something fails.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace measure {

/// Ends the program with status 1 and one line.
[[noreturn]] inline void Fail(const std::string& line) {
  (void)std::fprintf(stderr, "%s\n", line.c_str());
  (void)std::fflush(nullptr);
  std::_Exit(1);  // without the clean-up of libraries, in which other threads may still work
}

/// Fails when `condition` does not hold.
inline void Require(bool condition, const char* what) {
  if (!condition) Fail(std::string(what) + " failed");
}

/// The argument at `index`, which the usage calls `name`, or `fallback` if there is none. Fails unless it is
/// a whole number from 1 to `most`.
inline int CountArgument(int argc, char** argv, int index, const char* name, int fallback,
                         int most = 999'999) {
  if (index >= argc) return fallback;
  char* end = nullptr;
  const long value = std::strtol(argv[index], &end, 10);
  if (end == argv[index] || *end != '\0' || value < 1 || value > most) {
    Fail(std::string(name) + " is '" + argv[index] + "', expected a whole number from 1 to " +
         std::to_string(most));
  }
  return static_cast<int>(value);
}

/// The same for a time, which may have a fraction.
inline double SecondsArgument(int argc, char** argv, int index, double fallback) {
  constexpr double kMost = 1000;
  if (index >= argc) return fallback;
  char* end = nullptr;
  const double value = std::strtod(argv[index], &end);
  if (end == argv[index] || *end != '\0' || !(value > 0.0 && value <= kMost)) {
    Fail(std::string("SECONDS is '") + argv[index] + "', expected a number above 0, at most 1000");
  }
  return value;
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
