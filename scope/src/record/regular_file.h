// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace scope {

/// Throws UserError if the configuration `path` cannot be read, or is a pipe, a device or a socket. The
/// benchmark reads it twice, and the second time a pipe is empty.
void RequireRegularFile(const std::string& path);

}  // namespace scope
