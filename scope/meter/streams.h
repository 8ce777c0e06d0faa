// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "protocol.h"

namespace scope {

/// True if encoders make other streams of the same frames, and too few agree to say which ones are right.
bool StreamsDiffer();

constexpr std::size_t kMostStreamKinds = 4;

/// What is known of the streams of a kind, numbered from 0. The header is not set. False if there is no such
/// kind, or no channel has finished a group.
bool StreamsOf(std::size_t kind, StreamsPacket& packet);

}  // namespace scope
