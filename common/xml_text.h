// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace stress {

/// `text` for the content of an XML element, or for an attribute's value in double quotes. Any bytes may be
/// in it: control characters, and bytes that are no character of XML 1.0 in UTF-8, become "\x1b".
std::string XmlText(const std::string& text);

}  // namespace stress
