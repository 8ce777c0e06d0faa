// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// Figures as people read them.
namespace scope {

/// The length in characters of a bar that shows a share.
constexpr std::size_t kBarWidth = 40;

/// A rate with enough digits to show a difference of 1 %.
std::string RateText(double value);

/// A figure of any size with enough digits to show 1 %: "0.0052", "4.213", "43.10", "431.0", "28571".
std::string ShortNumber(double value);

/// A latency in a fitting unit: "812 ns", "4.21 us", "2.31 ms", "1.20 s". "-" for 0.
std::string Latency(std::uint64_t ns);

}  // namespace scope
