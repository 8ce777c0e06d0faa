// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "run.h"

namespace scope {

/// Compares the encoder's streams of `runs` (--verify) with each other: equal frames with equal settings give
/// the same streams in each run of the same build, platform and encoder. A sentence for each run whose
/// streams are not those of most of the others, or of the first one. Runs whose encoder is known not to be
/// deterministic, or whose frames change, are left out.
std::vector<std::string> DifferentStreams(const std::vector<const Run*>& runs);

}  // namespace scope
