// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace scope {

/// Writes one message of this program to standard error, without the control characters in it.
void Tell(const std::string& text);

}  // namespace scope
