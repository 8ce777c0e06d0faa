// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "live_figures.h"

namespace scope {

/// A table on the terminal of standard output, redrawn in place.
std::unique_ptr<View> MakeLiveView();
/// Prints a line for each engine and second.
std::unique_ptr<View> MakePlainView();

/// True if standard output is a terminal that can move its cursor.
bool OutputIsTerminal();

/// The width of tables on standard output: that of the terminal, or kTextWidth if it is not a terminal.
std::size_t OutputWidth();

/// The figures of one engine in one line.
std::string Describe(const std::string& engine, const EngineSample& second);

/// What the latency probe measured in a second, in one line.
std::string Describe(const LatencySecond& second);

/// The last `width` values as blocks of eight heights, scaled from 0 to the greatest value.
std::string Sparkline(const std::vector<double>& values, std::size_t width);

/// A bar of `width` characters for `done` of `whole`.
std::string ProgressBar(double done, double whole, std::size_t width);

}  // namespace scope
