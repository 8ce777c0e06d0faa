#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "live_figures.h"
#include "view.h"

namespace scope {

/// A table that is drawn anew in place, for a terminal on standard output.
std::unique_ptr<View> MakeLiveView();
/// A line for each engine and second.
std::unique_ptr<View> MakePlainView();
/// Shows nothing.
std::unique_ptr<View> MakeSilentView();

/// True when standard output is a terminal that can move its cursor.
bool OutputIsTerminal();

/// One engine's figures in one line.
std::string Describe(const std::string& engine, const EngineFigures& figures);

/// The last `width` values as blocks of eight heights, from 0 to the greatest of them.
std::string Sparkline(const std::vector<double>& values, std::size_t width);

/// `done` of `whole`, `width` characters wide.
std::string ProgressBar(double done, double whole, std::size_t width);

}  // namespace scope
