// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>

namespace scope {

/// The width of text that is not printed on a terminal, in characters.
constexpr std::size_t kTextWidth = 100;

/// How text for people looks.
struct TextStyle {
  std::size_t width = kTextWidth;  ///< of tables, in characters
  bool colour = false;             ///< colours by ESC [ ... m
};

enum class Colour { kGood, kBad, kUnclear };

/// `text` in this colour if the style has colours.
std::string Painted(const std::string& text, Colour colour, const TextStyle& style);

enum class ColourMode { kAuto, kAlways, kNever };

/// The style of standard output. Its width is that of the terminal, or kTextWidth if it is not a terminal.
/// kAuto means colours on a terminal that is not "dumb", unless the environment has a NO_COLOR that is not
/// empty.
TextStyle OutputStyle(ColourMode mode);

}  // namespace scope
