// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace scope {

/// True if encoders make other streams of the same frames, and too few agree to say which ones are right.
bool StreamsDiffer();

}  // namespace scope
