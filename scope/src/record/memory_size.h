// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

namespace scope {

/// The bytes that `size` asks for: a number ("65536"), with K, M or G for powers of 1024 ("512M"), or a share
/// of `availableBytes` ("25%"). Throws UserError, which names `option`, if it is none of these, less than
/// `leastBytes` (whole KiB), or more than there is.
std::uint64_t MemoryBytes(const std::string& option, const std::string& size, std::uint64_t availableBytes,
                          std::uint64_t leastBytes);

/// Memory that the system says is available, or the limit of this process's control group if that is less.
/// `systemRoot` is "/", or a recorded tree. 0 if the system does not say.
std::uint64_t AvailableBytes(const std::string& systemRoot);

/// "64.0 MiB".
std::string MebibytesText(std::uint64_t bytes);

}  // namespace scope
