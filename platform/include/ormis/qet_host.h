#pragma once

#include <cstdint>

#include "ormis/export.h"

namespace Ormis {

/// Tells this implementation from others, which do not have it; asked for by its link name, never linked. The
/// version of what the headers here say of fields that are the platform's own (ux_venc_stream,
/// QetDNNHandle): 1. Threads: any, at any time.
ORMIS_API std::uint32_t QetHostVersion();

}  // namespace Ormis
