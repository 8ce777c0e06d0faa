// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// What tells the host from other platforms.

#include <cstdint>

#include "ormis/export.h"

namespace Ormis {

/// Exists in the host implementation alone. A program looks the symbol up at run time to recognise it, and
/// never links it. Returns the version of the fields that these headers describe and other platforms may use
/// in their own way (ux_venc_stream, QetDNNHandle): 1. Threads: any, at any time.
ORMIS_API std::uint32_t QetHostVersion();

}  // namespace Ormis
