// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "printable_text.h"

namespace scope {

inline std::string Printable(const std::string& text) {
  return stress::PrintableText(text);
}

/// The same for the text of a JSON document, whose meaning stays: the control characters that JSON allows in
/// its strings become "\u009b".
std::string PrintableJson(const std::string& json);

}  // namespace scope
