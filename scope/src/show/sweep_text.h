// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "sweep_table.h"
#include "text_table.h"

namespace scope {

/// A table of at most `width` characters with a row per point: its runs, the medians of op/s and GB/s of each
/// engine (the printed rate if there was no meter), and the total bandwidth.
std::string TableText(const SweepTable& table, std::size_t width = kTextWidth);
/// The total bandwidth as bars for one swept section, and as a shaded map for two. Empty for more sections or
/// without a bandwidth.
std::string BandwidthText(const SweepTable& table, std::size_t width = kTextWidth);
/// The result of FindSaturation as text; empty if there is none.
std::string SaturationText(const SweepTable& table);

}  // namespace scope
