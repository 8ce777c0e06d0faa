// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// The copy that the CPU stress repeats.

#include <cstddef>
#include <cstdint>

#include "ormis/export.h"

/// Largest size that memcpy_s accepts. A larger one is treated as a converted negative number (the C
/// standard's Annex K, K.3.4, suggests such a limit).
constexpr std::size_t kMemcpySMax = SIZE_MAX >> 1;

/// The bounds-checked copy of the C standard's Annex K (K.3.7.1.1): copies `count` bytes from `source` to
/// `destination`, which holds `destinationMax` bytes. Both are the caller's and must not overlap.
/// Returns 0; EINVAL for a null pointer; ERANGE for a size above kMemcpySMax or a count above destinationMax;
/// EOVERFLOW for overlapping buffers. On a failure `destinationMax` bytes of the destination are zeroed,
/// unless it is null or destinationMax is above kMemcpySMax. Threads: any.
extern "C" ORMIS_API int memcpy_s(void* destination, std::size_t destinationMax, const void* source,
                                  std::size_t count);
