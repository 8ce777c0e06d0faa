// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

namespace Ormis::portable {

/// Bytes of memory that this process may use: the machine's, or fewer where a control group of this process
/// (version 1 or 2) or one above it has a limit. `root` is the folder in which proc and sys are looked for.
/// Throws std::bad_alloc.
std::uint64_t MemoryLimit(const std::string& root = "");

}  // namespace Ormis::portable
