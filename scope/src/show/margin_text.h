// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "margin_map.h"
#include "text_table.h"

namespace scope {

/// What is known of a point: "pass 8/8", "fail 3/8", "hang 8/8", "pass" and "fail" in brackets where it
/// follows from other points, "-" if nothing is known. "pass 8/8 ?" if not all results were judged
/// although the runs were asked to.
std::string PointState(const MarginPoint& point);

/// How far the setting can be moved in this direction, in one sentence.
std::string EdgeSentence(const MarginMap& map, const MarginEdge& edge);

/// What the chosen point has room for: a sentence about itself, then those of its edges.
std::vector<std::string> MarginSentences(const MarginMap& map);

/// The map as a table of at most `width` characters (one setting: a row each; two: rows and columns; more: a
/// row for each point that has runs), the chosen point's neighbours, the sentences, and why runs failed.
std::string MarginText(const MarginMap& map, std::size_t width = kTextWidth);

}  // namespace scope
