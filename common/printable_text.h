// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace stress {

/// `text` without what could control a terminal: control characters but line feed and tab, and bytes that are
/// no UTF-8, become "\x1b". For texts that come from files and from other programs.
std::string PrintableText(const std::string& text);

}  // namespace stress
