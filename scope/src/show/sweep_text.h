#pragma once

#include <string>

#include "sweep_table.h"

namespace scope {

/// Medians of each point: runs, op/s and GB/s of each engine (the printed rate where there was no meter), and
/// the total bandwidth.
std::string TableText(const SweepTable& table);
/// Total bandwidth over the level of the one section, as bars; over two sections, as a map in shades. Empty
/// for other numbers of sections, and without a bandwidth.
std::string BandwidthText(const SweepTable& table);
/// A sentence on FindSaturation; empty where there is none.
std::string SaturationText(const SweepTable& table);

}  // namespace scope
