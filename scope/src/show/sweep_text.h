// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "saturation.h"
#include "sweep_table.h"
#include "text_table.h"

namespace scope {

/// A table of at most `width` characters with a row per point: its runs, the medians of op/s and GB/s of each
/// engine (the printed rate if there was no meter), and the total bandwidth.
std::string TableText(const SweepTable& table, std::size_t width = kTextWidth);
/// The total bandwidth as bars for one swept section, and as a shaded map for two. Empty for more sections,
/// for settings of the board, or without a bandwidth.
std::string BandwidthText(const SweepTable& table, std::size_t width = kTextWidth);
/// What `saturation` says about the bandwidth of `engine` (or kAllEngines), in some sentences.
std::string SaturationSentence(const SweepTable& table, const std::string& engine,
                               const Saturation& saturation);
/// The sentences of the total bandwidth and of each engine, one line each; empty without a bandwidth.
std::string SaturationText(const SweepTable& table);

}  // namespace scope
