// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cmath>
#include <cstdint>
#include <random>

/// Random values that are the same for a seed with every standard library. The C++ standard fixes the numbers
/// of the engine, but not those of its distributions.
class NormalValues {
 public:
  explicit NormalValues(std::uint64_t seed) : random_(seed) {}

  /// From 0 to below 1.
  double Uniform() { return static_cast<double>(random_() >> 11) * 0x1p-53; }

  /// Of mean 0 and standard deviation 1. Box and Muller's method makes two at a time.
  double Normal() {
    if (hasSpare_) {
      hasSpare_ = false;
      return spare_;
    }
    constexpr double kTwoPi = 6.28318530717958647692;
    const double radius = std::sqrt(-2 * std::log(1 - Uniform()));
    const double angle = kTwoPi * Uniform();
    hasSpare_ = true;
    spare_ = radius * std::sin(angle);
    return radius * std::cos(angle);
  }

 private:
  std::mt19937_64 random_;
  bool hasSpare_ = false;
  double spare_ = 0;
};
