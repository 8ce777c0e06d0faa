// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace scope {

/// `text` without what could control a terminal: control characters but line feed and tab, and bytes that are
/// no UTF-8, become "\x1b". For texts that come from files and from other programs.
std::string Printable(const std::string& text);

}  // namespace scope
