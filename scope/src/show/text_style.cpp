// SPDX-License-Identifier: Apache-2.0
#include "text_style.h"

#include <cstdlib>

#include "live_view.h"

namespace scope {

std::string Painted(const std::string& text, Colour colour, const TextStyle& style) {
  if (!style.colour) return text;
  // Bold, so that the colours are readable on dark and on light backgrounds.
  const char* const code = colour == Colour::kGood ? "32" : colour == Colour::kBad ? "31" : "33";
  return std::string("\033[1;") + code + "m" + text + "\033[0m";
}

TextStyle OutputStyle(ColourMode mode) {
  const char* const noColour = std::getenv("NO_COLOR");
  const bool wanted = noColour == nullptr || *noColour == '\0';
  return {OutputWidth(),
          mode == ColourMode::kAlways || (mode == ColourMode::kAuto && wanted && OutputIsTerminal())};
}

}  // namespace scope
