// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace scope {

/// Throws UserError, with the reason, unless all that this program has printed has been written. The last
/// thing that it does: what was printed to a full disk or a closed descriptor is lost.
void RequireStandardOutput();

}  // namespace scope
